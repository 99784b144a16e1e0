// Events when a step of a call fails: the code, how often it is stored in the session, and the
// release of exactly what exists, in its order.

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/berfail.h"
#include "support/event_session.h"
#include "support/response.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

constexpr int marker = 0x33; // a session code that no operation stores

class RegistrationFaults : public testing::Test {
public:
    RegistrationFaults()
    {
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
    }
    int monitor()
    {
        return ldap_monitor_events(peer.ld(), 3, events, &id);
    }
    int monitor_filtered()
    {
        return ldap_monitor_events_filtered(peer.ld(), 3, filtered, &id);
    }

    Peer peer;
    int id = -4711;
    char filter[4] = "f=x";
    EVT_EventSpecifier events[3] = {{1, 1}, {2, 2}, {3, 3}};
    EVT_FilteredEventSpecifier filtered[3] = {{1, 1, filter}, {2, 2, filter}, {3, 3, filter}};
};

using ResponseFaults = testing::Test;

class MessageFaults : public testing::Test {
protected:
    EventSession session;
};

Names steps(const Calls &calls)
{
    Names made = calls.made();
    std::erase_if(made, [](const std::string &name) {
        return name == "ber_free" || name == "ber_bvfree" || name == "ldap_memfree";
    });
    return made;
}

} // namespace

// ---- Registration ----------------------------------------------------------------------------

TEST_F(RegistrationFaults, encodes_in_four_steps_and_stores_its_result_once)
{
    {
        Calls calls;
        EXPECT_EQ(monitor(), LDAP_SUCCESS);
        EXPECT_EQ(steps(calls),
                  (Names{"ber_alloc", "ber_printf {i", "ber_printf [", "ber_printf {ie}",
                         "ber_printf {ie}", "ber_printf {ie}", "ber_printf ]}", "ber_flatten",
                         "ldap_extended_operation", "ldap_set_option"}));
        EXPECT_EQ(calls.released(), (Names{"ber_bvfree(requestbv)", "ber_free(requestber)"}));
        EXPECT_EQ(calls.unreleased(), Names());
    }
    Calls calls;
    EXPECT_EQ(monitor_filtered(), LDAP_SUCCESS);
    EXPECT_EQ(steps(calls), (Names{"ber_alloc", "ber_printf {i", "ber_printf [", "ber_printf {ies}",
                                   "ber_printf {ies}", "ber_printf {ies}", "ber_printf ]}",
                                   "ber_flatten", "ldap_extended_operation", "ldap_set_option"}));
}

TEST_F(RegistrationFaults, without_an_element_returns_at_once_and_stores_nothing)
{
    for (auto call : {&RegistrationFaults::monitor, &RegistrationFaults::monitor_filtered}) {
        Calls calls;
        calls.fail("ber_alloc");
        EXPECT_EQ((this->*call)(), LDAPX_NO_MEMORY);
        EXPECT_EQ(calls.made(), Names{"ber_alloc"});
    }
    EXPECT_EQ(peer.session_code(), marker);
    EXPECT_EQ(id, -4711);
    EXPECT_TRUE(peer.quiet());
}

TEST_F(RegistrationFaults, stops_at_the_first_element_that_cannot_be_encoded)
{
    for (auto call : {&RegistrationFaults::monitor, &RegistrationFaults::monitor_filtered})
        for (int nth = 1; nth <= 6; ++nth) {
            ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
            Calls calls;
            calls.fail("ber_printf", nth);
            EXPECT_EQ((this->*call)(), LDAPX_ENCODING_ERROR);
            EXPECT_EQ(calls.count("ber_printf"), nth);
            EXPECT_EQ(calls.count("ber_flatten"), 0);
            EXPECT_EQ(calls.count("ldap_set_option"), 1);
            EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
            EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
        }
    EXPECT_EQ(id, -4711);
    EXPECT_TRUE(peer.quiet());
}

TEST_F(RegistrationFaults, that_cannot_be_flattened_is_not_sent)
{
    for (auto call : {&RegistrationFaults::monitor, &RegistrationFaults::monitor_filtered}) {
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
        Calls calls;
        calls.fail("ber_flatten");
        EXPECT_EQ((this->*call)(), LDAPX_NO_MEMORY);
        EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
        EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    }
    EXPECT_EQ(id, -4711);
    EXPECT_TRUE(peer.quiet());
}

