// The four encoders of bulk updates: their bytes, beside those that the LDAP library itself sends
// for the same call, and what they do to the caller's element.

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/peer.h"
#include "support/updates.h"

using namespace support;

namespace {

// The encoders only look whether they were given a session.
LDAP *session()
{
    static Peer peer;
    return peer.ld();
}

std::string flattened(BerElement *ber)
{
    berval *value = nullptr;
    EXPECT_EQ(ber_flatten(ber, &value), 0);
    std::string content(value->bv_val, value->bv_len);
    ber_bvfree(value);
    ber_free(ber, 1);
    return content;
}

// What an encoder writes; DER gives the form in which the LDAP library sends its own requests.
template <class Encode>
std::string encoded(Encode encode, int options = 0)
{
    BerElement *ber = ber_alloc_t(options);
    EXPECT_EQ(encode(ber), 0);
    return flattened(ber);
}

// A request of the LDAP library as an element of a batch.
template <class Send>
std::string sent_by_libldap(Send send)
{
    Peer peer;
    int id = 0;
    EXPECT_EQ(send(peer.ld(), &id), LDAP_SUCCESS);
    const Request request = peer.take_request();
    return sequence(element(request.operation, request.body),
                    request.controls ? element(0xa0, *request.controls) : std::string());
}

const std::vector<Change> person = {
    {"objectClass", {"top", "person", "inetOrgPerson"}},
    {"cn", {"Ann"}},
    {"sn", {std::string("zero \0 byte", 11)}, LDAP_MOD_ADD | LDAP_MOD_BVALUES},
    {"description", {std::string(300, 'd'), ""}},
    {"jpegPhoto", {std::string(70000, '\xff')}, LDAP_MOD_BVALUES},
    {"seeAlso", {}},
};

const std::vector<Change> changes_of_all_kinds = {
    {"cn", {"Ann", "Anna"}, LDAP_MOD_ADD},
    {"sn", {}, LDAP_MOD_DELETE},
    {"sn", {std::string("\0", 1)}, LDAP_MOD_REPLACE | LDAP_MOD_BVALUES},
    {"counter", {"1"}, LDAP_MOD_INCREMENT},
    {"mail", {"a@x"}, LDAP_MOD_DELETE | LDAP_MOD_BVALUES},
};

const std::vector<Control> all_controls = {
    {"1.2.840.113556.1.4.805"},
    {"1.3.6.1.1.12", "value", 1},
    {"1.3.6.1.1.13.1", std::string("\x30\x00", 2)},
    {"1.2.3", "", 1},
};

} // namespace

// ---- The same as the LDAP library sends

TEST(LburpAddElement, is_what_ldap_add_ext_sends)
{
    Changes attributes(person);
    for (const ControlList &list : {ControlList(), ControlList(all_controls)}) {
        Controls controls(list);
        const std::string ours = encoded(
            [&](BerElement *ber) {
                return LBURPEncodeAdd(session(), "cn=Ann,o=x", attributes.get(), controls.get(),
                                      ber);
            },
            LBER_USE_DER);
        EXPECT_EQ(ours, sent_by_libldap([&](LDAP *ld, int *id) {
                      return ldap_add_ext(ld, "cn=Ann,o=x", attributes.get(), controls.get(),
                                          nullptr, id);
                  }));
        EXPECT_EQ(ours, Batch{0}.add("cn=Ann,o=x", person, list));
    }
}

TEST(LburpModifyElement, is_what_ldap_modify_ext_sends)
{
    Changes changes(changes_of_all_kinds);
    for (const ControlList &list : {ControlList(), ControlList(all_controls)}) {
        Controls controls(list);
        const std::string ours = encoded(
            [&](BerElement *ber) {
                return LBURPEncodeMod(session(), "cn=Ann,o=x", changes.get(), controls.get(), ber);
            },
            LBER_USE_DER);
        EXPECT_EQ(ours, sent_by_libldap([&](LDAP *ld, int *id) {
                      return ldap_modify_ext(ld, "cn=Ann,o=x", changes.get(), controls.get(),
                                             nullptr, id);
                  }));
        EXPECT_EQ(ours, Batch{0}.modify("cn=Ann,o=x", changes_of_all_kinds, list));
    }
}

