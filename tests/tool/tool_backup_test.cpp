// greirige backup and restore: objects of the sandbox out into files and back, and what is sent.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ldapx.h"
#include "sandbox.h"
#include "support/ber.h"
#include "support/updates.h"
#include "tool.h"

using namespace support;
using namespace tool_test;
using sandbox_test::admin_dn;
using sandbox_test::people;
using sandbox_test::Sandbox;
using Json = nlohmann::ordered_json;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

std::string read(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// An entry with everything that slapd knows of it, its lines sorted; without the number that it
// gives every change, be it a restore. Empty when there is no such entry.
std::string entry(const std::string &dn)
{
    std::istringstream lines(sandbox()
                                 .client_as_admin("ldapsearch", {"-LLL", "-o", "ldif-wrap=no", "-s",
                                                                 "base", "-b", dn, "*", "+"})
                                 .out);
    std::vector<std::string> sorted;
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with("entryCSN: "))
            sorted.push_back(line);
    std::sort(sorted.begin(), sorted.end());
    std::string text;
    for (const std::string &line : sorted)
        text.append(line).append("\n");
    return text;
}

class Backup : public testing::Test {
protected:
    // A person of its own for each test, with a photo full of zero bytes.
    void SetUp() override
    {
        Changes person{{"objectClass", {"inetOrgPerson"}},
                       {"uid", {uid}},
                       {"cn", {"Ada"}},
                       {"sn", {"Lovelace"}},
                       {"mail", {"b@example.com", "a@example.com"}},
                       {"jpegPhoto",
                        {std::string("\xff\xd8\0\0\x01\xff\xd9", 7)},
                        LDAP_MOD_ADD | LDAP_MOD_BVALUES}};
        const auto admin = sandbox().admin();
        ASSERT_EQ(ldap_add_ext_s(admin.get(), dn.c_str(), person.get(), nullptr, nullptr), 0);
    }

    void remove() const
    {
        const auto admin = sandbox().admin();
        ASSERT_EQ(ldap_delete_ext_s(admin.get(), dn.c_str(), nullptr, nullptr), 0);
    }
    void set_title(const std::string &title) const
    {
        const auto admin = sandbox().admin();
        Changes changes{{"title", {title}, LDAP_MOD_REPLACE}};
        ASSERT_EQ(ldap_modify_ext_s(admin.get(), dn.c_str(), changes.get(), nullptr, nullptr), 0);
    }

    static Finished as_admin(Arguments arguments, const ProcessOptions &options = isolated())
    {
        arguments.insert(arguments.begin(),
                         {"-x", "-H", sandbox().url(), "-D", admin_dn, "-w", "secret"});
        return greirige(arguments, options);
    }
    Finished back_up(const std::string &path, Arguments more = {}) const
    {
        more.insert(more.begin(), {"backup", dn, "-o", path});
        return as_admin(more);
    }
    static Finished restore(const std::string &path, Arguments more = {})
    {
        more.insert(more.begin(), {"--yes", "restore", path});
        return as_admin(more);
    }
    std::string path(const std::string &name) const
    {
        return directory.path() + '/' + name;
    }
    // A file that holds this password and nothing else.
    std::string password_file(const std::string &password) const
    {
        const std::string name = path("password-" + password);
        write(name, password);
        chmod(name.c_str(), 0600);
        return name;
    }
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto &each : std::filesystem::directory_iterator(directory.path()))
            names.push_back(each.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    static std::string line(const std::string &bytes, const std::string &name)
    {
        const std::size_t begin = bytes.find('\n' + name + ": ");
        return begin == std::string::npos
                   ? "none"
                   : bytes.substr(begin + name.size() + 3,
                                  bytes.find('\n', begin + 1) - begin - name.size() - 3);
    }

    TemporaryDirectory directory;
    std::string uid = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::string dn = "uid=" + uid + "," + people;
    std::string file = path("it.backup");
};

