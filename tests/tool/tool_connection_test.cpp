// Servers that cannot be reached, refuse, close, talk nonsense or say nothing; and what decides
// where and how the tool connects: options, ldap.conf, environment.

#include <csignal>
#include <fstream>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/loopback.h"
#include "tool.h"

using namespace support;
using namespace tool_test;

namespace {

const std::string split_request = LDAPX_SPLIT_PARTITION_REQUEST;
const Arguments split{"partition", "split", "o=x"};
const std::string cannot_split = "greirige: cannot split the partition at \"o=x\" on ";

void expect(const Finished &finished, int status, const std::string &message)
{
    EXPECT_EQ(finished.err, message);
    EXPECT_EQ(finished.status, status);
    EXPECT_EQ(finished.out, "");
    EXPECT_FALSE(finished.timed_out);
}

Response accepted()
{
    return {.name = LDAPX_SPLIT_PARTITION_RESPONSE};
}

// Nothing listens there, and nobody else can.
class ClosedPort {
public:
    std::string uri() const
    {
        return "ldap://127.0.0.1:" + std::to_string(port_of(socket_));
    }

private:
    const Socket socket_ = bound_socket();
};

TEST(Unreachable, server_that_does_not_listen_is_told)
{
    const ClosedPort nobody;
    const std::string uri = nobody.uri();
    expect(greirige({"-x", "-H", uri, "partition", "split", "o=x"}), 3,
           "greirige: cannot reach " + uri +
               ": connection refused (is the server running? -H chooses another)\n");
}

TEST(Unreachable, name_that_does_not_resolve_is_told)
{
    const Finished finished = greirige({"-x", "-H", "ldap://nosuch.invalid", "whoami"});
    const std::string begin =
        "greirige: cannot reach ldap://nosuch.invalid: the name cannot be resolved: ";
    EXPECT_EQ(finished.err.substr(0, begin.size()), begin);
    EXPECT_NE(finished.err.find(" (check the name; -H chooses another)\n"), std::string::npos)
        << finished.err;
    EXPECT_EQ(finished.status, 3);
}

TEST(Unreachable, local_socket_that_does_not_exist_is_told)
{
    expect(greirige({"-x", "-H", "ldapi://%2Fno%2Fsuch", "whoami"}), 3,
           "greirige: cannot reach ldapi://%2Fno%2Fsuch: no such socket (is the server running? -H "
           "chooses another)\n");
}

TEST(Unreachable, local_socket_without_a_server_is_told)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/socket";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    const int file = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(file, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(file);
    std::string uri = "ldapi://" + path;
    for (std::size_t at = 8; (at = uri.find('/', at)) != std::string::npos;)
        uri.replace(at, 1, "%2F");
    expect(greirige({"-x", "-H", uri, "whoami"}), 3,
           "greirige: cannot reach " + uri +
               ": connection refused (is the server running? -H chooses another)\n");
}

TEST(Unreachable, servers_of_a_list_are_told_one_by_one)
{
    const ClosedPort nobody;
    const std::string first = nobody.uri();
    expect(greirige({"-x", "-H", first + " ldapi://%2Fno%2Fsuch", "whoami"}), 3,
           "greirige: cannot reach any server: " + first +
               ": connection refused; ldapi://%2Fno%2Fsuch: no such socket (-H chooses others)\n");
}

TEST(Unreachable, server_is_passed_over_for_the_next_of_the_list)
{
    const ClosedPort nobody;
    TcpPeer peer;
    peer.answer(split_request, {.code = LDAP_BUSY});
    const Finished finished =
        greirige({"-x", "-H", nobody.uri() + ' ' + peer.uri(), "partition", "split", "o=x"});
    EXPECT_EQ(finished.err,
              cannot_split + peer.uri() + ": Server is busy (51) (try again later)\n");
    EXPECT_EQ(finished.status, 1);
}

TEST(Bind, that_is_refused_is_told_with_the_name_and_the_servers_words)
{
    TcpPeer peer;
    peer.answer_bind({.code = LDAP_INVALID_CREDENTIALS, .diagnostic = "wrong \x1b[31mword"});
    expect(greirige(peer, {"-D", "cn=admin", "-w", "x", "whoami"}), 3,
           "greirige: cannot bind to " + peer.uri() +
               " as \"cn=admin\": Invalid credentials (49), the server says \"wrong \\1B[31mword\" "
               "(check the name and the password)\n");
}

