// Where a password comes from, and that nobody else gets to see it.

#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

using namespace support;
using namespace tool_test;

namespace {

class Password : public testing::Test {
protected:
    Password()
    {
        peer.answer(LDAPX_REFRESH_SERVER_REQUEST, {.name = LDAPX_REFRESH_SERVER_RESPONSE});
    }
    void expect_bind(const std::string &password) const
    {
        EXPECT_EQ(peer.bind().body, concat(integer(3), octets("cn=a"), octets(password, 0x80)));
    }
    Finished refresh(const Arguments &options, const ProcessOptions &process = isolated()) const
    {
        Arguments arguments{"-D", "cn=a", "refresh"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return greirige(peer, arguments, process);
    }

    TcpPeer peer;
};

TEST_F(Password, of_the_command_line_is_taken_in_every_form)
{
    for (const Arguments &form :
         {Arguments{"-w", "secret"}, Arguments{"-wsecret"}, Arguments{"--password", "secret"},
          Arguments{"--password=secret"}, Arguments{"-vwsecret"}}) {
        TcpPeer other;
        other.answer(LDAPX_REFRESH_SERVER_REQUEST, {.name = LDAPX_REFRESH_SERVER_RESPONSE});
        Arguments arguments{"-D", "cn=a", "refresh"};
        arguments.insert(arguments.end(), form.begin(), form.end());
        EXPECT_EQ(greirige(other, arguments).status, 0);
        EXPECT_EQ(other.bind().body, concat(integer(3), octets("cn=a"), octets("secret", 0x80)));
    }
}

TEST_F(Password, that_looks_like_an_option_or_holds_a_blank_is_taken)
{
    EXPECT_EQ(refresh({"-w", "-x [a,b]"}).status, 0);
    expect_bind("-x [a,b]");
}

TEST_F(Password, is_not_taken_from_the_value_of_another_option)
{
    // -y's value is "-w": there is no password on the command line.
    EXPECT_EQ(refresh({"-y", "-w"}).err,
              "greirige: cannot read the password file \"-w\": No such file or directory\n");
}

TEST_F(Password, does_not_stay_on_the_command_line)
{
    for (const Arguments &form : {Arguments{"-w", "secret"}, Arguments{"--password=secret"}}) {
        TcpPeer other;
        other.ignore_binds();
        Arguments words = command(other, {"-D", "cn=a", "refresh"});
        words.insert(words.end(), form.begin(), form.end());
        const Child child(words, isolated());
        wait_for_requests(other, 1);
        std::ifstream file("/proc/" + std::to_string(child.pid()) + "/cmdline");
        const std::string shown{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(shown.find("secret"), std::string::npos);
        EXPECT_NE(shown.find("xxxxxx"), std::string::npos);
    }
}

TEST_F(Password, of_a_file_is_its_complete_contents)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/password";
    std::ofstream(path) << "two words\n";
    chmod(path.c_str(), 0600);
    const Finished finished = refresh({"-y", path});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.err, "");
    expect_bind("two words\n");
}

TEST_F(Password, of_a_file_may_be_long_and_hold_any_byte)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/password";
    std::string password(5000, 'p');
    password[17] = '\0';
    std::ofstream(path) << password;
    chmod(path.c_str(), 0600);
    EXPECT_EQ(refresh({"-y", path}).status, 0);
    expect_bind(password);
}

TEST_F(Password, of_a_file_that_others_may_read_is_used_with_a_warning)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/password";
    std::ofstream(path) << "secret";
    chmod(path.c_str(), 0644);
    const Finished finished = refresh({"-y", path});
    EXPECT_EQ(finished.err,
              "greirige: warning: others may read or write the password file \"" + path + "\"\n");
    EXPECT_EQ(finished.status, 0);
    expect_bind("secret");
}

