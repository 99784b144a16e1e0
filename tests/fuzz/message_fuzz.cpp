// A message of the server as an application collects it, in any of the functions that parse one:
// the first byte chooses the function, the second how the message is made. It is a response with
// the right name, whose value the rest is, or the rest is all that its operation holds. (libldap
// loses some messages that it cannot take apart so far, before anybody else sees them.)

#include "fuzz.h"

#include <optional>

#include "support/ber.h"
#include "support/events.h"
#include "support/peer.h"
#include "support/records.h"
#include "support/response.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

enum class Parser { event, event_and_address, rejected, start, batch, end };
constexpr std::size_t parsers = 6;

// May lose the first address of a referral list that breaks off, where the server sends one.
int parse(Parser parser, LDAP *ld, LDAPMessage *message, bool release, bool referrals,
          const std::optional<MessageVerdict> &expected)
{
    std::optional<StatedLeak> leak;
    if (referrals)
        leak.emplace();
    const int free_it = release ? 1 : 0;
    int result = 0;
    char *text = nullptr;
    int code = 0;
    switch (parser) {
    case Parser::event:
    case Parser::event_and_address: {
        int type = MessageVerdict().type;
        result = MessageVerdict().result;
        void *record = nullptr, *address = nullptr;
        code =
            parser == Parser::event
                ? ldap_parse_ds_event(ld, message, &type, &result, &record, free_it)
                : ldap_parse_ds_event_IP(ld, message, &type, &result, &record, free_it, &address);
        const EventRecord owned(record), owned_address(address);
        fuzz::require(code == LDAP_SUCCESS || (record == nullptr && address == nullptr),
                      "a failed event");
        if (expected) {
            MessageVerdict seen = seen_message(code, type, result, record, address);
            if (parser == Parser::event)
                seen.trailer = expected->trailer; // read and released again
            fuzz::require(seen == *expected, "what an independent decoder makes of the event");
        }
        break;
    }
    case Parser::rejected: {
        const StatedLeak name; // is not released
        int count = 77;
        EVT_EventSpecifier *events = nullptr;
        code = ldap_parse_monitor_events_response(ld, message, &result, &text, &count, &events,
                                                  free_it);
        fuzz::require(code == LDAP_SUCCESS || (count == 0 && events == nullptr),
                      "a failed list of rejected events");
        ldapx_memfree(events);
        break;
    }
    case Parser::start: {
        int size = 0;
        code = ldap_parse_lburp_start_response(ld, message, &result, &text, &size, free_it);
        break;
    }
    case Parser::batch: {
        const StatedLeak messages; // of a list that breaks off
        int count = 77;
        LBURPUpdateResult *failed = nullptr;
        code = ldap_parse_lburp_operation_response(ld, message, &result, &text, &count, &failed,
                                                   free_it);
        fuzz::require(code == LDAP_SUCCESS || (count == 0 && failed == nullptr),
                      "a failed list of failed operations");
        for (int i = 0; i < count; ++i)
            ldap_memfree(failed[i].errorMsg);
        ldapx_memfree(failed);
        break;
    }
    case Parser::end:
        code = ldap_parse_lburp_end_response(ld, message, &result, &text, free_it);
        break;
    }
    ldap_memfree(text);
    return code;
}

std::string response_name(Parser parser)
{
    switch (parser) {
    case Parser::rejected:
        return LDAPX_MONITOR_EVENTS_RESPONSE;
    case Parser::start:
        return LDAPX_LBURP_START_RESPONSE;
    case Parser::batch:
        return LDAPX_LBURP_OPERATION_RESPONSE;
    case Parser::end:
        return LDAPX_LBURP_END_RESPONSE;
    default:
        return LDAPX_EVENT_NOTIFICATION;
    }
}

std::string whole_message(Parser parser, int id, unsigned char shape, const std::string &rest)
{
    if ((shape & 1) != 0)
        return sequence(integer(id), element((shape & 4) != 0 ? 0x79 : 0x78, rest));
    if (parser == Parser::event || parser == Parser::event_and_address)
        return intermediate_response(id, response_name(parser), rest);
    return extended_response(id, {.name = response_name(parser), .value = rest});
}

