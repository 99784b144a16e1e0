// Child processes.

#include "support/process.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <gtest/gtest.h>
#include <unistd.h>

using namespace support;
using namespace std::chrono_literals;

namespace {

Finished shell(const std::string &script, const ProcessOptions &options = {})
{
    return run({"sh", "-c", script}, options);
}

// Neither gone nor dead and not yet collected by its parent.
bool runs(pid_t process)
{
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string pid;
    std::string name;
    std::string state;
    return stat >> pid >> name >> state && state != "Z";
}

} // namespace

TEST(Process, output_errors_and_status_are_captured_apart)
{
    Finished finished = shell("echo out; echo err >&2; exit 3");
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(finished.out, "out\n");
    EXPECT_EQ(finished.err, "err\n");
    EXPECT_FALSE(finished.timed_out);
    EXPECT_EQ(shell("kill -TERM $$").status, 128 + SIGTERM);
    EXPECT_THROW(run({"/no/such/program"}), std::system_error);
}

TEST(Process, input_larger_than_a_pipe_comes_back_whole)
{
    std::string text(1 << 20, 'x');
    EXPECT_EQ(run({"cat"}, {.stdin_text = text}).out, text);
    EXPECT_EQ(run({"true"}, {.stdin_text = text}).status, 0);
}

TEST(Process, environment_and_directory_are_the_child_s_own)
{
    setenv("GREIRIGE_TEST_INHERITED", "yes", 1);
    TemporaryDirectory scratch;
    Finished finished =
        shell("echo $A ${GREIRIGE_TEST_INHERITED-no}; pwd", {.environment = {{"A", "b c"}},
                                                             .unset = {"GREIRIGE_TEST_INHERITED"},
                                                             .directory = scratch.path()});
    EXPECT_EQ(finished.out,
              "b c no\n" + std::filesystem::canonical(scratch.path()).string() + "\n");
}

TEST(Process, a_child_that_takes_too_long_is_killed_with_its_children)
{
    auto start = std::chrono::steady_clock::now();
    Finished finished = shell("sleep 60 & echo $!; wait", {.timeout = 200ms});
    EXPECT_TRUE(finished.timed_out);
    EXPECT_EQ(finished.status, 128 + SIGKILL);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    pid_t grandchild = std::stoi(finished.out);
    for (int i = 0; i < 500 && runs(grandchild); i++)
        usleep(10000);
    EXPECT_FALSE(runs(grandchild));
}

TEST(Process, lines_of_a_running_child_are_read_as_they_come)
{
    Child child({"sh", "-c", "echo one; echo two; read x; echo late; sleep 60"});
    EXPECT_EQ(child.read_line(), "one");
    EXPECT_EQ(child.read_line(), "two");
    EXPECT_EQ(child.read_line(), "late");
    EXPECT_THROW(child.read_line(50ms), std::runtime_error);
    child.signal(SIGTERM);
    EXPECT_EQ(child.wait().status, 128 + SIGTERM);
}

TEST(Process, a_destroyed_child_is_gone)
{
    pid_t pid = 0;
    {
        Child child({"sleep", "60"});
        pid = child.pid();
        EXPECT_EQ(kill(pid, 0), 0);
    }
    EXPECT_EQ(kill(pid, 0), -1);
}

TEST(Process, with_a_terminal_the_child_sees_one_on_input_and_errors)
{
    Finished finished = shell("test -t 0 && test -t 2 && ! test -t 1 && read x && echo got $x",
                              {.stdin_text = "typed\n", .terminal = true});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.out, "got typed\n");
    EXPECT_NE(finished.err.find("typed"), std::string::npos); // the terminal's echo
}

TEST(Process, a_temporary_directory_goes_with_what_is_in_it)
{
    std::string path;
    {
        TemporaryDirectory scratch;
        path = scratch.path();
        std::ofstream(path + "/file") << "x";
        EXPECT_TRUE(std::filesystem::exists(path + "/file"));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}
