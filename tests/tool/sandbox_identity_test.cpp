// Who the client is, through the library's functions and ldap-utils.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/ber.h"

#include <gtest/gtest.h>

#include <string>

using namespace sandbox_test;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

std::string identity(const Session &session)
{
    char *dn = nullptr;
    const int code = ldap_get_bind_dn(session.get(), &dn);
    const std::string text = code == LDAP_SUCCESS ? dn : "code " + std::to_string(code);
    ldapx_memfree(dn);
    return text;
}

TEST(BindIdentity, IsTheNameThatTheClientHasBoundWith)
{
    EXPECT_EQ(identity(sandbox().admin()), admin_dn);
    EXPECT_EQ(identity(sandbox().as(sandbox().somebody())), sandbox().somebody());
}

TEST(BindIdentity, IsEmptyForAnAnonymousClient)
{
    EXPECT_EQ(identity(sandbox().anonymous()), "");
    RawClient client(sandbox().port()); // that has never bound
    client.send(extended(1, LDAPX_GET_BIND_DN_REQUEST, ""));
    EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << "a value, though an empty one";
}

TEST(BindIdentity, ChangesWithEveryBind)
{
    const Session session = sandbox().admin();
    std::string password = "password";
    berval credentials{password.size(), password.data()};
    ASSERT_EQ(ldap_sasl_bind_s(session.get(), sandbox().somebody().c_str(), LDAP_SASL_SIMPLE,
                               &credentials, nullptr, nullptr, nullptr),
              LDAP_SUCCESS);
    EXPECT_EQ(identity(session), sandbox().somebody());
    password = "wrong";
    credentials = {password.size(), password.data()};
    EXPECT_EQ(ldap_sasl_bind_s(session.get(), sandbox().somebody().c_str(), LDAP_SASL_SIMPLE,
                               &credentials, nullptr, nullptr, nullptr),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(identity(session), "") << "a failed bind leaves nobody";
}

TEST(BindIdentity, OfASaslBindIsTheEntryThatSlapdMapsItTo)
{
    const std::string dn = sandbox().somebody();
    const std::string user = dn.substr(4, dn.find(',') - 4);
    for (const char *mechanism : {"DIGEST-MD5", "SCRAM-SHA-256"}) {
        const support::Finished finished =
            support::run({TOOL_PROGRAM, "-Q", "-H", sandbox().url(), "-Y", mechanism, "-U", user,
                          "-w", "password", "whoami"});
        EXPECT_EQ(finished.out, dn + "\n") << mechanism << ": " << finished.err;
    }
}

} // namespace