TEST_F(Backup, of_a_deleted_object_brings_it_back_equal)
{
    const std::string before = entry(dn);
    const Finished saved = back_up(file);
    ASSERT_EQ(saved.status, 0) << saved.err;
    const std::string bytes = read(file);
    EXPECT_NE(bytes.find('\0'), std::string::npos);
    EXPECT_EQ(saved.out, dn + " is backed up in " + file + ": " + line(bytes, "size") +
                             " bytes in " + line(bytes, "chunks").substr(0, 2) + " chunks, state " +
                             line(bytes, "state") + ", no password\n");
    EXPECT_EQ(saved.err, "");
    remove();
    EXPECT_EQ(entry(dn), "");
    const Finished restored = restore(file);
    EXPECT_EQ(restored.status, 0) << restored.err;
    EXPECT_EQ(restored.out, dn + " is restored as it was at " + line(bytes, "time") + '\n');
    EXPECT_EQ(entry(dn), before);
}

TEST_F(Backup, of_a_changed_object_takes_the_change_back)
{
    ASSERT_EQ(back_up(file).status, 0);
    const std::string before = entry(dn);
    set_title("countess");
    EXPECT_NE(entry(dn), before);
    EXPECT_EQ(restore(file).status, 0);
    EXPECT_EQ(entry(dn), before);
}

TEST_F(Backup, is_a_file_for_its_owner_alone_that_names_what_it_holds)
{
    ASSERT_EQ(back_up(file).status, 0);
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    const std::string bytes = read(file);
    EXPECT_TRUE(bytes.starts_with("greirige backup 1\ndn: " + dn + "\nserver: " +
                                  sandbox().url().substr(0, sandbox().url().rfind('/')) + '\n'))
        << bytes.substr(0, 200);
    EXPECT_EQ(line(bytes, "since"), "none");
    EXPECT_EQ(line(bytes, "password"), "no");
    EXPECT_EQ(files(), std::vector<std::string>{"it.backup"});
}

TEST_F(Backup, is_shown_as_json)
{
    const Json saved = document(back_up(file, {"--json"}));
    const std::string bytes = read(file);
    const std::string chunks = line(bytes, "chunks");
    const std::string server = line(bytes, "server");
    const Json expected{{"operation", "backup"},
                        {"server", server},
                        {"dn", dn},
                        {"file", file},
                        {"done", true},
                        {"time", line(bytes, "time")},
                        {"state", line(bytes, "state")},
                        {"since", nullptr},
                        {"password", false},
                        {"size", std::stoi(line(bytes, "size"))},
                        {"chunks", std::stoi(chunks)},
                        {"digest", line(bytes, "digest")}};
    EXPECT_EQ(saved.dump(), expected.dump());
    const Json restored = document(restore(file, {"--json"}));
    EXPECT_EQ(restored.dump(), Json({{"operation", "restore"},
                                     {"server", server},
                                     {"dn", dn},
                                     {"file", file},
                                     {"time", line(bytes, "time")},
                                     {"state", line(bytes, "state")},
                                     {"done", true}})
                                   .dump());
}

TEST_F(Backup, never_replaces_a_file_unless_told_to)
{
    write(file, "precious");
    const Finished refused = back_up(file);
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "greirige: \"" + file + "\" exists already (--overwrite replaces it)\n");
    EXPECT_EQ(read(file), "precious");
    EXPECT_EQ(back_up(file, {"--overwrite"}).status, 0);
    EXPECT_EQ(as_admin({"backup", "--verify", file}).status, 0);
    EXPECT_EQ(files(), std::vector<std::string>{"it.backup"});
}

TEST_F(Backup, that_fails_leaves_no_file)
{
    const Finished missing = as_admin({"backup", "uid=nobody," + people, "-o", file});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("No such object (32)"), std::string::npos) << missing.err;
    EXPECT_EQ(files(), std::vector<std::string>{});
    write(file, "precious");
    EXPECT_EQ(as_admin({"backup", "uid=nobody," + people, "-o", file, "--overwrite"}).status, 1);
    EXPECT_EQ(read(file), "precious");
    EXPECT_EQ(files(), std::vector<std::string>{"it.backup"});
}

