// What the tool says before it sends anything: help, versions, wrong usage, dry runs, consent.

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

using namespace support;
using namespace tool_test;

namespace {

struct WrongUsage {
    Arguments arguments;
    std::string message; // behind "greirige: "
};

class Usage : public testing::TestWithParam<WrongUsage> {};

const std::string not_a_dn = "\"ou=x,,\" is not a distinguished name such as "
                             "ou=people,dc=example,dc=com";

const WrongUsage wrong_usages[] = {
    {{}, "no command is given (greirige --help lists the commands)"},
    {{"partition"}, "no command is given (greirige partition --help lists the commands)"},
    {{"frobnicate"}, "unknown command \"frobnicate\" (greirige --help)"},
    {{"partiton", "split", "o=x"},
     "unknown command \"partiton\", did you mean partition? (greirige --help)"},
    {{"partition", "spilt", "o=x"},
     "partition: unknown command \"spilt\", did you mean split? (greirige partition --help)"},
    {{"partition", "split"}, "partition split: DN is missing (greirige partition split --help)"},
    {{"partition", "count"}, "partition count: DN is missing (greirige partition count --help)"},
    {{"replica", "add", "o=x", "cn=s"},
     "replica add: TYPE is missing (greirige replica add --help)"},
    {{"partition", "split", "ou=x,,"},
     "partition split: DN: " + not_a_dn + " (greirige partition split --help)"},
    {{"partition", "count", "o=x", "ou=x,,"},
     "partition count: DN: " + not_a_dn + " (greirige partition count --help)"},
    {{"partition", "split", "o=x", "o=y"},
     "partition split: one argument too many: \"o=y\" (greirige partition split --help)"},
    {{"partition", "split", "o=x", "--flag", "1"},
     "partition split: unknown option \"--flag\", did you mean --flags? (greirige partition split "
     "--help)"},
    {{"--josn", "whoami"},
     "whoami: unknown option \"--josn\", did you mean --json? (greirige "
     "whoami --help)"},
    {{"partition", "split", "o=x", "--flags", "many"},
     "partition split: --flags: \"many\" is not a number that fits (greirige partition split "
     "--help)"},
    {{"partition", "split", "o=x", "--flags", "4294967296"},
     "partition split: --flags: \"4294967296\" is not a number that fits (greirige partition split "
     "--help)"},
    {{"partition", "split", "o=x", "--flags"},
     "partition split: --flags needs a value (greirige partition split --help)"},
    {{"-D", "cn=a", "-D", "cn=b", "whoami"},
     "whoami: --bind-dn is given more than once (greirige whoami --help)"},
    {{"replica", "add", "o=x", "cn=s", "mastr"},
     "replica add: TYPE: \"mastr\" is not one of master, secondary, read-only, subref, "
     "sparse-write, sparse-read; did you mean master? (greirige replica add --help)"},
    {{"trigger", "everything"},
     "trigger: NAME: \"everything\" is not one of backlink, janitor, limber, skulker, schema-sync, "
     "partition-purge (greirige trigger --help)"},
    {{"-H", "http://localhost", "whoami"},
     "-H \"http://localhost\": not an LDAP URI (an example: ldap://localhost:389)"},
    {{"-H", "", "whoami"}, "-H: the URI is empty (an example: ldap://localhost:389)"},
    {{"-H", "ldap:///cn=nodomain", "whoami"},
     "-H \"ldap:///cn=nodomain\": the DN does not name a domain (dc=example,dc=com)"},
    {{"-x", "-Y", "EXTERNAL", "whoami"},
     "-x binds without SASL: -Y, -U, -R, -X, -O, -Q, -I and -N do not go with it"},
    {{"-Q", "-I", "whoami"}, "-Q never asks and -I always asks: choose one"},
    {{"-x", "-w", "a", "-W", "whoami"}, "-w, -W and -y each give the password: choose one"},
    {{"-x", "-y", "/does/not/exist", "-H", "ldap://127.0.0.1:1", "-n", "-W", "whoami"},
     "-w, -W and -y each give the password: choose one"},
    {{"-o", "nettimeout=soon", "whoami"},
     "-o nettimeout: \"soon\" is not a number of seconds, \"none\" or \"max\""},
    {{"-o", "nettimeout", "whoami"}, "-o nettimeout: needs a value: -o nettimeout=VALUE"},
    {{"-o", "colour=red", "whoami"},
     "-o \"colour=red\": no such option (nettimeout, timeout, and those of ldap.conf(5))"},
    {{"-o", "TLS-REQCERT=perhaps", "whoami"},
     "-o tls_reqcert: \"perhaps\" is not one of never allow try demand hard"},
    {{"-o", "sasl_nocanon=perhaps", "whoami"},
     "-o sasl_nocanon: \"perhaps\" is not \"on\" or \"off\""},
    {{"-o", "tls_protocol_min=new", "whoami"},
     "-o tls_protocol_min: \"new\" is not a protocol version such as 3.3"},
    {{"-O", "strange", "-Y", "EXTERNAL", "whoami"},
     "-O \"strange\": not security properties as in ldap.conf(5)"},
    {{"-e", "sparkle", "whoami"}, "-e sparkle: no such extension (greirige(1) lists them)"},
    {{"-e", "authzid=u:x", "whoami"}, "-e authzid: must be critical: !authzid=..."},
    {{"-e", "!authzid", "whoami"},
     "-e authzid: needs an identity: !authzid=dn:DN or !authzid=u:USER"},
    {{"-e", "manageDSAit=1", "whoami"}, "-e manageDSAit: takes no parameter"},
    {{"-e", "noop", "-e", "!noop", "whoami"}, "-e noop: is given twice"},
    {{"-e", "assert=(", "whoami"}, "-e assert: \"(\" is not a search filter (RFC 4515)"},
    {{"-e", "assert", "whoami"}, "-e assert: needs a filter: assert=FILTER"},
    {{"-e", "chaining=never", "whoami"},
     "-e chaining: \"never\" is not one of chainingPreferred, chainingRequired, "
     "referralsPreferred, referralsRequired"},
    {{"-e", "1.2.3=x", "whoami"}, "-e 1.2.3: a value follows =: and a base64 value =::"},
    {{"-e", "1.2.3=::?", "whoami"}, "-e 1.2.3: \"?\" is not base64"},
    {{"-e", "abandon", "whoami"},
     "-e abandon: Ctrl-C ends the session here, and with it what the session waits for"},
    {{"filter", "set", "cn=s"},
     "filter set: the filter is given either as arguments or with -f "
     "FILE (greirige filter set --help)"},
    {{"filter", "set", "cn=s", "a", "-f", "-"},
     "filter set: the filter is given either as arguments or with -f FILE (greirige filter set "
     "--help)"},
    {{"filter", "set", "cn=s", "--raw", "a$b"},
     "filter set: \"a$b\": a name is not closed by a dollar sign"},
    {{"filter", "set", "cn=s", "--raw", "a$b$$"},
     "filter set: \"a$b$$\": a name is not closed by a dollar sign"},
    {{"filter", "set", "cn=s", "--raw", "$more"},
     "filter set: \"$more\": text follows the dollar sign that closes the filter"},
    {{"filter", "set", "cn=s", "--raw", "a$$$", "b$$$"},
     "filter set --raw: the filter is one text"},
    {{"filter", "set", "cn=s", "a$b"}, "\"a$b\": a name in a filter cannot hold a $"},
    {{"filter", "set", "cn=s", "a\\2"},
     "\"a\\2\": a backslash stands before two hex digits, not 00"},
    {{"filter", "set", "cn=s", "# a comment"},
     "the filter names no class (--raw '$' sets a filter without classes)"},
    {{"filter", "set", "cn=s", "-f", "/does/not/exist"},
     "cannot read \"/does/not/exist\": No such file or directory"},
    {{"name", "from-native", "\xff"}, "name from-native: NAME is not UTF-8: base64:/w=="},
    {{"load", "/does/not/exist"}, "cannot read \"/does/not/exist\": No such file or directory"},
    {{"load", "/"}, "cannot read \"/\": Is a directory"},
    {{"load", "--batch", "0"},
     "load: --batch: \"0\" is not a number from 1 on (greirige load --help)"},
    {{"load", "--window", "0"},
     "load: --window: \"0\" is not a number from 1 on (greirige load --help)"},
    {{"load", "--batch", "-1"},
     "load: --batch: \"-1\" is not a number from 1 on (greirige load --help)"},
    {{"load", "-j", "x"}, "load: --line: \"x\" is not a number from 1 on (greirige load --help)"},
    {{"watch", "adds"},
     "watch: TYPE[:STATUS]: \"adds\" is not TYPE or TYPE:STATUS, the server's numbers, such as 1 "
     "or 1:2 (greirige watch --help)"},
    {{"watch", "1", "2:"},
     "watch: TYPE[:STATUS]: \"2:\" is not TYPE or TYPE:STATUS, the server's numbers, such as 1 or "
     "1:2 (greirige watch --help)"},
    {{"watch", "1:2:3"},
     "watch: TYPE[:STATUS]: \"1:2:3\" is not TYPE or TYPE:STATUS, the server's numbers, such as 1 "
     "or 1:2 (greirige watch --help)"},
    {{"watch", "2147483648"},
     "watch: TYPE[:STATUS]: \"2147483648\" is not TYPE or TYPE:STATUS, the server's numbers, such "
     "as 1 or 1:2 (greirige watch --help)"},
    {{"watch", "--count", "0"}, "watch: --count: \"0\" is not above 0 (greirige watch --help)"},
    {{"watch", "--count", "few"},
     "watch: --count: \"few\" is not a number that fits (greirige watch --help)"},
    {{"watch", "--timeout", "-1"},
     "watch: --timeout: \"-1\" is not above 0 (greirige watch --help)"},
    {{"watch", "--timeout", "soon"},
     "watch: --timeout: \"soon\" is not a number that fits (greirige watch --help)"},
    {{"watch", "--filter", "\xff"},
     "watch: --filter: is not UTF-8: base64:/w== (greirige watch --help)"},
    {{"rights", "o=x", "cn=y"}, "rights: ATTR is missing (greirige rights --help)"},
};

TEST_P(Usage, that_is_wrong_is_told_in_one_message_with_status_2)
{
    const auto &[arguments, message] = GetParam();
    const Finished finished = greirige(arguments);
    EXPECT_EQ(finished.err, "greirige: " + message + '\n');
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(finished.out, "");
}

INSTANTIATE_TEST_SUITE_P(Each, Usage, testing::ValuesIn(wrong_usages), CommandName());

const std::vector<Arguments> commands{
    {"partition", "split"},
    {"partition", "merge"},
    {"partition", "abort"},
    {"partition", "count"},
    {"partition", "split-orphan"},
    {"partition", "remove-orphan"},
    {"replica", "add"},
    {"replica", "remove"},
    {"replica", "retype"},
    {"replica", "info"},
    {"replica", "list"},
    {"sync", "receive"},
    {"sync", "send"},
    {"sync", "partition"},
    {"sync", "schema"},
    {"filter", "get"},
    {"filter", "set"},
    {"whoami"},
    {"rights"},
    {"name", "from-dns"},
    {"name", "from-native"},
    {"refresh"},
    {"trigger"},
    {"load"},
    {"backup"},
    {"restore"},
    {"watch"},
};

std::string joined(const Arguments &words)
{
    std::string all;
    for (const std::string &word : words)
        all += (all.empty() ? "" : " ") + word;
    return all;
}

TEST(Help, of_every_command_shows_its_usage_and_an_example)
{
    for (Arguments arguments : commands) {
        const std::string name = joined(arguments);
        arguments.emplace_back("--help");
        const Finished finished = greirige(arguments);
        EXPECT_EQ(finished.status, 0) << name;
        EXPECT_EQ(finished.err, "") << name;
        EXPECT_NE(finished.out.find("Usage: greirige " + name), std::string::npos) << finished.out;
        const std::size_t example = finished.out.find("Example:\n  greirige ");
        ASSERT_NE(example, std::string::npos) << finished.out;
        EXPECT_NE(finished.out.find(name, example), std::string::npos) << finished.out;
    }
}

TEST(Help, of_the_tool_lists_the_groups_the_options_and_the_exit_statuses)
{
    const Finished finished = greirige({"--help"});
    EXPECT_EQ(finished.status, 0);
    for (const char *part :
         {"partition ",
          "replica ",
          "sync ",
          "filter ",
          "whoami ",
          "rights ",
          "name ",
          "refresh ",
          "trigger ",
          "backup ",
          "restore ",
          "watch ",
          "-H,--uri",
          "-x,--simple",
          "-D,--bind-dn",
          "-w,--password",
          "-W,--ask-password",
          "-y,--password-file",
          "-Z,--starttls",
          "-Y,--mechanism",
          "-U,--authentication-id",
          "-R,--realm",
          "-X,--authorization-id",
          "-Q,--sasl-quiet",
          "-O,--security",
          "-I,--sasl-interactive",
          "-N,--no-canonical",
          "-o,--option",
          "-e,--extension",
          "-n,--dry-run",
          "-v,--verbose",
          "-V,--version",
          "--json",
          "--yes",
          "Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 cannot connect"})
        EXPECT_NE(finished.out.find(part), std::string::npos) << part;
}

TEST(Help, examples_are_commands_that_the_tool_understands)
{
    const TemporaryDirectory directory;
    std::ofstream(directory.path() + "/people.ldif")
        << "dn: o=x\no: x\nobjectClass: organization\n";
    write_backup(directory.path() + "/yesterday.backup", "ldap://localhost");
    ProcessOptions here = isolated();
    here.directory = directory.path();
    for (Arguments arguments : commands) {
        arguments.emplace_back("--help");
        const std::string help = greirige(arguments).out;
        const std::size_t begin = help.find("Example:\n  greirige ") + 20;
        const std::string example = help.substr(begin, help.find('\n', begin) - begin);
        const Finished finished =
            run({"/bin/sh", "-c", "exec \"$0\" -n " + example, command({})[0]}, here);
        EXPECT_EQ(finished.status, 0) << example << '\n' << finished.err;
        EXPECT_TRUE(finished.out.starts_with("would ")) << finished.out;
    }
}

TEST(Manual, names_every_command_and_every_option)
{
    std::ifstream file(MANUAL_PAGE);
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    for (const Arguments &words : commands)
        EXPECT_NE(page.find(".It Cm " + joined(words)), std::string::npos) << joined(words);
    std::string help = greirige({"--help"}).out;
    for (Arguments arguments : commands) {
        arguments.emplace_back("--help");
        help += greirige(arguments).out;
    }
    int options = 0;
    for (std::size_t at = 0; (at = help.find("--", at)) != std::string::npos; ++options) {
        at += 2;
        const std::string name =
            help.substr(at, help.find_first_not_of("abcdefghijklmnopqrstuvwxyz-", at) - at);
        if (name != "help") {
            EXPECT_NE(page.find(" -" + name), std::string::npos) << name;
        }
    }
    EXPECT_GE(options, 22);
}

TEST(Version, shows_the_tool_the_library_and_libldap)
{
    const Finished finished = greirige({"-V"});
    EXPECT_EQ(finished.status, 0);
    const std::string expected = std::string("greirige ") + ldapx_version() + "\nlibgreirige " +
                                 ldapx_version() + "\nOpenLDAP libldap 2.";
    EXPECT_EQ(finished.out.substr(0, expected.size()), expected);
    EXPECT_EQ(finished.err, "");
}

TEST(Version, goes_to_standard_error_before_a_command_runs)
{
    const Finished finished = greirige({"-V", "--json", "-n", "whoami"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_NE(finished.err.find("OpenLDAP libldap 2."), std::string::npos);
    EXPECT_EQ(document(finished)["operation"], "whoami");
}

TEST(Version, given_twice_runs_no_command)
{
    const TcpPeer peer;
    const Finished finished = greirige(peer, {"-VV", "partition", "split", "o=x"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_NE(finished.out.find("OpenLDAP libldap 2."), std::string::npos);
    EXPECT_EQ(peer.connections(), 0);
}

TEST(Options, may_stand_before_and_after_the_command_and_in_clusters)
{
    TcpPeer peer;
    for (int i = 0; i < 3; ++i)
        peer.answer(LDAPX_REFRESH_SERVER_REQUEST, {.name = LDAPX_REFRESH_SERVER_RESPONSE});
    EXPECT_EQ(greirige({"refresh", "-x", "-H", peer.uri()}).status, 0);
    EXPECT_EQ(greirige({"-xH", peer.uri(), "refresh"}).status, 0);
    EXPECT_EQ(greirige({"--simple", "--uri=" + peer.uri(), "refresh"}).status, 0);
    EXPECT_EQ(peer.connections(), 3);
}

TEST(DryRun, says_what_would_be_done_and_sends_nothing)
{
    const TcpPeer peer;
    const Finished finished =
        greirige(peer, {"-n", "-W", "-D", "cn=a", "partition", "merge", "o=x"});
    EXPECT_EQ(finished.out, "would merge the partition \"o=x\" into its parent partition on " +
                                peer.uri() + '\n');
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(peer.connections(), 0);
}

TEST(DryRun, of_every_command_sends_nothing)
{
    const TcpPeer peer;
    const TemporaryDirectory directory;
    const std::string backup = directory.path() + "/it.backup";
    write_backup(backup, peer.uri());
    const std::vector<Arguments> all{{"partition", "split", "o=x"},
                                     {"partition", "merge", "o=x"},
                                     {"partition", "abort", "o=x"},
                                     {"partition", "count", "o=x", "o=y"},
                                     {"partition", "split-orphan", "o=x", "cn=s"},
                                     {"partition", "remove-orphan", "o=x", "cn=s"},
                                     {"replica", "add", "o=x", "cn=s", "master"},
                                     {"replica", "remove", "o=x", "cn=s"},
                                     {"replica", "retype", "o=x", "cn=s", "subref"},
                                     {"replica", "info", "o=x", "cn=s"},
                                     {"replica", "list", "cn=s"},
                                     {"sync", "receive", "o=x", "cn=s"},
                                     {"sync", "send", "o=x"},
                                     {"sync", "partition", "o=x", "cn=s"},
                                     {"sync", "schema", "o=x"},
                                     {"filter", "get", "cn=s"},
                                     {"filter", "set", "cn=s", "a"},
                                     {"whoami"},
                                     {"rights", "o=x", "cn=y", "cn"},
                                     {"name", "from-dns", "x.example"},
                                     {"name", "from-native", "x"},
                                     {"refresh"},
                                     {"trigger", "janitor"},
                                     {"load"},
                                     {"backup", "o=x", "-o", directory.path() + "/new"},
                                     {"restore", backup},
                                     {"watch"}};
    ASSERT_EQ(all.size(), commands.size());
    for (Arguments arguments : all) {
        arguments.insert(arguments.begin(), {"-n", "--json"});
        const Finished finished = greirige(peer, arguments);
        EXPECT_EQ(finished.status, 0) << joined(arguments) << finished.err;
        EXPECT_EQ(document(finished)["dryRun"], true) << joined(arguments);
        EXPECT_EQ(document(finished)["done"], false) << joined(arguments);
        EXPECT_EQ(document(finished)["server"], peer.uri()) << joined(arguments);
    }
    EXPECT_EQ(peer.connections(), 0);
}

TEST(DryRun, checks_the_arguments_all_the_same)
{
    EXPECT_EQ(greirige({"-n", "partition", "split", "x"}).status, 2);
    EXPECT_EQ(greirige({"-n", "-o", "colour=red", "whoami"}).status, 2);
}

struct Destructive {
    Arguments arguments;
    std::string doing;
    std::string request;
    std::string response;
};

const Destructive destructive[] = {
    {{"partition", "merge", "o=x"},
     "merge the partition \"o=x\" into its parent partition",
     LDAPX_MERGE_PARTITIONS_REQUEST,
     LDAPX_MERGE_PARTITIONS_RESPONSE},
    {{"partition", "abort", "o=x"},
     "abort the operation running on the partition \"o=x\"",
     LDAPX_ABORT_PARTITION_OPERATION_REQUEST,
     LDAPX_ABORT_PARTITION_OPERATION_RESPONSE},
    {{"partition", "remove-orphan", "o=x", "cn=s"},
     "remove the orphan partition \"o=x\" from the server \"cn=s\"",
     LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST,
     LDAPX_REMOVE_ORPHAN_PARTITION_RESPONSE},
    {{"replica", "remove", "o=x", "cn=s"},
     "remove the replica of \"o=x\" held by \"cn=s\"",
     LDAPX_REMOVE_REPLICA_REQUEST,
     LDAPX_REMOVE_REPLICA_RESPONSE},
};

class Consent : public testing::TestWithParam<Destructive> {};

TEST_P(Consent, without_a_terminal_is_missing_and_nothing_is_sent)
{
    const TcpPeer peer;
    const Destructive &operation = GetParam();
    const Finished finished = greirige(peer, operation.arguments);
    EXPECT_EQ(finished.err, "greirige: " + operation.arguments[0] + ' ' + operation.arguments[1] +
                                " would " + operation.doing + " on " + peer.uri() +
                                ", and there is no terminal to ask on (--yes does it without "
                                "asking)\n");
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(peer.connections(), 0);
}

TEST_P(Consent, is_given_by_yes)
{
    TcpPeer peer;
    const Destructive &operation = GetParam();
    peer.answer(operation.request, {.name = operation.response});
    Arguments arguments = operation.arguments;
    arguments.emplace_back("--yes");
    const Finished finished = greirige(peer, arguments);
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(peer.request(operation.request).name, operation.request);
}

TEST_P(Consent, is_asked_for_on_a_terminal)
{
    TcpPeer peer;
    const Destructive &operation = GetParam();
    peer.answer(operation.request, {.name = operation.response});
    ProcessOptions options = isolated();
    options.terminal = true;
    Child child(command(peer, operation.arguments), options);
    child.wait_for("About to " + operation.doing + " on " + peer.uri() + ".");
    child.wait_for("Go ahead? [y/N] ");
    EXPECT_EQ(peer.connections(), 0);
    child.type("yes\n");
    const Finished finished = child.wait();
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(peer.request(operation.request).name, operation.request);
}

TEST_P(Consent, that_is_refused_on_a_terminal_sends_nothing)
{
    const TcpPeer peer;
    const Destructive &operation = GetParam();
    ProcessOptions options = isolated();
    options.terminal = true;
    for (const char *answer : {"n\n", "\n", "\x04"}) { // the last is the end of the input
        Child child(command(peer, operation.arguments), options);
        child.wait_for("Go ahead? [y/N] ");
        child.type(answer);
        const Finished finished = child.wait();
        EXPECT_EQ(finished.status, 1);
        EXPECT_NE(finished.err.find("was not confirmed: nothing was sent"), std::string::npos)
            << finished.err;
    }
    EXPECT_EQ(peer.connections(), 0);
}

INSTANTIATE_TEST_SUITE_P(Each, Consent, testing::ValuesIn(destructive), CommandName());

TEST(Output, that_cannot_be_written_is_a_failure)
{
    const Finished finished =
        run({"/bin/sh", "-c", "exec \"$0\" -n whoami >/dev/full", command({})[0]}, isolated());
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.err, "greirige: cannot write the output: No space left on device\n");
}

} // namespace
