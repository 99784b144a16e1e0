// Encrypted connections, and what is said when one cannot be had.

#include <chrono>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

using namespace support;
using namespace tool_test;

namespace {

class Tls : public testing::Test {
protected:
    Tls()
    {
        peer.answer(LDAPX_REFRESH_SERVER_REQUEST, {.name = LDAPX_REFRESH_SERVER_RESPONSE});
    }
    // Over ldaps://, trusting the issuers of this file.
    Finished refresh(const std::string &trusted, const Arguments &more = {}) const
    {
        Arguments arguments{"-x",     "-H", peer.uri("ldaps"), "-o", "tls_cacert=" + trusted,
                            "refresh"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return greirige(arguments);
    }
    void expect_unreachable(const Finished &finished, const std::string &cause) const
    {
        EXPECT_EQ(finished.err,
                  "greirige: cannot reach " + peer.uri("ldaps") + ": " + cause + '\n');
        EXPECT_EQ(finished.status, 3);
        EXPECT_TRUE(peer.requests().empty());
    }
    void expect_unencrypted_failure(const Finished &finished, const std::string &cause) const
    {
        EXPECT_EQ(finished.err,
                  "greirige: cannot encrypt the connection to " + peer.uri() + ": " + cause + '\n');
        EXPECT_EQ(finished.status, 3);
    }

    TemporaryDirectory directory;
    TcpPeer peer;
};

TEST_F(Tls, with_a_trusted_certificate_works)
{
    const Certificate certificate = make_certificate(directory.path());
    peer.use_tls(certificate);
    const Finished finished = refresh(certificate.certificate_file);
    EXPECT_EQ(finished.status, 0) << finished.err;
}

TEST_F(Tls, with_an_unknown_issuer_is_refused_and_names_the_file_of_the_known)
{
    const Certificate other = make_certificate(directory.path(), {.name = "other"});
    peer.use_tls(make_certificate(directory.path()));
    expect_unreachable(refresh(other.certificate_file),
                       "the server's certificate comes from an unknown issuer: the trusted issuers "
                       "are those of " +
                           other.certificate_file + " (-o tls_cacert=FILE names another file)");
}

TEST_F(Tls, with_no_issuers_at_all_says_so)
{
    peer.use_tls(make_certificate(directory.path()));
    expect_unreachable(greirige({"-x", "-H", peer.uri("ldaps"), "refresh"}),
                       "the server's certificate comes from an unknown issuer: no file of trusted "
                       "issuers is set (-o tls_cacert=FILE names another file)");
}

TEST_F(Tls, with_an_expired_certificate_is_refused)
{
    const Certificate certificate = make_certificate(directory.path(), {.days_left = -1});
    peer.use_tls(certificate);
    expect_unreachable(refresh(certificate.certificate_file),
                       "the server's certificate has expired (check this machine's clock as well)");
}

TEST_F(Tls, with_a_certificate_of_the_future_is_refused)
{
    const Certificate certificate = make_certificate(directory.path(), {.days_old = -1});
    peer.use_tls(certificate);
    expect_unreachable(
        refresh(certificate.certificate_file),
        "the server's certificate is not valid yet (check this machine's clock as well)");
}

TEST_F(Tls, with_a_certificate_for_another_name_is_refused)
{
    const Certificate certificate =
        make_certificate(directory.path(), {.name = "elsewhere.example", .address = ""});
    peer.use_tls(certificate);
    expect_unreachable(refresh(certificate.certificate_file),
                       "the server's certificate is for \"elsewhere.example\", not for "
                       "\"127.0.0.1\" (-H with the name in the certificate reaches it)");
}

TEST_F(Tls, with_a_file_of_issuers_that_does_not_exist_names_it)
{
    peer.use_tls(make_certificate(directory.path()));
    expect_unreachable(
        refresh("/does/not/exist"),
        "cannot use the CA certificate file \"/does/not/exist\": error while reading "
        "file (-o tls_cacert=FILE, tls_cert=FILE and tls_key=FILE name others)");
}

TEST_F(Tls, with_a_key_of_the_client_that_does_not_exist_names_it)
{
    const Certificate certificate = make_certificate(directory.path());
    peer.use_tls(certificate);
    expect_unreachable(
        refresh(certificate.certificate_file,
                {"-o", "tls_key=/no/key", "-o", "tls_cert=" + certificate.certificate_file}),
        "cannot open \"/no/key\": no such file or directory (tls_key and tls_cert name the "
        "client's "
        "own key and certificate)");
}

TEST_F(Tls, without_checks_works_with_any_certificate)
{
    peer.use_tls(make_certificate(directory.path(), {.days_left = -1}));
    const Finished finished =
        greirige({"-x", "-H", peer.uri("ldaps"), "-o", "tls_reqcert=never", "refresh"});
    EXPECT_EQ(finished.status, 0) << finished.err;
}

TEST_F(Tls, to_a_server_that_does_not_speak_it_fails_with_the_reason)
{
    peer.greet("220 mail.example.com ESMTP\r\n");
    const Finished finished = refresh("/dev/null", {"-o", "tls_reqcert=never"});
    const std::string begin =
        "greirige: cannot reach " + peer.uri("ldaps") + ": the TLS handshake failed: ";
    EXPECT_EQ(finished.err.substr(0, begin.size()), begin);
    EXPECT_NE(finished.err.find(" (does this port speak TLS?)\n"), std::string::npos)
        << finished.err;
    EXPECT_EQ(finished.status, 3);
}

TEST_F(Tls, to_a_server_that_says_nothing_is_given_up)
{
    peer.say_nothing();
    const Finished finished = greirige({"-x", "-H", peer.uri("ldaps"), "-o", "nettimeout=1", "-o",
                                        "tls_reqcert=never", "refresh"});
    expect_unreachable(finished,
                       "the TLS handshake is not answered (-o nettimeout=SECONDS waits longer)");
    EXPECT_FALSE(finished.timed_out);
}

TEST_F(Tls, by_starttls_encrypts_before_the_bind)
{
    const Certificate certificate = make_certificate(directory.path());
    peer.answer(start_tls, {});
    peer.use_tls(certificate);
    const Finished finished = greirige(
        peer, {"-v", "-ZZ", "-o", "tls_cacert=" + certificate.certificate_file, "refresh"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err, "greirige: connected to " + peer.uri() +
                                "\ngreirige: encrypted with StartTLS\ngreirige: bound\n");
    ASSERT_GE(peer.requests().size(), 2U);
    EXPECT_EQ(peer.requests()[0].name, start_tls);
    EXPECT_EQ(peer.requests()[1].operation, bind_request);
}

TEST_F(Tls, by_starttls_that_the_server_refuses_is_insisted_on_with_ZZ)
{
    peer.answer(start_tls, {.code = LDAP_UNAVAILABLE, .diagnostic = "no TLS here"});
    expect_unencrypted_failure(greirige(peer, {"-ZZ", "-D", "cn=a", "-w", "secret", "refresh"}),
                               "Server is unavailable (52), the server says \"no TLS here\" (try "
                               "again later)");
    EXPECT_THROW(peer.bind(), std::runtime_error); // the password has not left the house
}

TEST_F(Tls, by_starttls_that_the_server_refuses_is_done_without_with_Z)
{
    peer.answer(start_tls, {.code = LDAP_PROTOCOL_ERROR, .diagnostic = "what?"});
    const Finished finished = greirige(peer, {"-Z", "refresh"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(
        finished.err,
        "greirige: warning: cannot encrypt the connection to " + peer.uri() +
            ": Protocol error (2), the server says \"what?\" (supportedExtension of the "
            "server's root DSE lists the operations it offers); going on without encryption\n");
}

TEST_F(Tls, by_starttls_with_a_bad_certificate_never_goes_on)
{
    peer.answer(start_tls, {});
    peer.use_tls(make_certificate(directory.path(), {.days_left = -1}));
    const Certificate other = make_certificate(directory.path(), {.name = "other"});
    for (const char *option : {"-Z", "-ZZ"}) {
        TcpPeer strict;
        strict.answer(start_tls, {});
        strict.use_tls(make_certificate(directory.path(), {.name = "old", .days_left = -1}));
        const Finished finished = greirige(
            strict, {option, "-o", "tls_cacert=" + directory.path() + "/old.pem", "refresh"});
        EXPECT_EQ(finished.err, "greirige: cannot encrypt the connection to " + strict.uri() +
                                    ": the server's certificate has expired (check this machine's "
                                    "clock as well)\n");
        EXPECT_EQ(finished.status, 3);
        EXPECT_THROW(strict.bind(), std::runtime_error);
    }
}

TEST_F(Tls, by_starttls_that_is_agreed_and_not_begun_is_given_up)
{
    peer.answer(start_tls, {});
    peer.use_tls(make_certificate(directory.path()));
    peer.say_nothing(1);
    expect_unencrypted_failure(greirige(peer, {"-ZZ", "-o", "nettimeout=1", "refresh"}),
                               "the TLS handshake is not answered (-o nettimeout=SECONDS waits "
                               "longer)");
}

TEST_F(Tls, handshake_can_be_interrupted)
{
    peer.say_nothing();
    Child child(command({"-x", "-H", peer.uri("ldaps"), "-o", "nettimeout=none", "-o",
                         "tls_reqcert=never", "refresh"}),
                isolated());
    while (peer.connections() == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    child.signal(SIGINT);
    const Finished finished = child.wait();
    EXPECT_EQ(finished.status, 128 + SIGINT);
    EXPECT_EQ(finished.err,
              "greirige: interrupted: the server may still do what it was asked to\n");
}

TEST_F(Tls, answer_that_stops_in_the_middle_is_given_up)
{
    const Certificate certificate = make_certificate(directory.path());
    TcpPeer halting;
    halting.use_tls(certificate);
    halting.answer_raw(LDAPX_REFRESH_SERVER_REQUEST, bytes("30 20 02 01"));
    const Finished finished = greirige({"-x", "-H", halting.uri("ldaps"), "-o", "timeout=2", "-o",
                                        "tls_cacert=" + certificate.certificate_file, "refresh"});
    EXPECT_EQ(finished.err, "greirige: cannot start a refresh on " + halting.uri("ldaps") +
                                ": Timed out (-5): no answer within 2 seconds (-o timeout=SECONDS "
                                "waits longer)\n");
    EXPECT_EQ(finished.status, 1);
}

} // namespace