TEST_F(Backup, into_a_place_that_cannot_be_written_is_refused_before_the_server_is_asked)
{
    const TcpPeer peer;
    const Finished finished =
        greirige(peer, {"backup", "o=x", "-o", path("no/such/directory/it.backup")});
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(finished.err, "greirige: cannot write \"" + path("no/such/directory/it.backup") +
                                "\": No such file or directory\n");
    EXPECT_EQ(greirige(peer, {"backup", "o=x", "--overwrite", "-o", directory.path()}).err,
              "greirige: \"" + directory.path() +
                  "\" is not an ordinary file and cannot be replaced\n");
    EXPECT_EQ(peer.connections(), 0);
}

// ---- Access -------------------------------------------------------------------------------------

TEST_F(Backup, by_somebody_who_may_not_is_refused)
{
    ASSERT_EQ(back_up(file).status, 0);
    const std::string other = path("other.backup");
    const Finished saved = greirige({"-x", "-H", sandbox().url(), "backup", dn, "-o", other});
    EXPECT_EQ(saved.status, 1);
    EXPECT_NE(saved.err.find("Insufficient access (50)"), std::string::npos) << saved.err;
    const Finished restored = greirige({"-x", "-H", sandbox().url(), "--yes", "restore", file});
    EXPECT_EQ(restored.status, 1);
    EXPECT_NE(restored.err.find("Insufficient access (50)"), std::string::npos) << restored.err;
    EXPECT_EQ(files(), std::vector<std::string>{"it.backup"});
}

TEST_F(Backup, with_a_password_is_restored_with_that_password_alone)
{
    const std::string good = password_file("good");
    const std::string before = entry(dn);
    ASSERT_EQ(back_up(file, {"--backup-password-file", good}).status, 0);
    EXPECT_EQ(line(read(file), "password"), "yes");
    EXPECT_EQ(read(file).find("good"), std::string::npos);
    remove();
    const Finished wrong = restore(file, {"--backup-password-file", password_file("bad")});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.err.find("Invalid credentials (49)"), std::string::npos) << wrong.err;
    const Finished none = restore(file);
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "greirige: \"" + file +
                            "\" is guarded by a password (--backup-password-file FILE reads it)\n");
    EXPECT_EQ(entry(dn), "");
    EXPECT_EQ(restore(file, {"--backup-password-file", good}).status, 0);
    EXPECT_EQ(entry(dn), before);
}

TEST_F(Backup, password_is_read_from_standard_input_where_there_is_no_terminal)
{
    ProcessOptions options = isolated();
    options.stdin_text = "typed\n";
    ASSERT_EQ(as_admin({"backup", dn, "-o", file, "--ask-backup-password"}, options).status, 0);
    EXPECT_EQ(restore(file, {"--backup-password-file", password_file("typed")}).status, 0);
    EXPECT_EQ(as_admin({"--yes", "restore", file, "--ask-backup-password"}, options).status, 0);
}

TEST_F(Backup, password_is_asked_for_twice_on_a_terminal)
{
    ProcessOptions options = isolated();
    options.terminal = true;
    const Arguments arguments =
        command({"-x", "-H", sandbox().url(), "-D", admin_dn, "-w", "secret", "backup", dn, "-o",
                 file, "--ask-backup-password"});
    Child mistyped(arguments, options);
    mistyped.wait_for("Enter Backup Password: ");
    mistyped.type("one\n");
    mistyped.wait_for("The same again: ");
    mistyped.type("two\n");
    const Finished differ = mistyped.wait();
    EXPECT_EQ(differ.status, 2);
    EXPECT_NE(differ.err.find("the two passwords differ"), std::string::npos) << differ.err;
    EXPECT_EQ(files(), std::vector<std::string>{});

    Child child(arguments, options);
    child.wait_for("Enter Backup Password: ");
    child.type("word\n");
    child.wait_for("The same again: ");
    child.type("word\n");
    const Finished finished = child.wait();
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err.find("word\r\n"), std::string::npos) << finished.err;
    EXPECT_EQ(restore(file, {"--backup-password-file", password_file("word")}).status, 0);
}