// libldap releases a message that it can read, and no other.
bool can_be_read(Parser parser, LDAP *ld, LDAPMessage *message)
{
    char *name = nullptr;
    berval *value = nullptr;
    int rc = 0;
    if (parser == Parser::event || parser == Parser::event_and_address) {
        rc = ldap_parse_intermediate(ld, message, &name, &value, nullptr, 0);
    } else {
        int result = 0;
        rc = ldap_parse_result(ld, message, &result, nullptr, nullptr, nullptr, nullptr, 0);
        if (rc == LDAP_SUCCESS)
            rc = ldap_parse_extended_result(ld, message, &name, &value, 0);
    }
    ldap_memfree(name);
    ber_bvfree(value);
    return rc == LDAP_SUCCESS;
}

std::string seed(Parser parser, char shape, const std::string &rest)
{
    return static_cast<char>(parser) + std::string(1, shape) + rest;
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    std::vector<std::string> all;
    for (const EventKind &kind : event_kinds()) {
        all.push_back(seed(Parser::event_and_address, 0,
                           notification(1, 2, kind.tag, full_event(kind).bytes, trailer_bytes())));
        all.push_back(
            seed(Parser::event, 0, notification(1, 2, kind.tag, least_event(kind).bytes)));
    }
    const std::string event = notification(1, 2, EVT_TAG_NET_ADDRESS, trailer_bytes());
    const std::string rejected = sequence(
        integer(2), set(sequence(integer(1), enumerated(0)), sequence(integer(77), enumerated(2))));
    const auto failed = [](int number, const std::string &text) {
        return sequence(integer(number), sequence(integer(68), octets("cn=a"), octets(text)));
    };
    const std::string values[] = {
        event, event, rejected, sequence(integer(100)), failed(1, "there already") + failed(7, ""),
        ""};
    for (std::size_t i = 0; i < parsers; ++i) {
        const auto parser = static_cast<Parser>(i);
        all.push_back(seed(parser, 0, values[i]));
        all.push_back(seed(parser, 2, values[i]));
        const auto name = octets(response_name(parser), i < 2 ? 0x80 : 0x8a);
        const auto value = octets(values[i], i < 2 ? 0x81 : 0x8b);
        all.push_back(
            i < 2 ? seed(parser, 5, name + value)
                  : seed(parser, 1,
                         concat(enumerated(0), octets("o=x"), octets("text"), name, value)));
    }
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const auto parser = static_cast<Parser>(input.below(parsers));
    const unsigned char shape = input.byte();
    const std::string rest = input.rest();

    Peer peer;
    int id = 0;
    fuzz::require(ldap_extended_operation(peer.ld(), "1.2.3", nullptr, nullptr, nullptr, &id) ==
                  LDAP_SUCCESS);
    const std::string message = whole_message(parser, id, shape, rest);
    if ((shape & 1) != 0 && may_have_empty_name(message))
        return 0;
    peer.send(message);
    peer.finish();
    timeval limit{1, 0};
    LDAPMessage *received = nullptr;
    if (ldap_result(peer.ld(), id, LDAP_MSG_ONE, &limit, &received) <= 0)
        return 0; // no message for libldap

    const bool release = (shape & 2) != 0 && can_be_read(parser, peer.ld(), received);
    // Of an event under its name the table of events knows what must come of it.
    std::optional<MessageVerdict> expected;
    if ((shape & 1) == 0 && (parser == Parser::event || parser == Parser::event_and_address))
        expected = expected_message(rest);
    const int code = parse(parser, peer.ld(), received, release,
                           rest.find(char{EVT_TAG_SEV_INFO}) != std::string::npos, expected);
    fuzz::require(peer.session_code() == code, "the session's result code");
    if (!release)
        ldap_msgfree(received);
    return 0;
}