TEST_F(RegistrationFaults, that_cannot_be_sent_returns_and_stores_the_code)
{
    for (auto call : {&RegistrationFaults::monitor, &RegistrationFaults::monitor_filtered}) {
        Calls calls;
        calls.fail("ldap_extended_operation", 1, LDAP_TIMEOUT);
        EXPECT_EQ((this->*call)(), LDAP_TIMEOUT);
        EXPECT_EQ(calls.released(), (Names{"ber_bvfree(requestbv)", "ber_free(requestber)"}));
        EXPECT_EQ(peer.session_code(), LDAP_TIMEOUT);
    }
    EXPECT_EQ(id, -4711);
}

// ---- The closing response --------------------------------------------------------------------

namespace {

struct Closing {
    int code = -99;
    int result = -99;
    char *message = nullptr;
    int count = -99;
    EVT_EventSpecifier *events = nullptr;

    Closing() = default;
    Closing(const Closing &) = delete;
    Closing &operator=(const Closing &) = delete;
    ~Closing()
    {
        ldap_memfree(message);
        ldapx_memfree(events);
    }
    void parse(const Collected &response)
    {
        const StatedLeak name_of_the_response;
        code = ldap_parse_monitor_events_response(response.ld(), response.message(), &result,
                                                  &message, &count, &events, 0);
        EXPECT_EQ(response.session_code(), code);
    }
};

const Response rejection{.code = LDAP_UNWILLING_TO_PERFORM,
                         .name = LDAPX_MONITOR_EVENTS_RESPONSE,
                         .value = sequence(integer(1), set(sequence(integer(1), enumerated(2)))),
                         .diagnostic = "one is unknown"};

} // namespace

TEST_F(ResponseFaults, reads_the_result_first_and_keeps_the_message_meanwhile)
{
    const Collected response(rejection);
    Closing closing;
    Calls calls;
    closing.parse(response);
    EXPECT_EQ(closing.code, LDAP_SUCCESS);
    EXPECT_EQ(closing.count, 1);
    EXPECT_EQ(steps(calls),
              (Names{"ldap_parse_result", "ldap_parse_extended_result", "ldap_set_option"}));
    EXPECT_EQ(calls.released(), Names{"ber_bvfree(returnedbv)"});
    // The name is lost; the others belong to the caller now.
    EXPECT_EQ(calls.unreleased(), (Names{"errorMessage", "returnedOID", "malloc"}));
}

TEST_F(ResponseFaults, without_a_result_is_read_no_further)
{
    const Collected response(rejection);
    Closing closing;
    Calls calls;
    calls.fail("ldap_parse_result", 1, LDAP_DECODING_ERROR);
    closing.parse(response);
    EXPECT_EQ(closing.code, LDAP_DECODING_ERROR);
    EXPECT_EQ(closing.count, 0);
    EXPECT_EQ(closing.events, nullptr);
    EXPECT_EQ(steps(calls), (Names{"ldap_parse_result", "ldap_set_option"}));
    EXPECT_EQ(calls.released(), Names());
}

TEST_F(ResponseFaults, without_a_name_and_value_is_read_no_further)
{
    const Collected response(rejection);
    Closing closing;
    Calls calls;
    calls.fail("ldap_parse_extended_result", 1, LDAP_NO_MEMORY);
    closing.parse(response);
    EXPECT_EQ(closing.code, LDAP_NO_MEMORY);
    EXPECT_EQ(closing.result, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_STREQ(closing.message, "one is unknown");
    EXPECT_EQ(closing.count, 0);
    EXPECT_EQ(closing.events, nullptr);
    EXPECT_EQ(calls.count("ldap_set_option"), 1);
    EXPECT_EQ(calls.released(), Names());
}

TEST_F(ResponseFaults, without_memory_for_the_list_has_none)
{
    const Collected response(rejection);
    Closing closing;
    Calls calls;
    calls.fail("malloc");
    closing.parse(response);
    EXPECT_EQ(closing.code, LDAPX_NO_MEMORY);
    EXPECT_EQ(closing.count, 0);
    EXPECT_EQ(closing.events, nullptr);
    EXPECT_EQ(calls.released(), Names{"ber_bvfree(returnedbv)"});
}

// ---- Messages and decoders -------------------------------------------------------------------

TEST_F(MessageFaults, are_taken_apart_by_the_ldap_library_and_decoded_without_it)
{
    const EventKind &kind = event_kind(EVT_TAG_SEARCH);
    const Message message =
        session.message(notification(1, 2, kind.tag, full_event(kind).bytes, trailer_bytes()));
    int type = 0, result = 0;
    void *data = nullptr, *ip = nullptr;
    {
        // Nothing is copied into an element to be read from there, and the result is stored once.
        Calls calls;
        EXPECT_EQ(
            ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, &ip),
            LDAP_SUCCESS);
        EXPECT_EQ(steps(calls), (Names{"ldap_parse_intermediate", "ldap_set_option"}));
        EXPECT_EQ(calls.released(), (Names{"ber_bvfree(returnedbv)", "ldap_memfree(returnedOID)"}));
    }
    const EventRecord record(data), address(ip);
}