TEST(Bind, without_a_password_that_is_refused_says_how_to_give_one)
{
    TcpPeer peer;
    peer.answer_bind({.code = LDAP_UNWILLING_TO_PERFORM});
    expect(greirige(peer, {"-D", "cn=admin", "whoami"}), 3,
           "greirige: cannot bind to " + peer.uri() +
               " as \"cn=admin\": Server is unwilling to perform (53); no password was given: -W "
               "asks for one\n");
}

TEST(Bind, by_sasl_that_fails_says_how_to_bind_without)
{
    TcpPeer peer;
    peer.answer_bind({.code = LDAP_AUTH_METHOD_NOT_SUPPORTED, .diagnostic = "no SASL"});
    const Finished finished = greirige({"-H", peer.uri(), "-Q", "-Y", "EXTERNAL", "whoami"});
    EXPECT_NE(finished.err.find("; this was a SASL bind: -x binds by name and password\n"),
              std::string::npos)
        << finished.err;
    EXPECT_EQ(finished.status, 3);
}

TEST(Bind, is_closed_by_the_server)
{
    TcpPeer peer;
    peer.close_at_bind();
    expect(greirige(peer, {"whoami"}), 3,
           "greirige: cannot bind to " + peer.uri() +
               ": the server closed the connection (-1) (its log may say why)\n");
}

TEST(Bind, is_answered_with_nothing)
{
    TcpPeer peer;
    peer.ignore_binds();
    expect(greirige(peer, {"-o", "timeout=1", "whoami"}), 3,
           "greirige: cannot bind to " + peer.uri() +
               ": Timed out (-5): no answer within 1 second (-o timeout=SECONDS waits longer)\n");
}

TEST(Bind, is_answered_with_garbage)
{
    for (const std::string &garbage :
         {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), bytes("04 02 00 00"),
          bytes("30 03 02 01 01"), bytes("30 06 04 04 00 00 00 00"), std::string(64, '\0'),
          bytes("30 80 02 01 01 00 00"), bytes("30 84 ff ff ff ff 02")}) {
        TcpPeer peer;
        peer.answer_bind_raw(garbage);
        const Finished finished = greirige(peer, {"-o", "timeout=2", "whoami"});
        EXPECT_EQ(finished.status, 3) << hex(garbage);
        EXPECT_TRUE(finished.err.starts_with("greirige: cannot bind to " + peer.uri() + ": "))
            << finished.err;
        EXPECT_EQ(std::count(finished.err.begin(), finished.err.end(), '\n'), 1) << finished.err;
    }
}