TEST_F(Password, of_a_file_that_does_not_exist_is_told)
{
    const Finished finished = refresh({"-y", "/does/not/exist"});
    EXPECT_EQ(finished.err, "greirige: cannot read the password file \"/does/not/exist\": No such "
                            "file or directory\n");
    EXPECT_EQ(finished.status, 2);
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(Password, is_asked_for_on_the_terminal_and_not_shown)
{
    ProcessOptions options = isolated();
    options.terminal = true;
    Child child(command(peer, {"-D", "cn=a", "-W", "refresh"}), options);
    child.wait_for("Enter LDAP Password: ");
    child.type("secret\n");
    const Finished finished = child.wait();
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err, "Enter LDAP Password: \r\n");
    expect_bind("secret");
}

TEST_F(Password, is_asked_for_on_the_terminal_even_when_input_comes_from_elsewhere)
{
    ProcessOptions options = isolated();
    options.terminal = true;
    Arguments words = command(peer, {"-D", "cn=a", "-W", "refresh"});
    words.insert(words.begin(), {"/bin/sh", "-c", "exec \"$@\" </dev/null", "sh"});
    Child child(words, options);
    child.wait_for("Enter LDAP Password: ");
    child.type("secret\n");
    EXPECT_EQ(child.wait().status, 0);
    expect_bind("secret");
}

TEST_F(Password, is_read_from_standard_input_where_there_is_no_terminal)
{
    ProcessOptions options = isolated();
    options.stdin_text = "secret\n";
    const Finished finished = refresh({"-W"}, options);
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err, "Enter LDAP Password: ");
    expect_bind("secret");
}

TEST_F(Password, that_nobody_gives_is_no_bind)
{
    const Finished finished = refresh({"-W"});
    EXPECT_EQ(finished.err, "Enter LDAP Password: greirige: no password was given: the input ended "
                            "(-y FILE reads it from a file)\n");
    EXPECT_EQ(finished.status, 3);
    EXPECT_TRUE(peer.requests().empty() || peer.requests()[0].operation == unbind_request);
}

TEST_F(Password, prompt_that_is_interrupted_restores_the_terminal)
{
    ProcessOptions options = isolated();
    options.terminal = true;
    Arguments words = command(peer, {"-D", "cn=a", "-W", "refresh"});
    // The shell stays and shows what state it finds the terminal in.
    words.insert(words.begin(),
                 {"/bin/sh", "-c", "trap : INT; \"$@\"; echo status $? >&2; stty -a >&2", "sh"});
    Child child(words, options);
    child.wait_for("Enter LDAP Password: ");
    child.type("\x03"); // Ctrl-C
    child.wait_for("status 130");
    const Finished finished = child.wait();
    EXPECT_EQ(finished.err.find("-echo "), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find(" echo "), std::string::npos) << finished.err;
}

TEST_F(Password, for_sasl_is_asked_for_when_it_is_missing)
{
    ProcessOptions options = isolated();
    options.terminal = true;
    Child child(command({"-H", peer.uri(), "-Y", "PLAIN", "-O", "none", "-U", "anna", "refresh"}),
                options);
    child.wait_for("Please enter your password: ");
    child.type("secret\n");
    EXPECT_EQ(child.wait().status, 0);
    EXPECT_EQ(
        peer.bind().body,
        concat(integer(3), octets(""),
               element(0xa3, concat(octets("PLAIN"), octets(std::string("\0anna\0secret", 12))))));
}

TEST_F(Password, for_sasl_is_never_asked_for_in_quiet_mode)
{
    const Finished finished =
        greirige({"-H", peer.uri(), "-Q", "-Y", "PLAIN", "-O", "none", "-U", "anna", "refresh"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(finished.err.find("password: "), std::string::npos) << finished.err;
}

TEST_F(Password, for_sasl_comes_from_the_same_options)
{
    EXPECT_EQ(greirige({"-H", peer.uri(), "-Q", "-Y", "PLAIN", "-O", "none", "-U", "anna", "-X",
                        "u:otto", "-w", "secret", "refresh"})
                  .status,
              0);
    EXPECT_EQ(peer.bind().body,
              concat(integer(3), octets(""),
                     element(0xa3, concat(octets("PLAIN"),
                                          octets(std::string("u:otto\0anna\0secret", 18))))));
}

} // namespace