TEST_F(Backup, that_is_guarded_asks_for_its_password_on_a_terminal)
{
    ASSERT_EQ(back_up(file, {"--backup-password-file", password_file("word")}).status, 0);
    remove();
    ProcessOptions options = isolated();
    options.terminal = true;
    Child child(
        command({"-x", "-H", sandbox().url(), "-D", admin_dn, "-w", "secret", "restore", file}),
        options);
    child.wait_for("About to restore \"" + dn + "\" as it was at " + line(read(file), "time") +
                   ", from \"" + file + "\", on " + line(read(file), "server") + ".");
    child.wait_for("Go ahead? [y/N] ");
    child.type("y\n");
    child.wait_for("Enter Backup Password: ");
    child.type("word\n");
    EXPECT_EQ(child.wait().status, 0);
    EXPECT_NE(entry(dn), "");
}

// ---- Since --------------------------------------------------------------------------------------

TEST_F(Backup, since_an_earlier_one_goes_on_from_its_state)
{
    ASSERT_EQ(back_up(file).status, 0);
    const Finished same = back_up(path("same.backup"), {"--since", file});
    EXPECT_NE(same.out.find(" (unchanged), no password\n"), std::string::npos) << same.out;
    set_title("countess");
    const Json saved = document(back_up(path("next.backup"), {"--since", file, "--json"}));
    EXPECT_EQ(saved["since"], line(read(file), "state"));
    EXPECT_NE(saved["state"], line(read(file), "state"));
    const std::string next = read(path("next.backup"));
    EXPECT_EQ(line(next, "since"), line(read(file), "state"));
    EXPECT_EQ(line(next, "state"), saved["state"]);
    EXPECT_EQ(
        document(back_up(file, {"--since", path("next.backup"), "--overwrite", "--json"}))["since"],
        line(next, "state"));
}

TEST_F(Backup, since_one_of_another_object_is_refused)
{
    ASSERT_EQ(back_up(file).status, 0);
    const Finished finished = as_admin({"backup", people, "-o", path("other"), "--since", file});
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(finished.err, "greirige: \"" + file + "\" is a backup of \"" + dn + "\", not of \"" +
                                people + "\"\n");
    // The same name, written otherwise.
    EXPECT_EQ(as_admin({"backup", "UID=" + uid + ", OU=People,dc=example,dc=com", "-o",
                        path("other"), "--since", file})
                  .status,
              0);
}

// ---- What is sent -------------------------------------------------------------------------------

class Exchange : public Backup {
protected:
    void SetUp() override {}
    void TearDown() override {}

    static std::string value(const std::string &state_mts = "\x07", char revision = 1)
    {
        return concat(integer(4), integer(state_mts[0]), integer(revision),
                      octets(std::string("\0da\0", 4)),
                      sequence(integer(2), set(sequence(integer(3)), sequence(integer(1)))));
    }
    void answer_backup(const std::string &bytes)
    {
        peer.answer(LDAPX_BACKUP_OBJECT_REQUEST,
                    {.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = bytes});
    }
    void answer_restore()
    {
        peer.answer(LDAPX_RESTORE_OBJECT_REQUEST, {.name = LDAPX_RESTORE_OBJECT_RESPONSE});
    }
    Finished save(Arguments more = {})
    {
        more.insert(more.begin(), {"backup", "o=x", "-o", file});
        return greirige(peer, more);
    }

    TcpPeer peer;
};

