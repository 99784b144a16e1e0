// Native names and DNS names, resolved to entries that exist.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/ber.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace sandbox_test;
using support::octets;

namespace {

const std::string umlaut = "cn=Müller \\2B Söhne. Łódź,ou=groups," + base;
const std::string clef = "cn=\xf0\x9d\x84\x9e,ou=groups," + base; // beyond 16 bits
const std::string twins = "cn=twin,ou=groups," + base;
const std::string other_twin = "ou=twin,ou=groups," + base;
const std::string below_twin = "cn=inside,ou=twin,ou=groups," + base;
const std::string pair = "cn=left+sn=right,ou=groups," + base;

Sandbox &sandbox()
{
    static Sandbox *one = [] {
        auto *made = new Sandbox({"--entries", "100"});
        const std::string role = "\nobjectClass: organizationalRole\n\n";
        const std::string entries = "dn: " + umlaut + role + "dn: " + clef + role + "dn: " + twins +
                                    role + "dn: " + other_twin +
                                    "\nobjectClass: organizationalUnit\n\ndn: " + below_twin +
                                    role + "dn: " + pair + "\nobjectClass: person\n";
        const support::Finished finished = made->client_as_admin("ldapadd", {}, entries);
        EXPECT_EQ(finished.status, 0) << finished.err;
        return made;
    }();
    return *one;
}

struct Answer {
    int code;
    std::string dn;
    bool operator==(const Answer &) const = default;
};
void PrintTo(const Answer &answer, std::ostream *out)
{
    *out << "code " << answer.code << ", \"" << answer.dn << '"';
}

Answer taken(int code, char *name)
{
    const Answer answer{code, code == LDAP_SUCCESS ? name : ""};
    ldapx_memfree(name);
    return answer;
}

Answer native(const Session &session, std::u16string name)
{
    std::vector<unsigned short> units(name.begin(), name.end());
    units.push_back(0);
    char *dn = nullptr;
    const int code = ldap_zil_to_ldap(session.get(), units.data(), &dn);
    return taken(code, dn);
}

Answer dns(const Session &session, std::string name)
{
    char *dn = nullptr;
    const int code = ldap_dns_to_x500_dn(session.get(), name.data(), &dn);
    return taken(code, dn);
}

std::string matched_dn(const Session &session)
{
    char *text = nullptr;
    ldap_get_option(session.get(), LDAP_OPT_MATCHED_DN, &text);
    const std::string matched = text != nullptr ? text : "";
    ldap_memfree(text);
    return matched;
}

Answer found(const std::string &dn)
{
    return {LDAP_SUCCESS, dn};
}

TEST(NativeNames, WithAndWithoutTypesLeadToTheEntry)
{
    const Session session = sandbox().anonymous();
    EXPECT_EQ(native(session, u"example"), found(base));
    EXPECT_EQ(native(session, u"people.example"), found(people)) << diagnostic(session);
    EXPECT_EQ(native(session, u"people.example.com"), found(people));
    EXPECT_EQ(native(session, u"Sales.PEOPLE.Example"), found("ou=sales," + people));
    EXPECT_EQ(native(session, u"OU=sales.people.dc=example.DC=com"), found("ou=sales," + people));
    EXPECT_EQ(native(session, u"server1.servers.example"), found(server1));
    EXPECT_EQ(native(session, u"CN=left+SN=right.groups.example"), found(pair));
    EXPECT_EQ(native(session, u"2\\.5\\.4\\.11.example").code, LDAP_NO_SUCH_OBJECT);
}

TEST(NativeNames, KeepEveryCharacter)
{
    const Session session = sandbox().anonymous();
    EXPECT_EQ(native(session, u"Müller + Söhne\\. Łódź.groups.example"), found(umlaut));
    EXPECT_EQ(native(session, u"MÜLLER + söhne\\. łódź.groups.example"), found(umlaut))
        << "in whatever case";
    EXPECT_EQ(native(session, u"CN=Müller \\+ Söhne\\. Łódź.groups.example"), found(umlaut));
    EXPECT_EQ(native(session, u"\U0001d11e.groups.example"), found(clef)) << "a surrogate pair";
}

TEST(NativeNames, ThatAreMissingOrMeanSeveralEntriesAreRefused)
{
    const Session session = sandbox().anonymous();
    EXPECT_EQ(native(session, u"nobody.sales.people.example").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(matched_dn(session), "ou=sales," + people);
    EXPECT_NE(diagnostic(session).find("nobody.sales.people.example"), std::string::npos);
    EXPECT_EQ(native(session, u"people").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(native(session, u"cn=people.example").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(native(session, u"o=example").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(native(session, u"nosuchtype=people.example").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(native(session, u"payroll.example").code, LDAP_NO_SUCH_OBJECT)
        << "what may not be seen is not there";

    EXPECT_EQ(native(session, u"twin.groups.example").code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(diagnostic(session),
              "\"twin.groups.example\" may mean " + other_twin + " and " + twins);
    EXPECT_EQ(native(session, u"CN=twin.groups.example"), found(twins));
    EXPECT_EQ(native(session, u"inside.twin.groups.example"), found(below_twin))
        << "only one of the two has it";
    EXPECT_EQ(native(session, u"CN=inside.twin.groups.example"), found(below_twin));
}

TEST(NativeNames, ThatAreNoNamesAreRefused)
{
    const Session session = sandbox().anonymous();
    for (const char16_t *name :
         {u"", u".", u".example", u"people..example", u"example.", u"x\\", u"=x.example",
          u"cn=.example", u"c n=x.example", u"cn=a+b.example"})
        EXPECT_EQ(native(session, name).code, LDAP_INVALID_DN_SYNTAX);
    std::u16string deep = u"example";
    for (int i = 0; i < 64; ++i)
        deep = u"x." + deep;
    EXPECT_EQ(native(session, deep).code, LDAP_UNWILLING_TO_PERFORM);
}

TEST(NativeNames, ThatAreNotUtf16AreAProtocolError)
{
    RawClient client(sandbox().port());
    int id = 1;
    const auto code = [&](const std::string &value) {
        client.send(extended(id++, LDAPX_ZIL_TO_LDAP_REQUEST, value));
        return result_code(client.receive());
    };
    const std::string example = support::bytes("0065 0078 0061 006d 0070 006c 0065");
    EXPECT_EQ(code(octets(example + support::bytes("0000"))), LDAP_SUCCESS);
    for (const char *units : {"", "00", "0065", "006500", "d834 0000", "dd1e 0000",
                              "d834 d834 0000", "d834", "0000 0065 0000", "0000 0000"})
        EXPECT_EQ(code(octets(support::bytes(units))), LDAP_PROTOCOL_ERROR) << units;
    const std::string good = octets(example + support::bytes("0000"));
    std::vector<std::string> bad = support::cuts(good);
    bad.push_back(good + '\0');
    bad.push_back(support::sequence(good));
    for (const std::string &value : bad)
        EXPECT_EQ(code(value), LDAP_PROTOCOL_ERROR) << support::hex(value);
}

TEST(DnsNames, LeadToTheEntry)
{
    const Session session = sandbox().anonymous();
    EXPECT_EQ(dns(session, "example.com"), found(base));
    EXPECT_EQ(dns(session, "people.example.com"), found(people));
    EXPECT_EQ(dns(session, "people.example.com."), found(people));
    EXPECT_EQ(dns(session, "Server2.SERVERS.example.com"), found(server2));
    EXPECT_EQ(dns(session, "sales.people.example"), found("ou=sales," + people));
}

TEST(DnsNames, ThatAreMissingAmbiguousOrNoNamesAreRefused)
{
    const Session session = sandbox().anonymous();
    EXPECT_EQ(dns(session, "nobody.people.example.com").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(matched_dn(session), people);
    EXPECT_EQ(dns(session, "people.example.org").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(dns(session, "ou=people.example.com").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(dns(session, "twin.groups.example.com").code, LDAP_UNWILLING_TO_PERFORM);
    for (const std::string &name : {std::string(), std::string("."), std::string("a..example.com"),
                                    std::string(".example.com"), std::string("example.com.."),
                                    std::string(64, 'x') + ".example.com"})
        EXPECT_EQ(dns(session, name).code, LDAP_INVALID_DN_SYNTAX) << name;
    std::string longest = "example.com";
    while (longest.size() < 254)
        longest = "label." + longest;
    EXPECT_EQ(dns(session, longest).code, LDAP_INVALID_DN_SYNTAX);

    RawClient client(sandbox().port());
    int id = 1;
    for (const std::string &value : support::cuts(octets("example.com"))) {
        client.send(extended(id++, LDAPX_DNS_TO_X500_DN_REQUEST, value));
        EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR);
    }
    client.send(extended(id, LDAPX_DNS_TO_X500_DN_REQUEST, octets(std::string("people\0", 7))));
    EXPECT_EQ(result_code(client.receive()), LDAP_INVALID_DN_SYNTAX);
}

} // namespace
