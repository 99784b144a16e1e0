// The guide's programs do what the guide says, against the sandbox, and end with the status that
// their first lines promise.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sandbox.h"

#include <fstream>

using sandbox_test::admin_dn;
using sandbox_test::base;
using sandbox_test::Sandbox;
using sandbox_test::server1;
using support::Child;
using support::Finished;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

std::vector<std::string> command(const std::string &program,
                                 const std::vector<std::string> &arguments)
{
    std::vector<std::string> all{EXAMPLES + program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

support::ProcessOptions as_admin()
{
    return {.environment = {{"LDAPURI", sandbox().url()},
                            {"LDAPBINDDN", admin_dn},
                            {"BIND_PASSWORD", "secret"},
                            {"BACKUP_PASSWORD", "between us"}},
            .unset = {"LDAPNOINIT", "START_TLS"}};
}

Finished run(const std::string &program, const std::vector<std::string> &arguments,
             const support::ProcessOptions &options = as_admin())
{
    return support::run(command(program, arguments), options);
}

void write(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

const std::string programs[] = {"list_replicas", "list_replicas_c", "watch_events",
                                "load_ldif",     "backup_restore",  "audit_privileges"};
// Arguments that each takes.
std::vector<std::string> good_arguments(const std::string &program)
{
    if (program == "watch_events")
        return {"0"};
    if (program == "load_ldif")
        return {"/dev/null"};
    if (program == "backup_restore")
        return {"backup", base, "/nowhere/file"};
    if (program == "audit_privileges")
        return {"", base, "1", "cn"};
    return {server1};
}

TEST(EveryExample, tells_its_usage)
{
    for (const std::string &program : programs) {
        const Finished told = run(program, {});
        EXPECT_EQ(told.status, 2) << program;
        EXPECT_THAT(told.err, StartsWith("usage: ")) << program;
    }
}

TEST(EveryExample, ends_with_3_where_it_cannot_bind_encrypt_or_connect)
{
    for (const std::string &program : programs) {
        support::ProcessOptions options = as_admin();
        options.environment["BIND_PASSWORD"] = "wrong";
        const Finished refused = run(program, good_arguments(program), options);
        EXPECT_EQ(refused.status, 3) << program;
        EXPECT_THAT(refused.err, HasSubstr("bind: Invalid credentials (49)")) << program;

        options = as_admin();
        options.unset = {};
        options.environment["START_TLS"] = "yes"; // which this sandbox does not offer
        EXPECT_EQ(run(program, good_arguments(program), options).status, 3) << program;

        options = as_admin();
        options.environment["LDAPURI"] = "ldap://127.0.0.1:1/";
        const Finished unreachable = run(program, good_arguments(program), options);
        EXPECT_EQ(unreachable.status, 3) << program;
        EXPECT_THAT(unreachable.err, HasSubstr("Can't contact LDAP server")) << program;
    }
}

TEST(ListReplicas, shows_type_and_partition_from_cpp_and_from_c)
{
    for (const std::string program : {"list_replicas", "list_replicas_c"}) {
        const Finished listed = run(program, {server1});
        EXPECT_EQ(listed.status, 0) << listed.err;
        EXPECT_EQ(listed.out, "master\t" + base + "\n");
        EXPECT_EQ(listed.err, "");

        const Finished failed = run(program, {"cn=nowhere"});
        EXPECT_EQ(failed.status, 1);
        EXPECT_THAT(failed.err, HasSubstr("No such object (32)"));
    }
}

TEST(WatchEvents, shows_each_event_until_its_time_is_over)
{
    Child watching(command("watch_events", {"20", "5"}), as_admin());
    const std::string ldif = "dn: " + base +
                             "\nchangetype: modify\nreplace: description\n"
                             "description: seen\n";
    std::string line;
    // The registration may still be on its way when the first changes come.
    for (int attempt = 0; attempt < 50 && line.empty(); ++attempt) {
        ASSERT_EQ(sandbox().client_as_admin("ldapmodify", {}, ldif).status, 0);
        try {
            line = watching.read_line(std::chrono::milliseconds(200));
        } catch (const std::exception &) {
        }
    }
    EXPECT_THAT(line, StartsWith("5 entry result=0 perpetrator_dn=\"" + admin_dn +
                                 "\" entry_dn=\"" + base + "\""));

    const Finished quiet = run("watch_events", {"0", "5"});
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.out, "");
}

TEST(WatchEvents, takes_a_filter_and_tells_what_the_server_refuses)
{
    const Finished refused = run("watch_events", {"10", "5", "(no filter"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("unwilling to perform (53)"));
    const Finished taken = run("watch_events", {"0", "5", "(result=0)"});
    EXPECT_EQ(taken.status, 0) << taken.err;
}

TEST(LoadLdif, applies_what_the_file_says_and_names_what_failed)
{
    const support::TemporaryDirectory directory;
    const std::string file = directory.path() + "/load.ldif";
    const std::string name = "cn=loaded," + base;
    write(file, "dn: " + name + "\nobjectClass: organizationalRole\ncn: loaded\n\n" +
                    "# line 5\ndn: " + name +
                    "\nchangetype: modify\nadd: description\ndescription:: w6Q=\n-\n"
                    "replace: l\nl: here\n\n" +
                    "dn: " + name +
                    "\nchangetype: modrdn\nnewrdn: cn=moved\ndeleteoldrdn: 1\n"
                    "newsuperior: ou=people," +
                    base + "\n\n" + "dn: cn=nobody," + base + "\nchangetype: delete\n");
    const Finished loaded = run("load_ldif", {file});
    EXPECT_EQ(loaded.status, 4) << loaded.err;
    EXPECT_EQ(loaded.out, "3 of 4 updates applied in 1 batches\n");
    EXPECT_THAT(loaded.err,
                StartsWith("load_ldif: line 20: cn=nobody," + base + ": No such object"));
    const Finished found = sandbox().client(
        "ldapsearch", {"-LLL", "-b", "cn=moved,ou=people," + base, "description", "l", "cn"});
    EXPECT_THAT(found.out, HasSubstr("description:: w6Q=\n"));
    EXPECT_THAT(found.out, HasSubstr("l: here\n"));
    EXPECT_THAT(found.out, HasSubstr("cn: moved\n"));

    write(file, "dn: cn=moved,ou=people," + base + "\nchangetype: delete\n");
    const Finished deleted = run("load_ldif", {file});
    EXPECT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_EQ(deleted.out, "1 of 1 updates applied in 1 batches\n");
}

TEST(LoadLdif, stops_at_what_is_no_update)
{
    const support::TemporaryDirectory directory;
    const std::string file = directory.path() + "/load.ldif";
    write(file, "dn: " + base + "\nchangetype: dance\n");
    const Finished stopped = run("load_ldif", {file});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_THAT(stopped.err, HasSubstr("line 1: not an update"));
    EXPECT_EQ(run("load_ldif", {file + ".none"}).status, 2);
    const Finished unreadable = run("load_ldif", {directory.path()});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_THAT(unreadable.err, HasSubstr("cannot be read"));
}

TEST(BackupRestore, brings_back_an_entry_that_was_deleted)
{
    const support::TemporaryDirectory directory;
    const std::string file = directory.path() + "/copy";
    const std::string name = "cn=kept," + base;
    ASSERT_EQ(sandbox()
                  .client_as_admin("ldapadd", {},
                                   "dn: " + name +
                                       "\nobjectClass: organizationalRole\ncn: kept\n"
                                       "description: dear\n")
                  .status,
              0);

    const Finished kept = run("backup_restore", {"backup", name, file});
    EXPECT_EQ(kept.status, 0) << kept.err;
    EXPECT_THAT(kept.out, StartsWith(name + " is backed up, "));
    EXPECT_EQ(std::filesystem::status(file).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(run("backup_restore", {"backup", name, file}).status, 0) << "with the file's state";

    ASSERT_EQ(sandbox().client_as_admin("ldapdelete", {name}).status, 0);
    support::ProcessOptions stranger = as_admin();
    stranger.environment["BACKUP_PASSWORD"] = "guessed";
    EXPECT_EQ(run("backup_restore", {"restore", name, file}, stranger).status, 1);

    const Finished restored = run("backup_restore", {"restore", name, file});
    EXPECT_EQ(restored.status, 0) << restored.err;
    EXPECT_EQ(restored.out, name + " is restored\n");
    const Finished found =
        sandbox().client("ldapsearch", {"-LLL", "-b", name, "-s", "base", "description"});
    EXPECT_THAT(found.out, HasSubstr("description: dear\n"));
}

TEST(BackupRestore, tells_files_that_are_none_and_objects_that_are_not_there)
{
    const support::TemporaryDirectory directory;
    const std::string file = directory.path() + "/copy";
    write(file, "1200+3 2 10 ");
    const Finished cut = run("backup_restore", {"restore", base, file});
    EXPECT_EQ(cut.status, 2);
    EXPECT_THAT(cut.err, HasSubstr("holds no backup"));
    EXPECT_EQ(run("backup_restore", {"backup", "cn=nowhere," + base, file + "2"}).status, 1);
    EXPECT_FALSE(std::filesystem::exists(file + "2"));
    EXPECT_EQ(run("backup_restore", {"backup", base, "/nowhere/file"}).status, 1);
}

TEST(AuditPrivileges, finds_the_entries_that_a_subject_may_change)
{
    const std::string somebody = sandbox().somebody();
    const Finished found =
        run("audit_privileges", {somebody, somebody, "0xe0", "telephoneNumber", "userPassword"});
    EXPECT_EQ(found.status, 4) << found.err;
    EXPECT_EQ(found.out,
              "0x7f\ttelephoneNumber\t" + somebody + "\n0x7f\tuserPassword\t" + somebody + "\n");

    const Finished nothing = run("audit_privileges", {"", base, "0x80", "cn", "userPassword"});
    EXPECT_EQ(nothing.status, 0) << nothing.err;
    EXPECT_EQ(nothing.out, "");
    EXPECT_EQ(run("audit_privileges", {"", "cn=nowhere", "0x80", "cn"}).status, 1);
}

} // namespace