TEST(Bind, warns_of_what_the_password_policy_says)
{
    TcpPeer peer;
    const std::string policy = sequence(element(0xa0, integer(300, 0x80))); // expires in 300 s
    peer.answer_bind({}, sequence(octets(LDAP_CONTROL_PASSWORDPOLICYRESPONSE), octets(policy)));
    peer.answer(split_request, accepted());
    const Finished finished =
        greirige(peer, {"-e", "ppolicy", "-D", "cn=a", "-w", "x", "partition", "split", "o=x"});
    EXPECT_EQ(finished.err, "greirige: warning: the password expires in 300 seconds\n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(*peer.bind().controls, sequence(octets(LDAP_CONTROL_PASSWORDPOLICYREQUEST)));
    EXPECT_FALSE(peer.request(split_request).controls);
}

TEST(Answer, that_never_comes_is_given_up)
{
    TcpPeer peer;
    expect(greirige(peer, {"-o", "timeout=1", "partition", "split", "o=x"}), 1,
           cannot_split + peer.uri() +
               ": Timed out (-5): no answer within 1 second (-o timeout=SECONDS waits longer)\n");
}

TEST(Answer, is_the_end_of_the_connection)
{
    TcpPeer peer;
    peer.close_at(split_request);
    expect(greirige(peer, split), 1,
           cannot_split + peer.uri() +
               ": the server closed the connection (-1) (its log may say why)\n");
}

TEST(Answer, is_an_error_with_message_matched_dn_and_referrals)
{
    TcpPeer peer;
    peer.answer(
        split_request,
        {.code = LDAP_NO_SUCH_OBJECT, .diagnostic = "no entry\n", .matched_dn = "dc=example"});
    expect(greirige(peer, split), 1,
           cannot_split + peer.uri() +
               ": No such object (32), the server says \"no entry\\0A\", the nearest entry that "
               "exists is \"dc=example\" (check the spelling of the DN)\n");
}

TEST(Answer, is_a_referral_that_is_shown_and_not_followed)
{
    const TcpPeer other;
    TcpPeer peer;
    peer.answer_raw(
        split_request,
        sequence(integer(2), element(0x78, concat(enumerated(LDAP_REFERRAL), octets(""), octets(""),
                                                  element(0xa3, octets(other.uri() + "/o=x"))))));
    expect(greirige(peer, split), 1,
           cannot_split + peer.uri() + ": Referral (10), see " + other.uri() +
               "/o=x (-H URI asks that server)\n");
    EXPECT_EQ(other.connections(), 0);
}

struct Explained {
    Response response;
    std::string words;
};

TEST(Answer, is_explained_where_the_code_alone_says_too_little)
{
    const Explained explained[] = {
        {{.code = LDAP_INSUFFICIENT_ACCESS},
         "Insufficient access (50) (-x -D DN -W binds as somebody who may)"},
        {{.code = LDAP_PROTOCOL_ERROR},
         "Protocol error (2) (supportedExtension of the server's root DSE lists the operations it "
         "offers)"},
        {{.code = LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
         "Critical extension is unavailable (12) (supportedControl of the server's root DSE lists "
         "the controls it takes)"},
        {{.code = LDAP_STRONG_AUTH_REQUIRED},
         "Strong(er) authentication required (8) (-ZZ encrypts the connection)"},
        {{.code = LDAP_CONFIDENTIALITY_REQUIRED},
         "Confidentiality required (13) (-ZZ encrypts the connection)"},
        {{.code = LDAP_UNAVAILABLE}, "Server is unavailable (52) (try again later)"},
        {{.code = LDAP_OPERATIONS_ERROR}, "Operations error (1)"},
        {{.code = 0},
         "the server answered another operation than the one asked for (92) (supportedExtension of "
         "the server's root DSE lists the operations it offers)"},
        {{.code = 0, .name = "1.2.3"},
         "the server answered another operation than the one asked for (92) (supportedExtension of "
         "the server's root DSE lists the operations it offers)"},
    };
    for (const auto &[response, words] : explained) {
        TcpPeer peer;
        peer.answer(split_request, response);
        expect(greirige(peer, split), 1, cannot_split + peer.uri() + ": " + words + '\n');
    }
}

TEST(Answer, is_garbage)
{
    for (const std::string &garbage :
         {std::string("\x15\x03\x01\x00\x02\x02\x28", 7), bytes("30 03 02 01 02"),
          bytes("30 0c 02 01 02 78 07 0a 01 00 04 00 04 05"), bytes("30 84 ff ff ff ff 02"),
          std::string("SSH-2.0-OpenSSH\r\n"), std::string(300, '\xff')}) {
        TcpPeer peer;
        peer.answer_raw(split_request, garbage);
        const Finished finished = greirige(peer, {"-o", "timeout=2", "partition", "split", "o=x"});
        EXPECT_EQ(finished.status, 1) << hex(garbage);
        EXPECT_TRUE(finished.err.starts_with(cannot_split + peer.uri() + ": ")) << finished.err;
        EXPECT_EQ(std::count(finished.err.begin(), finished.err.end(), '\n'), 1) << finished.err;
    }
}

TEST(Answer, that_stops_in_the_middle_is_given_up)
{
    TcpPeer peer;
    peer.answer_raw(split_request, bytes("30 20 02 01"));
    expect(greirige(peer, {"-o", "timeout=2", "partition", "split", "o=x"}), 1,
           cannot_split + peer.uri() +
               ": Timed out (-5): no answer within 2 seconds (-o timeout=SECONDS waits longer)\n");
}

TEST(Answer, on_which_the_ldap_library_asserts_is_a_failure_like_any_other)
{
    TcpPeer peer;
    peer.answer(split_request, {.name = ""});
    const Finished finished = greirige(peer, split);
    EXPECT_EQ(finished.status, 1);
    EXPECT_TRUE(finished.err.starts_with(
        "greirige: the server's answer cannot be read: it broke a rule of the LDAP library ("))
        << finished.err;
    EXPECT_EQ(std::count(finished.err.begin(), finished.err.end(), '\n'), 1) << finished.err;
}

TEST(Greeting, of_a_server_that_speaks_first_and_something_else)
{
    TcpPeer peer;
    peer.greet("220 mail.example.com ESMTP\r\n");
    peer.ignore_binds();
    const Finished finished = greirige(peer, {"-o", "timeout=2", "whoami"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_TRUE(finished.err.starts_with("greirige: cannot bind to " + peer.uri() + ": "))
        << finished.err;
}

TEST(Interrupt, ends_the_wait_as_the_signal_would_and_says_so)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        TcpPeer peer;
        Child child(command(peer, split), isolated());
        wait_for_requests(peer, 2); // the bind and the split
        child.signal(number);
        const Finished finished = child.wait();
        EXPECT_EQ(finished.status, 128 + number);
        EXPECT_EQ(finished.err,
                  "greirige: interrupted: the server may still do what it was asked to\n");
        wait_for_requests(peer, 3);
        EXPECT_EQ(peer.requests()[2].operation, unbind_request);
    }
}

TEST(Defaults, come_from_ldap_conf)
{
    const TemporaryDirectory directory;
    TcpPeer peer;
    std::ofstream(directory.path() + "/ldap.conf") << "URI " << peer.uri() << "\nTIMEOUT 1\n";
    ProcessOptions options;
    options.unset = {"LDAPNOINIT"};
    options.environment["LDAPCONF"] = directory.path() + "/ldap.conf";
    expect(greirige({"-x", "partition", "split", "o=x"}, options), 1,
           cannot_split + peer.uri() +
               ": Timed out (-5): no answer within 1 second (-o timeout=SECONDS waits longer)\n");
}

TEST(Defaults, come_from_the_file_that_ldaprc_names)
{
    const TemporaryDirectory directory;
    TcpPeer peer;
    peer.answer(split_request, accepted());
    std::ofstream(directory.path() + "/mine") << "URI " << peer.uri() << "\nBINDDN cn=me,o=x\n";
    ProcessOptions options;
    options.unset = {"LDAPNOINIT"};
    options.environment["LDAPRC"] = "mine";
    options.directory = directory.path();
    const Finished finished = greirige({"-x", "-w", "pw", "partition", "split", "o=x"}, options);
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(peer.bind().body, concat(integer(3), octets("cn=me,o=x"), octets("pw", 0x80)));
}

TEST(Defaults, come_from_the_environment_and_yield_to_options)
{
    TcpPeer peer;
    peer.answer(split_request, accepted());
    peer.answer(split_request, accepted());
    ProcessOptions options;
    options.unset = {"LDAPNOINIT"};
    options.environment["LDAPURI"] = peer.uri();
    EXPECT_EQ(greirige({"-x", "partition", "split", "o=x"}, options).status, 0);
    options.environment["LDAPURI"] = "ldap://nosuch.invalid";
    EXPECT_EQ(greirige({"-x", "-H", peer.uri(), "partition", "split", "o=x"}, options).status, 0);
}

TEST(Defaults, can_be_given_with_o)
{
    TcpPeer peer;
    peer.answer(split_request, accepted());
    const Finished finished = greirige({"-x", "-o", "uri=" + peer.uri(), "-o", "BINDDN=cn=me", "-w",
                                        "pw", "partition", "split", "o=x"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(peer.bind().body, concat(integer(3), octets("cn=me"), octets("pw", 0x80)));
}

TEST(Defaults, of_ldap_conf_can_all_be_given_with_o)
{
    for (const char *option : {"nettimeout=5",
                               "nettimeout=none",
                               "nettimeout=max",
                               "network-timeout=5",
                               "timeout=5",
                               "URI=ldap://h",
                               "host=h",
                               "base=o=x",
                               "binddn=cn=a",
                               "deref=always",
                               "referrals=on",
                               "sizelimit=5",
                               "timelimit=5",
                               "version=3",
                               "keepalive_idle=5",
                               "keepalive_probes=5",
                               "keepalive_interval=5",
                               "socket_bind_addresses=127.0.0.1",
                               "tls_cacert=/f",
                               "tls_cacertdir=/d",
                               "tls_cert=/f",
                               "tls_key=/f",
                               "tls_cipher_suite=NORMAL",
                               "tls_protocol_min=3.3",
                               "tls_reqcert=demand",
                               "tls_reqsan=allow",
                               "tls_crlfile=/f",
                               "sasl_mech=EXTERNAL",
                               "sasl_realm=R",
                               "sasl_authcid=me",
                               "sasl_authzid=u:me",
                               "sasl_secprops=none",
                               "sasl_nocanon=on",
                               "sasl_cbinding=tls-endpoint"}) {
        const Finished finished = greirige({"-n", "-o", option, "whoami"});
        EXPECT_EQ(finished.status, 0) << option << ' ' << finished.err;
    }
}

TEST(Controls, go_with_every_operation_and_not_with_the_bind)
{
    TcpPeer peer;
    peer.answer(split_request, accepted());
    const Finished finished = greirige(
        peer, {"-e", "!manageDSAit",   "-e",        "!authzid=dn:cn=a",
               "-e", "noop",           "-e",        "chaining=chainingRequired/referralsPreferred",
               "-e", "preread=cn,sn",  "-e",        "postread",
               "-e", "!assert=(cn=a)", "-e",        "relax",
               "-e", "1.2.3",          "-e",        "!1.2.4=:abc",
               "-e", "1.2.5=::AAEC",   "partition", "split",
               "o=x"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_FALSE(peer.bind().controls);
    const std::string yes = boolean(true);
    EXPECT_EQ(hex(*peer.request(split_request).controls),
              hex(concat(sequence(octets(LDAP_CONTROL_MANAGEDSAIT), yes),
                         sequence(octets(LDAP_CONTROL_PROXY_AUTHZ), yes, octets("dn:cn=a")),
                         sequence(octets(LDAP_CONTROL_NOOP)),
                         sequence(octets(LDAP_CONTROL_X_CHAINING_BEHAVIOR),
                                  octets(sequence(enumerated(1), enumerated(2)))),
                         sequence(octets(LDAP_CONTROL_PRE_READ),
                                  octets(sequence(octets("cn"), octets("sn")))),
                         sequence(octets(LDAP_CONTROL_POST_READ), octets(sequence())),
                         sequence(octets(LDAP_CONTROL_ASSERT), yes,
                                  octets(element(0xa3, concat(octets("cn"), octets("a"))))),
                         sequence(octets(LDAP_CONTROL_RELAX)), sequence(octets("1.2.3")),
                         sequence(octets("1.2.4"), yes, octets("abc")),
                         sequence(octets("1.2.5"), octets(bytes("00 01 02"))))));
}

TEST(Controls, of_the_bind_go_with_the_bind_alone)
{
    TcpPeer peer;
    peer.answer(split_request, accepted());
    const Finished finished =
        greirige(peer, {"-e", "!bauthzid", "-e", "ppolicy", "partition", "split", "o=x"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(hex(*peer.bind().controls),
              hex(concat(sequence(octets(LDAP_CONTROL_AUTHZID_REQUEST), boolean(true)),
                         sequence(octets(LDAP_CONTROL_PASSWORDPOLICYREQUEST)))));
    EXPECT_FALSE(peer.request(split_request).controls);
}

TEST(Controls, for_session_tracking_go_with_both)
{
    TcpPeer peer;
    peer.answer(split_request, accepted());
    const Finished finished =
        greirige(peer, {"-e", "sessiontracking=anna", "partition", "split", "o=x"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    const std::string controls = *peer.bind().controls;
    const std::string control = Reader(controls).take(0x30);
    Reader parts(control);
    EXPECT_EQ(parts.take(0x04), LDAP_CONTROL_X_SESSION_TRACKING);
    const std::string value = parts.take(0x04);
    const std::string content = Reader(value).take(0x30);
    Reader fields(content);
    fields.take(0x04); // this host's address
    fields.take(0x04); // this host's name
    EXPECT_EQ(fields.take(0x04), LDAP_CONTROL_X_SESSION_TRACKING_USERNAME);
    EXPECT_EQ(fields.take(0x04), "anna");
    EXPECT_EQ(peer.request(split_request).controls, peer.bind().controls);
}

TEST(Verbose, says_what_happens_on_standard_error)
{
    TcpPeer peer;
    peer.answer(split_request, accepted());
    const Finished finished =
        greirige(peer, {"-v", "-D", "cn=a", "-w", "x", "partition", "split", "o=x"});
    EXPECT_EQ(finished.err,
              "greirige: connected to " + peer.uri() + "\ngreirige: bound as \"cn=a\"\n");
    EXPECT_EQ(finished.out, "o=x is the root of a partition\n");
}

} // namespace