TEST(LburpDeleteElement, is_what_ldap_delete_ext_sends)
{
    for (const ControlList &list : {ControlList(), ControlList(all_controls)}) {
        Controls controls(list);
        const std::string ours = encoded(
            [&](BerElement *ber) {
                return LBURPEncodeDelete(session(), "cn=Ann,o=x", controls.get(), ber);
            },
            LBER_USE_DER);
        EXPECT_EQ(ours, sent_by_libldap([&](LDAP *ld, int *id) {
                      return ldap_delete_ext(ld, "cn=Ann,o=x", controls.get(), nullptr, id);
                  }));
        EXPECT_EQ(ours, Batch{0}.remove("cn=Ann,o=x", list));
    }
}

TEST(LburpRenameElement, without_a_new_superior_is_what_ldap_rename_sends)
{
    Controls controls(all_controls);
    for (const int delete_old : {0, 1}) {
        const std::string ours = encoded(
            [&](BerElement *ber) {
                return LBURPEncodeModRDN(session(), "cn=Ann,o=x", "cn=Anna", nullptr, delete_old,
                                         controls.get(), ber);
            },
            LBER_USE_DER);
        EXPECT_EQ(ours, sent_by_libldap([&](LDAP *ld, int *id) {
                      return ldap_rename(ld, "cn=Ann,o=x", "cn=Anna", nullptr, delete_old,
                                         controls.get(), nullptr, id);
                  }));
    }
}

TEST(LburpRenameElement, has_a_new_superior_without_the_tag_that_ldap_rename_gives_it)
{
    const auto ours = encoded(
        [&](BerElement *ber) {
            return LBURPEncodeModRDN(session(), "cn=Ann", "cn=Anna", "o=y", 1, nullptr, ber);
        },
        LBER_USE_DER);
    const auto theirs = sent_by_libldap([&](LDAP *ld, int *id) {
        return ldap_rename(ld, "cn=Ann", "cn=Anna", "o=y", 1, nullptr, nullptr, id);
    });
    const std::string request = concat(octets("cn=Ann"), octets("cn=Anna"), boolean(true));
    EXPECT_EQ(ours, sequence(element(0x6c, request + octets("o=y"))));
    EXPECT_EQ(theirs, sequence(element(0x6c, request + octets("o=y", 0x80))));
}

// ---- The bytes in the form that a batch has

TEST(LburpAddElement, keeps_four_length_bytes_for_every_constructed_element)
{
    Changes attributes{{"cn", {"a"}}};
    EXPECT_EQ(encoded([&](BerElement *ber) {
                  return LBURPEncodeAdd(session(), "cn=a", attributes.get(), nullptr, ber);
              }),
              bytes("30 84 00 00 00 25"
                    "   68 84 00 00 00 1f"
                    "      04 04 63 6e 3d 61"
                    "      30 84 00 00 00 13"
                    "         30 84 00 00 00 0d"
                    "            04 02 63 6e"
                    "            31 84 00 00 00 03  04 01 61"));
}

TEST(LburpAddElement, looks_at_no_bit_of_mod_op_but_the_one_of_the_values)
{
    const std::string expected = Batch().add("cn=a", {{"sn", {"v"}}});
    for (const int op : {0, 1, 2, 3, 0x7f, 0x7fffff7f, 0x80, 0x82, 0xff, -1, -129}) {
        Changes attributes{{"sn", {"v"}, op}};
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeAdd(session(), "cn=a", attributes.get(), nullptr, ber);
                  }),
                  expected)
            << op;
    }
}

TEST(LburpAddElement, without_attributes_or_values_has_empty_lists)
{
    for (const std::vector<Change> &list :
         {std::vector<Change>{}, std::vector<Change>{{"sn"}, {"cn", {}, LDAP_MOD_BVALUES}}}) {
        Changes attributes(list);
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeAdd(session(), "", attributes.get(), nullptr, ber);
                  }),
                  Batch().add("", list));
    }
}