TEST_F(Exchange, of_a_first_backup_sends_no_marks_and_keeps_the_data)
{
    answer_backup(value());
    const Finished finished = save({"--backup-password-file", password_file("pw")});
    EXPECT_EQ(finished.out, "o=x is backed up in " + file + ": 4 bytes in 2 chunks, state 7+1\n");
    EXPECT_EQ(*peer.request(LDAPX_BACKUP_OBJECT_REQUEST).value,
              concat(octets("o=x"), integer(0), integer(0), octets("pw")));
    EXPECT_TRUE(read(file).ends_with(std::string("\n\n\0da\0", 6)));
}

TEST_F(Exchange, of_a_later_backup_sends_the_marks_of_the_earlier)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    TcpPeer later;
    later.answer(LDAPX_BACKUP_OBJECT_REQUEST,
                 {.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = value("\x08")});
    const Arguments arguments{"backup", "o=x", "-o", path("b"), "--since", file};
    // The peers differ in their ports, so they are not the same server.
    const Finished refused = greirige(later, arguments);
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "greirige: \"" + file + "\" is a backup of " + peer.uri() + ", not of " +
                               later.uri() + " (--other-server uses it all the same)\n");
    EXPECT_EQ(later.connections(), 0);
    Arguments forced = arguments;
    forced.emplace_back("--other-server");
    EXPECT_EQ(greirige(later, forced).status, 0);
    EXPECT_EQ(*later.request(LDAPX_BACKUP_OBJECT_REQUEST).value,
              concat(octets("o=x"), integer(7), integer(1), octets("")));
}

TEST_F(Exchange, of_a_state_with_a_zero_is_refused_since_it_would_mean_none)
{
    answer_backup(value("\x07", 0));
    ASSERT_EQ(save().status, 0);
    const Finished finished = greirige(peer, {"backup", "o=x", "-o", path("b"), "--since", file});
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(finished.err, "greirige: the state 7+0 of \"" + file +
                                "\" cannot be sent back: 0 stands for no state\n");
}

TEST_F(Exchange, of_a_restore_sends_what_the_backup_brought)
{
    answer_backup(value());
    answer_restore();
    ASSERT_EQ(save({"--backup-password-file", password_file("pw")}).status, 0);
    const Finished finished =
        greirige(peer, {"--yes", "restore", file, "--backup-password-file", password_file("pw")});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(hex(*peer.request(LDAPX_RESTORE_OBJECT_REQUEST).value),
              hex(concat(octets("o=x"), octets("pw"), integer(4), octets(std::string("\0da\0", 4)),
                         bytes("30 84 00 00 00 1b 02 01 02 31 84 00 00 00 12"
                               "30 84 00 00 00 03 02 01 03 30 84 00 00 00 03 02 01 01"))));
}

TEST_F(Exchange, of_a_restore_is_confirmed_first)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    const int before = peer.connections();
    const Finished finished = greirige(peer, {"restore", file});
    EXPECT_EQ(finished.status, 2);
    EXPECT_NE(finished.err.find("there is no terminal to ask on (--yes does it without asking)"),
              std::string::npos)
        << finished.err;
    EXPECT_EQ(peer.connections(), before);
}

TEST_F(Exchange, of_a_dry_run_sends_nothing_and_checks_the_file)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    const int before = peer.connections();
    const std::string time = line(read(file), "time");
    EXPECT_EQ(greirige(peer, {"restore", file, "--dry-run"}).out,
              "would restore \"o=x\" as it was at " + time + ", from \"" + file + "\", on " +
                  peer.uri() + '\n');
    EXPECT_EQ(greirige(peer, {"-n", "backup", "o=x", "-o", path("b"), "--since", file}).out,
              "would back up \"o=x\" since its state 7+1 to \"" + path("b") + "\" on " +
                  peer.uri() + '\n');
    EXPECT_EQ(greirige(peer, {"-n", "backup", "o=x", "-o", file}).status, 2);
    EXPECT_EQ(greirige(peer, {"-n", "restore", path("none")}).status, 2);
    write(file, read(file) + "x");
    EXPECT_EQ(greirige(peer, {"restore", file, "--dry-run"}).status, 1);
    EXPECT_EQ(peer.connections(), before);
    EXPECT_EQ(files(), std::vector<std::string>{"it.backup"});
}