TEST_F(MessageFaults, that_the_ldap_library_refuses_give_its_code)
{
    const Message message = session.message(notification(1, 2, EVT_TAG_SKULK, "", trailer_bytes()));
    int type = 0, result = 0;
    void *data = &type, *ip = &type;
    Calls calls;
    calls.fail("ldap_parse_intermediate", 1, LDAP_LOCAL_ERROR);
    EXPECT_EQ(ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, &ip),
              LDAP_LOCAL_ERROR);
    EXPECT_EQ(session.peer.session_code(), LDAP_LOCAL_ERROR);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(ip, &type);
    EXPECT_EQ(calls.released(), Names());
}

TEST_F(MessageFaults, store_their_result_once_whatever_it_is)
{
    const std::string trailer = trailer_bytes();
    const std::string values[] = {
        notification(1, 2, EVT_TAG_SKULK, "", trailer),
        notification(1, 2, 0x6a, "", trailer),
        notification(1, 2, EVT_TAG_UNKNOWN_OP, concat(integer(1), octets("x")), trailer),
        notification(1, 2, EVT_TAG_UNKNOWN_OP, concat(integer(1), octets("x")), integer(1)),
        notification(1, 2, EVT_TAG_UNKNOWN_OP, octets("12345")),
        notification(1, 2, EVT_TAG_NET_ADDRESS, concat(integer(1), octets("x")), trailer),
        "no event",
        "",
    };
    for (const std::string &value : values)
        for (const char *name : {LDAPX_EVENT_NOTIFICATION, "1.2.3"}) {
            const Message message = session.message(value, name);
            int type = 0, result = 0;
            void *data = nullptr, *ip = nullptr;
            {
                Calls calls;
                const int code = ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result,
                                                        &data, 0, &ip);
                EXPECT_EQ(calls.count("ldap_set_option"), 1);
                EXPECT_EQ(session.peer.session_code(), code);
                EXPECT_EQ(calls.released().back(), "ldap_memfree(returnedOID)");
            }
            const EventRecord record(data), address(ip);
        }
    int number = 0;
    Calls calls;
    EXPECT_EQ(ldap_parse_ds_event(session.ld(), nullptr, nullptr, &number, nullptr, 0),
              LDAPX_PARAM_ERROR);
    EXPECT_EQ(calls.made(), Names{"ldap_set_option"});
}

TEST_F(MessageFaults, reach_decoders_that_store_their_result_once_too)
{
    for (const EventKind &kind : event_kinds())
        for (const std::string &fields :
             {full_event(kind).bytes + trailer_bytes(), full_event(kind).bytes + integer(1)}) {
            const Element ber = element_of(fields);
            void *data = nullptr, *ip = nullptr;
            {
                const StatedLeak list_that_breaks_off;
                Calls calls;
                kind.decoder(session.ld(), ber.get(), &data, &ip);
                EXPECT_EQ(calls.count("ldap_set_option"), 1) << kind.name;
            }
            const EventRecord record(data), address(ip);
        }

    // The readers have no session; the trailer's stores its result only where there is one.
    const Element ber = element_of(octets("x") + trailer_bytes() + octets("y"));
    char *string = nullptr;
    void *ip = nullptr;
    {
        Calls calls;
        EXPECT_EQ(ber_get_IP(session.ld(), ber.get(), &ip), session.peer.session_code());
        EXPECT_EQ(parseLDAPString(ber.get(), &string, 0), LDAP_SUCCESS);
        EXPECT_EQ(calls.count("ldap_set_option"), 0);
        EXPECT_EQ(ber_get_IP(session.ld(), ber.get(), &ip), LDAP_SUCCESS);
        EXPECT_EQ(calls.count("ldap_set_option"), 1);
    }
    ldapx_memfree(string);
    const EventRecord address(ip);
}
