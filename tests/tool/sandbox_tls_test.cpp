// TLS between clients and the sandbox: StartTLS and ldaps.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/certificate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace sandbox_test;
using namespace support;

namespace {

constexpr char start_tls_name[] = "1.3.6.1.4.1.1466.20037";

struct Secure {
    TemporaryDirectory directory;
    Certificate files = make_certificate(directory.path());
    Sandbox sandbox{{"--entries", "200", "--tls-cert", files.certificate_file, "--tls-key",
                     files.key_file, "--ldaps-port", "0"}};
    std::string ldaps_url = sandbox.process().read_line().substr(13);

    // One of OpenLDAP's clients that trusts this certificate only.
    Finished client(const std::string &program, std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"/usr/bin/" + program, "-x"});
        return run(arguments, {.environment = {{"LDAPTLS_CACERT", files.certificate_file},
                                               {"LDAPTLS_REQCERT", "demand"}}});
    }
};

Secure &secure()
{
    static Secure one;
    return one;
}

std::string start_tls(int id)
{
    return sequence(integer(id), element(0x77, octets(start_tls_name, 0x80)));
}

TEST(Tls, StartTlsProtectsTheSessionAndChangesNothingElse)
{
    const std::string url = secure().sandbox.url();
    const std::vector<std::string> search = {"-LLL", "-H", url, "-b", base};
    std::vector<std::string> protected_search = search;
    protected_search.insert(protected_search.begin(), "-ZZ");
    const Finished clear = secure().client("ldapsearch", search);
    const Finished over_tls = secure().client("ldapsearch", protected_search);
    EXPECT_EQ(over_tls.status, 0) << over_tls.err;
    EXPECT_GT(clear.out.size(), 50000U);
    EXPECT_EQ(over_tls.out, clear.out);

    const Finished who =
        secure().client("ldapwhoami", {"-ZZ", "-H", url, "-D", "cn=admin," + base, "-w", "secret"});
    EXPECT_EQ(who.out, "dn:cn=admin," + base + "\n") << who.err;
}

TEST(Tls, LdapsIsTlsFromTheFirstByte)
{
    ASSERT_EQ(secure().ldaps_url.rfind("ldaps://127.0.0.1:", 0), 0U) << secure().ldaps_url;
    const Finished found = secure().client(
        "ldapsearch", {"-LLL", "-H", secure().ldaps_url, "-b", base, "(ou=people)", "1.1"});
    EXPECT_EQ(found.out, "dn: ou=people," + base + "\n\n") << found.err;
}

TEST(Tls, OperationsOfOursWorkOverIt)
{
    const Finished done =
        secure().client("ldapexop", {"-ZZ", "-H", secure().sandbox.url(),
                                     LDAPX_PARTITION_ENTRY_COUNT_REQUEST ":\x04\x11" + base});
    EXPECT_EQ(done.status, 0) << done.err;
}

TEST(Tls, ALargeAnswerComesWhole)
{
    const std::string &dn = people;
    const std::string value(2000000, 'x');
    const TemporaryDirectory directory;
    const Finished changed =
        run({"/usr/bin/ldapmodify", "-x", "-ZZ", "-H", secure().sandbox.url(), "-D",
             "cn=admin," + base, "-w", "secret"},
            {.stdin_text = "dn: " + dn +
                           "\nchangetype: modify\nreplace: description\n"
                           "description: " +
                           value + "\n",
             .environment = {{"LDAPTLS_CACERT", secure().files.certificate_file}}});
    ASSERT_EQ(changed.status, 0) << changed.err;
    const Finished found =
        secure().client("ldapsearch", {"-LLL", "-o", "ldif-wrap=no", "-ZZ", "-H",
                                       secure().sandbox.url(), "-b", dn, "-s", "base"});
    EXPECT_NE(found.out.find("description: " + value + "\n"), std::string::npos);
}

TEST(Tls, AClientThatDoesNotTrustTheCertificateEndsAlone)
{
    const Finished refused =
        run({"/usr/bin/ldapwhoami", "-x", "-ZZ", "-H", secure().sandbox.url()},
            {.environment = {{"LDAPTLS_CACERT", "/dev/null"}, {"LDAPTLS_REQCERT", "demand"}}});
    EXPECT_NE(refused.status, 0);
    EXPECT_EQ(secure().client("ldapwhoami", {"-ZZ", "-H", secure().sandbox.url()}).status, 0);
}

TEST(Tls, StartTlsIsListedWhereItIsOffered)
{
    const Finished listed = secure().client(
        "ldapsearch", {"-LLL", "-H", secure().sandbox.url(), "-s", "base", "-b", "", "+"});
    EXPECT_NE(listed.out.find(start_tls_name), std::string::npos);

    Sandbox plain({"--entries", "100"});
    const Finished unlisted = plain.client("ldapsearch", {"-LLL", "-s", "base", "-b", "", "+"});
    EXPECT_EQ(unlisted.out.find(start_tls_name), std::string::npos);
    RawClient client(plain.port());
    client.send(start_tls(1));
    EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR);
}

TEST(Tls, StartTlsWaitsForNothingOutstanding)
{
    RawClient client(secure().sandbox.port());
    client.send(whole_search(1, base) + start_tls(2));
    for (std::string message; !(message = client.receive()).empty();)
        if (message_id(message) == 2) {
            EXPECT_EQ(result_code(message), LDAP_OPERATIONS_ERROR);
            return;
        }
    FAIL() << "no answer";
}

TEST(Tls, WhatComesInClearBehindStartTlsIsNeverDone)
{
    RawClient client(secure().sandbox.port());
    client.send(start_tls(1) + simple_bind(2, "cn=admin," + base, "secret"));
    for (std::string message; !(message = client.receive()).empty();)
        EXPECT_NE(message_id(message), 2);
    EXPECT_TRUE(client.is_closed());
}

TEST(Tls, AHandshakeThatIsNoneEndsTheConnection)
{
    RawClient client(secure().sandbox.port());
    client.send(start_tls(1));
    EXPECT_EQ(result_code(client.receive()), LDAP_SUCCESS);
    client.send(std::string(200, 'x'));
    EXPECT_TRUE(client.is_closed());
    EXPECT_EQ(secure().client("ldapwhoami", {"-ZZ", "-H", secure().sandbox.url()}).status, 0);
}

TEST(Tls, CertificatesThatCannotServeAreSaid)
{
    const TemporaryDirectory directory;
    const Certificate one = make_certificate(directory.path(), {.name = "one"});
    const Certificate other = make_certificate(directory.path(), {.name = "other"});
    const auto start = [](const std::string &certificate, const std::string &key) {
        return run({SANDBOX_PROGRAM, "--port", "0", "--tls-cert", certificate, "--tls-key", key});
    };
    Finished refused = start(directory.path() + "/nowhere", one.key_file);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("no certificate can be read from " + directory.path() + "/nowhere"),
              std::string::npos)
        << refused.err;
    refused = start(one.certificate_file, other.key_file);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("no key of " + one.certificate_file), std::string::npos)
        << refused.err;
    refused = run({SANDBOX_PROGRAM, "--port", "0", "--tls-cert", one.certificate_file});
    EXPECT_EQ(refused.status, 2);
    refused = run({SANDBOX_PROGRAM, "--port", "0", "--ldaps-port", "0"});
    EXPECT_EQ(refused.status, 2);
}

} // namespace
