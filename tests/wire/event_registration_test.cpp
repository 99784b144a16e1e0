// Registration for events: what the two requests send, and what the closing response says.

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ldap_events.h"
#include "support/ber.h"
#include "support/peer.h"
#include "support/response.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

constexpr int untouched = -4711;

// The BER layer gives constructed elements four length bytes.
std::string specifiers(long long count, const std::string &list)
{
    return element(0x30, concat(integer(count), element(0x31, list, 4)), 4);
}

std::string specifier(int type, int status)
{
    return element(0x30, concat(integer(type), enumerated(status)), 4);
}

std::string specifier(int type, int status, const std::string &filter)
{
    return element(0x30, concat(integer(type), enumerated(status), octets(filter)), 4);
}

// A session whose result code is not what any call leaves there by chance.
class Registration : public testing::Test {
protected:
    Registration()
    {
        int code = untouched;
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &code);
    }

    Peer peer;
    int id = untouched;
};

using FilteredRegistration = Registration;

} // namespace

TEST_F(Registration, sends_the_count_and_each_specifier_in_order)
{
    EVT_EventSpecifier events[] = {{1, 0}, {300, 1}, {-5, 2}, {INT_MAX, INT_MIN}};
    EXPECT_EQ(ldap_monitor_events(peer.ld(), 4, events, &id), LDAP_SUCCESS);
    EXPECT_EQ(peer.session_code(), LDAP_SUCCESS);

    const Request request = peer.take_request();
    EXPECT_EQ(request.id, id);
    EXPECT_EQ(request.name, "2.16.840.1.424242.1.27.100.79");
    EXPECT_EQ(request.value, specifiers(4, concat(specifier(1, 0), specifier(300, 1),
                                                  specifier(-5, 2), specifier(INT_MAX, INT_MIN))));
    EXPECT_EQ(request.controls, std::nullopt);
    EXPECT_TRUE(peer.quiet());
}

TEST_F(Registration, sends_these_very_bytes_for_one_event)
{
    EVT_EventSpecifier event{7, 1};
    EXPECT_EQ(ldap_monitor_events(peer.ld(), 1, &event, &id), LDAP_SUCCESS);
    EXPECT_EQ(peer.take_request().value, bytes("30 84 00 00 00 15  02 01 01"
                                               "31 84 00 00 00 0c"
                                               "30 84 00 00 00 06  02 01 07  0a 01 01"));
}

TEST_F(FilteredRegistration, sends_the_filter_as_a_third_element)
{
    char empty[] = "", filter[] = "(cn=a*)";
    EVT_FilteredEventSpecifier events[] = {{1, 2, filter}, {3, 4, empty}};
    EXPECT_EQ(ldap_monitor_events_filtered(peer.ld(), 2, events, &id), LDAP_SUCCESS);
    EXPECT_EQ(peer.session_code(), LDAP_SUCCESS);

    const Request request = peer.take_request();
    EXPECT_EQ(request.id, id);
    EXPECT_EQ(request.name, "2.16.840.1.424242.1.27.100.84");
    EXPECT_EQ(request.value,
              specifiers(2, concat(specifier(1, 2, "(cn=a*)"), specifier(3, 4, ""))));
    EXPECT_EQ(request.controls, std::nullopt);
    EXPECT_TRUE(peer.quiet());
}

TEST_F(FilteredRegistration, hands_a_filter_of_NULL_to_the_encoder_which_stops_the_process)
{
    EVT_FilteredEventSpecifier event{1, 2, nullptr};
    EXPECT_DEATH(ldap_monitor_events_filtered(peer.ld(), 1, &event, &id), "");
}

TEST_F(Registration, of_no_events_is_refused_and_leaves_everything_as_it_was)
{
    EVT_EventSpecifier event{};
    EVT_FilteredEventSpecifier filtered{};
    EXPECT_EQ(ldap_monitor_events(peer.ld(), 0, &event, &id), LDAPX_PARAM_ERROR);
    EXPECT_EQ(ldap_monitor_events(peer.ld(), 1, nullptr, &id), LDAPX_PARAM_ERROR);
    EXPECT_EQ(ldap_monitor_events(peer.ld(), -1, nullptr, &id), LDAPX_PARAM_ERROR);
    EXPECT_EQ(ldap_monitor_events_filtered(peer.ld(), 0, &filtered, &id), LDAPX_PARAM_ERROR);
    EXPECT_EQ(ldap_monitor_events_filtered(peer.ld(), 1, nullptr, &id), LDAPX_PARAM_ERROR);
    EXPECT_EQ(id, untouched);
    EXPECT_EQ(peer.session_code(), untouched);
    EXPECT_TRUE(peer.quiet());
}