TEST(LburpAddElement, takes_an_attribute_whose_value_array_is_null_as_one_without_values)
{
    for (const int op : {LDAP_MOD_ADD, LDAP_MOD_ADD | LDAP_MOD_BVALUES}) {
        char type[] = "sn";
        LDAPMod mod{};
        mod.mod_op = op;
        mod.mod_type = type;
        LDAPMod *mods[] = {&mod, nullptr};
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeAdd(session(), "cn=a", mods, nullptr, ber);
                  }),
                  Batch().add("cn=a", {{"sn"}}));
    }
}

TEST(LburpModifyElement, sends_mod_op_less_the_bit_of_the_values)
{
    struct Row {
        int op;
        int sent;
    };
    for (const Row row : {Row{2, 2}, Row{0x82, 2}, Row{0, 0}, Row{0x81, 1}, Row{99, 99},
                          Row{0x1080, 0x1000}, Row{-1, -129}}) {
        Changes changes{{"sn", {"v"}, row.op}};
        const std::string change =
            element(0x30,
                    concat(enumerated(row.sent),
                           element(0x30, concat(octets("sn"), element(0x31, octets("v"), 4)), 4)),
                    4);
        EXPECT_EQ(
            encoded([&](BerElement *ber) {
                return LBURPEncodeMod(session(), "cn=a", changes.get(), nullptr, ber);
            }),
            element(0x30, element(0x66, concat(octets("cn=a"), element(0x30, change, 4)), 4), 4))
            << row.op;
    }
}

TEST(LburpDeleteElement, holds_the_dn_in_a_primitive_request)
{
    EXPECT_EQ(encoded([&](BerElement *ber) {
                  return LBURPEncodeDelete(session(), "cn=a", nullptr, ber);
              }),
              bytes("30 84 00 00 00 06  4a 04 63 6e 3d 61"));
}

TEST(LburpRenameElement, carries_its_own_superior_and_flag)
{
    for (const int delete_old : {0, 1, -1, 256})
        for (const auto &superior :
             {std::optional<std::string>(), std::optional<std::string>("o=y"),
              std::optional<std::string>("")})
            EXPECT_EQ(encoded([&](BerElement *ber) {
                          return LBURPEncodeModRDN(session(), "cn=a", "cn=b",
                                                   superior ? superior->c_str() : nullptr,
                                                   delete_old, nullptr, ber);
                      }),
                      Batch().rename("cn=a", "cn=b", delete_old != 0, superior));
}

TEST(LburpControls, are_the_same_bytes_behind_every_operation)
{
    Changes changes(changes_of_all_kinds);
    const Batch wire;
    for (const std::vector<Control> &list :
         {std::vector<Control>{}, std::vector<Control>{{"1.2.3"}}, all_controls,
          std::vector<Control>{{"1.2.3", std::nullopt, -1}}}) {
        Controls controls(list);
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeAdd(session(), "cn=a", changes.get(), controls.get(), ber);
                  }),
                  wire.add("cn=a", changes.list(), list));
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeMod(session(), "cn=a", changes.get(), controls.get(), ber);
                  }),
                  wire.modify("cn=a", changes.list(), list));
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeDelete(session(), "cn=a", controls.get(), ber);
                  }),
                  wire.remove("cn=a", list));
        EXPECT_EQ(encoded([&](BerElement *ber) {
                      return LBURPEncodeModRDN(session(), "cn=a", "cn=b", "o=y", 1, controls.get(),
                                               ber);
                  }),
                  wire.rename("cn=a", "cn=b", true, "o=y", list));
    }
}

TEST(LburpControls, say_nothing_of_a_criticality_or_a_value_that_is_not_there)
{
    Controls controls(std::vector<Control>{{"1.2.3"}});
    EXPECT_EQ(encoded([&](BerElement *ber) {
                  return LBURPEncodeDelete(session(), "cn=a", controls.get(), ber);
              }),
              bytes("30 84 00 00 00 19"
                    "   4a 04 63 6e 3d 61"
                    "   a0 84 00 00 00 0d"
                    "      30 84 00 00 00 07  04 05 31 2e 32 2e 33"));
}