TEST_F(Exchange, of_a_damaged_file_sends_nothing_and_names_the_damage)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    const std::string bytes = read(file);
    const int before = peer.connections();
    std::string altered = bytes;
    altered.back() = 'x';
    for (const auto &[damaged, what] : std::vector<std::pair<std::string, std::string>>{
             {bytes.substr(0, bytes.size() - 1),
              "is truncated: 3 of its 4 bytes of data are there"},
             {altered, "is damaged: its digest belongs to other bytes, so it was altered"},
             {"dn: o=x\n", "is no backup that greirige made"}}) {
        write(file, damaged);
        for (const Arguments &arguments :
             {Arguments{"--yes", "restore", file}, Arguments{"backup", "--verify", file},
              Arguments{"backup", "o=x", "-o", path("b"), "--since", file}}) {
            const Finished finished = greirige(peer, arguments);
            EXPECT_EQ(finished.status, 1);
            EXPECT_EQ(finished.err, "greirige: \"" + file + "\" " + what + '\n');
            EXPECT_EQ(finished.out, "");
        }
    }
    EXPECT_EQ(peer.connections(), before);
}

TEST_F(Exchange, with_another_server_is_refused_unless_told_to)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    TcpPeer other;
    other.answer(LDAPX_RESTORE_OBJECT_REQUEST, {.name = LDAPX_RESTORE_OBJECT_RESPONSE});
    const Finished refused = greirige(other, {"--yes", "restore", file});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "greirige: \"" + file + "\" is a backup of " + peer.uri() + ", not of " +
                               other.uri() + " (--other-server uses it all the same)\n");
    EXPECT_EQ(other.connections(), 0);
    EXPECT_EQ(greirige(other, {"--yes", "restore", file, "--other-server"}).status, 0);
}

// Of several servers the first that answers is asked. It must be the one, whatever else is listed.
TEST_F(Exchange, with_another_server_of_a_list_is_refused_before_anything_is_asked_of_it)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    const TcpPeer other;
    const Finished refused =
        greirige({"-x", "-H", other.uri() + ' ' + peer.uri(), "--yes", "restore", file});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("not of " + other.uri() + ' '), std::string::npos) << refused.err;
    EXPECT_THROW(static_cast<void>(other.request(LDAPX_RESTORE_OBJECT_REQUEST)), std::exception);
}

TEST_F(Exchange, with_the_same_server_may_use_another_scheme)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    for (const auto &[uri, status] : std::vector<std::pair<std::string, int>>{
             {peer.uri("ldaps"), 0}, {peer.uri() + '0', 2}, {"ldap://localhost", 2}})
        EXPECT_EQ(greirige({"-x", "-n", "-H", uri, "restore", file}).status, status) << uri;
}

TEST_F(Exchange, that_ends_with_the_connection_or_takes_too_long_says_so)
{
    peer.close_at(LDAPX_BACKUP_OBJECT_REQUEST);
    const Finished closed = save();
    EXPECT_EQ(closed.status, 1);
    EXPECT_EQ(closed.err, "greirige: cannot back up \"o=x\" to \"" + file + "\" on " + peer.uri() +
                              ": the server closed the connection (-1) (its log may say why)\n");
    const TcpPeer silent;
    const Finished late = greirige(silent, {"-o", "timeout=1", "backup", "o=x", "-o", file});
    EXPECT_EQ(late.status, 1);
    EXPECT_NE(late.err.find("Timed out (-5): no answer within 1 second"), std::string::npos)
        << late.err;
    TcpPeer wrong;
    wrong.answer(LDAPX_BACKUP_OBJECT_REQUEST, {.name = "1.2.3"});
    EXPECT_NE(greirige(wrong, {"backup", "o=x", "-o", file})
                  .err.find("the server answered another operation than the one asked for (92)"),
              std::string::npos);
    EXPECT_EQ(files(), std::vector<std::string>{});
}