TEST_F(Registration, sends_a_negative_count_before_an_empty_list)
{
    EVT_EventSpecifier event{1, 1};
    EVT_FilteredEventSpecifier filtered{1, 1, nullptr};
    EXPECT_EQ(ldap_monitor_events(peer.ld(), -1, &event, &id), LDAP_SUCCESS);
    EXPECT_EQ(peer.take_request().value, specifiers(-1, ""));
    EXPECT_EQ(ldap_monitor_events_filtered(peer.ld(), INT_MIN, &filtered, &id), LDAP_SUCCESS);
    EXPECT_EQ(peer.take_request().value, specifiers(INT_MIN, ""));
}

TEST_F(Registration, may_name_ten_thousand_events)
{
    std::vector<EVT_EventSpecifier> events;
    std::vector<EVT_FilteredEventSpecifier> filtered;
    std::string list, filtered_list, filter = "(objectClass=*)";
    for (int i = 0; i < 10000; ++i) {
        events.push_back({i, i % 3});
        filtered.push_back({i, i % 3, filter.data()});
        list += specifier(i, i % 3);
        filtered_list += specifier(i, i % 3, filter);
    }
    peer.read_ahead();
    EXPECT_EQ(ldap_monitor_events(peer.ld(), 10000, events.data(), &id), LDAP_SUCCESS);
    EXPECT_TRUE(peer.take_request().value == specifiers(10000, list));
    EXPECT_EQ(ldap_monitor_events_filtered(peer.ld(), 10000, filtered.data(), &id), LDAP_SUCCESS);
    EXPECT_TRUE(peer.take_request().value == specifiers(10000, filtered_list));
}