TEST(LburpEncoders, append_to_what_the_element_holds)
{
    Changes changes{{"sn", {"v"}}};
    const Batch wire;
    EXPECT_EQ(encoded([&](BerElement *ber) {
                  EXPECT_NE(ber_printf(ber, "{i", 9), -1);
                  EXPECT_EQ(LBURPEncodeDelete(session(), "cn=a", nullptr, ber), 0);
                  EXPECT_EQ(LBURPEncodeAdd(session(), "cn=a", changes.get(), nullptr, ber), 0);
                  return ber_printf(ber, "}") == -1 ? 1 : 0;
              }),
              wire.request(9, wire.remove("cn=a") + wire.add("cn=a", changes.list())));
}

TEST(LburpEncoders, never_store_the_session_s_result_code)
{
    Peer peer;
    const int marker = 0x33;
    ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
    Changes changes{{"sn", {"v"}}};
    encoded([&](BerElement *ber) {
        return LBURPEncodeAdd(peer.ld(), "cn=a", changes.get(), nullptr, ber) |
               LBURPEncodeMod(peer.ld(), "cn=a", changes.get(), nullptr, ber) |
               LBURPEncodeDelete(peer.ld(), "cn=a", nullptr, ber) |
               LBURPEncodeModRDN(peer.ld(), "cn=a", "cn=b", nullptr, 0, nullptr, ber);
    });
    EXPECT_EQ(peer.session_code(), marker);
}

// ---- The checks, uneven as they are

TEST(LburpEncoders, of_modify_and_rename_need_no_session)
{
    Changes changes{{"sn", {"v"}}};
    EXPECT_EQ(encoded([&](BerElement *ber) {
                  return LBURPEncodeMod(nullptr, "cn=a", changes.get(), nullptr, ber);
              }),
              Batch().modify("cn=a", changes.list()));
    EXPECT_EQ(encoded([&](BerElement *ber) {
                  return LBURPEncodeModRDN(nullptr, "cn=a", "cn=b", nullptr, 0, nullptr, ber);
              }),
              Batch().rename("cn=a", "cn=b", false, std::nullopt));
}

#if GREIRIGE_ASSERTIONS

TEST(LburpAssertionsDeathTest, of_the_add_encoder_are_the_session_and_then_the_dn)
{
    Changes attributes{{"sn", {"v"}}};
    BerElement *ber = ber_alloc_t(0);
    EXPECT_DEATH(LBURPEncodeAdd(nullptr, nullptr, attributes.get(), nullptr, ber),
                 R"(LBURPEncodeAdd.*Assertion `ld != \(\(void \*\)0\)' failed)");
    EXPECT_DEATH(LBURPEncodeAdd(session(), nullptr, attributes.get(), nullptr, ber),
                 R"(LBURPEncodeAdd.*Assertion `dn != \(\(void \*\)0\)' failed)");
    ber_free(ber, 1);
}

TEST(LburpAssertionsDeathTest, of_the_delete_encoder_are_the_element_the_session_and_the_dn)
{
    BerElement *ber = ber_alloc_t(0);
    EXPECT_DEATH(LBURPEncodeDelete(nullptr, nullptr, nullptr, nullptr),
                 R"(LBURPEncodeDelete.*Assertion `ber != \(\(void \*\)0\)' failed)");
    EXPECT_DEATH(LBURPEncodeDelete(nullptr, nullptr, nullptr, ber),
                 R"(LBURPEncodeDelete.*Assertion `ld != \(\(void \*\)0\)' failed)");
    EXPECT_DEATH(LBURPEncodeDelete(session(), nullptr, nullptr, ber),
                 R"(LBURPEncodeDelete.*Assertion `dn != \(\(void \*\)0\)' failed)");
    ber_free(ber, 1);
}

#endif