TEST_F(Exchange, with_nonsense_is_a_failure_and_leaves_no_file)
{
    for (const std::string &bytes : {std::string(), value().substr(0, 9), std::string(1000, '\x30'),
                                     concat(integer(-4), integer(7), integer(1), octets("data"),
                                            sequence(integer(0), set(""))),
                                     concat(integer(4), integer(7), integer(1), octets("data"),
                                            sequence(integer(1), set(sequence(integer(-4)))))}) {
        TcpPeer other;
        other.answer(LDAPX_BACKUP_OBJECT_REQUEST,
                     {.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = bytes});
        const Finished finished = greirige(other, {"backup", "o=x", "-o", file});
        EXPECT_EQ(finished.status, 1);
        EXPECT_TRUE(finished.err.starts_with("greirige: cannot back up \"o=x\"")) << finished.err;
    }
    EXPECT_EQ(files(), std::vector<std::string>{});
}

// ---- Verify -------------------------------------------------------------------------------------

TEST_F(Exchange, of_a_verified_file_is_none)
{
    answer_backup(value());
    ASSERT_EQ(save().status, 0);
    const std::string bytes = read(file);
    const int before = peer.connections();
    const Finished text = greirige(peer, {"backup", "--verify", file});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, "object    o=x\n"
                        "server    " +
                            peer.uri() + "\ntime      " + line(bytes, "time") +
                            "\nstate     7+1\n"
                            "password  no\n"
                            "data      4 bytes in 2 chunks\n"
                            "digest    " +
                            line(bytes, "digest") + ", as it should be\n");
    const Json json = document(greirige(peer, {"backup", "--verify", file, "--json"}));
    EXPECT_EQ(json["verified"], true);
    EXPECT_EQ(json["dn"], "o=x");
    EXPECT_EQ(json["server"], peer.uri());
    EXPECT_EQ(json["size"], 4);
    EXPECT_EQ(json["chunks"], 2);
    EXPECT_EQ(peer.connections(), before);
}

struct Wrong {
    Arguments arguments;
    std::string message;
};

class WrongBackup : public testing::TestWithParam<Wrong> {};

const Wrong wrong[] = {
    {{"backup"}, "backup: DN is missing (greirige backup --help)"},
    {{"backup", "o=x"}, "backup: -o FILE is missing (greirige backup --help)"},
    {{"backup", "o=x", "--verify", "f"},
     "backup: --verify FILE reads that file and goes with no DN, no -o and no --since (greirige "
     "backup --help)"},
    {{"backup", "--verify", "/no/such/file"},
     "cannot read \"/no/such/file\": No such file or directory"},
    {{"restore"}, "restore: FILE is missing (greirige restore --help)"},
    {{"restore", "/no/such/file"}, "cannot read \"/no/such/file\": No such file or directory"},
    {{"restore", "/"}, "cannot read \"/\": Is a directory"},
    {{"restore", "f", "--ask-backup-password", "--backup-password-file", "p"},
     "restore: --ask-backup-password and --backup-password-file each give the password: choose "
     "one"},
};

TEST_P(WrongBackup, usage_is_told_in_one_message_with_status_2)
{
    const Finished finished = greirige(GetParam().arguments);
    EXPECT_EQ(finished.err, "greirige: " + GetParam().message + '\n');
    EXPECT_EQ(finished.status, 2);
}

INSTANTIATE_TEST_SUITE_P(Each, WrongBackup, testing::ValuesIn(wrong), CommandName());

} // namespace