TEST_F(Registration, that_cannot_be_sent_returns_the_code_of_the_ldap_library)
{
    peer.close();
    EVT_EventSpecifier event{1, 1};
    EXPECT_EQ(ldap_monitor_events(peer.ld(), 1, &event, &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(peer.session_code(), LDAP_SERVER_DOWN);
}

// ---- The closing response --------------------------------------------------------------------

namespace {

const std::string name = "2.16.840.1.424242.1.27.100.80";

struct Closing {
    int code = untouched;
    int result = untouched;
    char *message = nullptr;
    int count = untouched;
    EVT_EventSpecifier *events = nullptr;

    Closing() = default;
    Closing(const Closing &) = delete;
    Closing &operator=(const Closing &) = delete;
    ~Closing()
    {
        ldap_memfree(message);
        ldapx_memfree(events);
    }
};

// Parses a response; *badEvents and *errorMsg hold a pointer that is nobody's beforehand.
void parse(const Collected &response, Closing &closing)
{
    static char nobodys[] = "";
    closing.message = nobodys;
    closing.events = reinterpret_cast<EVT_EventSpecifier *>(nobodys);
    const StatedLeak name_of_the_response;
    closing.code =
        ldap_parse_monitor_events_response(response.ld(), response.message(), &closing.result,
                                           &closing.message, &closing.count, &closing.events, 0);
    EXPECT_EQ(response.session_code(), closing.code);
    EXPECT_NE(closing.message, nobodys);
    EXPECT_NE(static_cast<void *>(closing.events), nobodys);
}

// The value of a response and what comes of it.
void expect_list(const std::optional<std::string> &value, int code,
                 const std::vector<std::pair<int, int>> &list, bool block)
{
    Closing closing;
    parse(Collected({.name = name, .value = value}), closing);
    const std::string what = value ? hex(*value) : "none";
    EXPECT_EQ(closing.code, code) << what;
    EXPECT_EQ(closing.result, 0) << what;
    EXPECT_EQ(closing.events != nullptr, block) << what;
    ASSERT_EQ(closing.count, static_cast<int>(list.size())) << what;
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(closing.events[i].eventType, list[i].first) << what;
        EXPECT_EQ(closing.events[i].eventStatus, list[i].second) << what;
    }
}

std::string rejected(int type, int status)
{
    return sequence(integer(type), enumerated(status));
}

} // namespace

TEST(RegistrationResponse, lists_the_rejected_specifiers_and_what_the_server_says)
{
    Collected response({.code = LDAP_UNWILLING_TO_PERFORM,
                        .name = name,
                        .value = sequence(integer(2), set(rejected(5, 1), rejected(-1, INT_MAX))),
                        .diagnostic = "two are unknown"});
    Closing closing;
    parse(response, closing);
    EXPECT_EQ(closing.code, LDAP_SUCCESS);
    EXPECT_EQ(closing.result, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_STREQ(closing.message, "two are unknown");
    ASSERT_EQ(closing.count, 2);
    EXPECT_EQ(closing.events[0].eventType, 5);
    EXPECT_EQ(closing.events[0].eventStatus, 1);
    EXPECT_EQ(closing.events[1].eventType, -1);
    EXPECT_EQ(closing.events[1].eventStatus, INT_MAX);
}

TEST(RegistrationResponse, without_a_list_is_success)
{
    expect_list(std::nullopt, LDAP_SUCCESS, {}, false);
    expect_list("", LDAP_SUCCESS, {}, false);
    expect_list(sequence(), LDAP_SUCCESS, {}, false);
    expect_list(sequence(integer(3)), LDAP_SUCCESS, {}, false);
    expect_list(sequence(octets("three..")), LDAP_SUCCESS, {}, false); // no count
    expect_list(sequence(integer(1), sequence(rejected(1, 1))), LDAP_SUCCESS, {}, false);
    expect_list(bytes("30"), LDAP_SUCCESS, {}, false);
    expect_list(bytes("30 06 02 01 01 31 03 30"), LDAP_SUCCESS, {}, false); // the SET is cut
    expect_list(bytes("01 00 ff"), LDAP_SUCCESS, {}, false);
}

TEST(RegistrationResponse, with_a_count_of_none_and_a_set_has_an_empty_block)
{
    expect_list(sequence(integer(0), set()), LDAP_SUCCESS, {}, true);
    expect_list(sequence(integer(0), set(rejected(1, 1))), LDAP_SUCCESS, {}, true);
}

TEST(RegistrationResponse, is_read_by_its_count_and_by_no_other_length)
{
    expect_list(sequence(integer(1), set(rejected(1, 2), rejected(3, 4))), LDAP_SUCCESS, {{1, 2}},
                true);
    // The elements stand behind the SET, and their tags are others.
    expect_list(sequence(integer(1), set(), element(0x61, concat(octets("\x01"), integer(2)))),
                LDAP_SUCCESS, {{1, 2}}, true);
    expect_list(sequence(octets("\x01"), set(rejected(1, 2))), LDAP_SUCCESS, {{1, 2}}, true);
}

TEST(RegistrationResponse, with_a_list_that_is_too_short_or_damaged_has_none)
{
    expect_list(sequence(integer(2), set(rejected(1, 1))), LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(1), set()), LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(1), set(sequence(integer(1)))), LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(1), set(sequence())), LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(1), set(sequence(octets("large"), enumerated(1)))),
                LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(2), set(sequence(octets("large"), enumerated(1)), rejected(1, 1))),
                LDAPX_DECODING_ERROR, {}, false);
    // Five bytes are an unsigned number: these fields are signed.
    expect_list(sequence(integer(1), set(sequence(integer(0x80000000LL), enumerated(1)))),
                LDAPX_DECODING_ERROR, {}, false);
}

TEST(RegistrationResponse, with_an_impossible_count_asks_for_no_block)
{
    expect_list(sequence(integer(INT_MAX), set(rejected(1, 1))), LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(9), set(rejected(1, 1))), LDAPX_DECODING_ERROR, {}, false);
    expect_list(sequence(integer(-1), set(rejected(1, 1))), LDAPX_NO_MEMORY, {}, false);
    expect_list(sequence(integer(INT_MIN), set()), LDAPX_NO_MEMORY, {}, false);
}

TEST(RegistrationResponse, of_another_name_is_refused)
{
    for (const std::string &other :
         {name + "0", name.substr(0, name.size() - 1), std::string("1.2.3"),
          std::string("2.16.840.1.424242.1.27.100.81")}) {
        Closing closing;
        parse(Collected({.code = LDAP_BUSY,
                         .name = other,
                         .value = sequence(integer(1), set(rejected(1, 1))),
                         .diagnostic = "why"}),
              closing);
        EXPECT_EQ(closing.code, LDAPX_DECODING_ERROR) << other;
        EXPECT_EQ(closing.result, LDAP_BUSY);
        EXPECT_STREQ(closing.message, "why");
        EXPECT_EQ(closing.count, 0);
        EXPECT_EQ(closing.events, nullptr);
    }
}

TEST(RegistrationResponse, without_a_name_is_an_answer_without_a_list)
{
    Closing closing;
    parse(Collected({.code = LDAP_BUSY, .value = sequence(integer(1), set(rejected(1, 1)))}),
          closing);
    EXPECT_EQ(closing.code, LDAP_SUCCESS);
    EXPECT_EQ(closing.result, LDAP_BUSY);
    EXPECT_EQ(closing.count, 0);
    EXPECT_EQ(closing.events, nullptr);
}

TEST(RegistrationResponse, is_not_decoded_when_either_place_for_the_list_is_missing)
{
    Collected response({.name = name, .value = sequence(integer(1), set())});
    const StatedLeak name_of_the_response;
    int result = untouched, count = untouched;
    EVT_EventSpecifier event{}, *events = &event;
    EXPECT_EQ(ldap_parse_monitor_events_response(response.ld(), response.message(), &result,
                                                 nullptr, nullptr, &events, 0),
              LDAP_SUCCESS);
    EXPECT_EQ(events, nullptr);
    EXPECT_EQ(ldap_parse_monitor_events_response(response.ld(), response.message(), &result,
                                                 nullptr, &count, nullptr, 0),
              LDAP_SUCCESS);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(ldap_parse_monitor_events_response(response.ld(), response.message(), &result,
                                                 nullptr, nullptr, nullptr, 0),
              LDAP_SUCCESS);
    EXPECT_EQ(result, 0);
}

TEST(RegistrationResponse, needs_a_place_for_the_result_code)
{
    Collected response({.name = name});
    static char nobodys[] = "";
    char *message = nobodys;
    int count = untouched;
    EVT_EventSpecifier event{}, *events = &event;
    EXPECT_EQ(ldap_parse_monitor_events_response(response.ld(), response.message(), nullptr,
                                                 &message, &count, &events, 1),
              LDAPX_PARAM_ERROR);
    EXPECT_EQ(response.session_code(), LDAPX_PARAM_ERROR);
    EXPECT_EQ(message, nobodys);
    EXPECT_EQ(count, untouched);
    EXPECT_EQ(events, &event);
}

TEST(RegistrationResponse, that_is_no_extended_response_gives_the_code_of_the_ldap_library)
{
    {
        const Collected search_done(0x65, concat(enumerated(0), octets(""), octets("")));
        Closing closing;
        parse(search_done, closing);
        EXPECT_EQ(closing.code, LDAP_PARAM_ERROR);
        EXPECT_EQ(closing.events, nullptr);
        EXPECT_EQ(closing.count, 0);
    }
    {
        const Collected damaged(0x78, bytes("0a 01"));
        Closing closing;
        parse(damaged, closing);
        EXPECT_EQ(closing.code, LDAP_DECODING_ERROR);
        EXPECT_EQ(closing.result, LDAP_DECODING_ERROR); // where the LDAP library puts it, too
        EXPECT_EQ(closing.events, nullptr);
        EXPECT_EQ(closing.count, 0);
    }
}

TEST(RegistrationResponse, is_released_on_demand)
{
    Collected response({.name = name});
    const StatedLeak name_of_the_response;
    int result = untouched;
    EXPECT_EQ(ldap_parse_monitor_events_response(response.ld(), response.release(), &result,
                                                 nullptr, nullptr, nullptr, 1),
              LDAP_SUCCESS);
    EXPECT_EQ(result, 0);
}
