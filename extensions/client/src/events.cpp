// Registration for the server's events, and the response that ends their stream.

#include "events_reader.h"

#include <cstdlib>

using namespace greirige;

namespace {

void encode_specifier(CallFrame &call, const EVT_EventSpecifier &event) noexcept
{
    encode(call, "{ie}", event.eventType, event.eventStatus);
}

void encode_specifier(CallFrame &call, const EVT_FilteredEventSpecifier &event) noexcept
{
    encode(call, "{ies}", event.eventType, event.eventStatus, event.filter);
}

// SEQUENCE { INTEGER eventCount, SET { specifiers } }. A negative count goes out as it is, before
// an empty SET.
template <class Specifier>
int monitor(LDAP *ld, int eventCount, const Specifier *events, int *msgID,
            const char *requestName) noexcept
{
    // Neither of these two returns touches the session's result code.
    if (eventCount == 0 || events == nullptr)
        return LDAPX_PARAM_ERROR;
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "{i", eventCount);
    encode(call, "[");
    for (int i = 0; i < eventCount && call.err == LDAP_SUCCESS; ++i)
        encode_specifier(call, events[i]);
    encode(call, "]}");
    send_request(call, ld, requestName, msgID);
    return end_and_store(call, ld);
}

// SEQUENCE { INTEGER count, SET { SEQUENCE { INTEGER, ENUMERATED } ... } }. Without count or SET
// there is no list, and that is no failure. NULL on failure.
EVT_EventSpecifier *read_rejected(EventReader &in, int &count) noexcept
{
    step_into(in);
    read_number(in, count);
    if (!next_is(in, LBER_SET)) {
        count = 0;
        in.err = LDAP_SUCCESS;
        return nullptr;
    }
    step_into(in);
    check_count(in, count);
    if (in.err != LDAP_SUCCESS)
        return nullptr;

    auto *events = static_cast<EVT_EventSpecifier *>(
        std::malloc(static_cast<std::size_t>(count) * sizeof(EVT_EventSpecifier)));
    if (events == nullptr) {
        in.err = LDAPX_NO_MEMORY;
        return nullptr;
    }
    for (int i = 0; i < count && in.err == LDAP_SUCCESS; ++i) {
        step_into(in);
        read_number(in, events[i].eventType);
        read_number(in, events[i].eventStatus);
    }
    if (in.err == LDAP_SUCCESS)
        return events;
    std::free(events);
    return nullptr;
}

} // namespace

int ldap_monitor_events(LDAP *ld, int eventCount, EVT_EventSpecifier *events, int *msgID) noexcept
{
    return monitor(ld, eventCount, events, msgID, LDAPX_MONITOR_EVENTS_REQUEST);
}

int ldap_monitor_events_filtered(LDAP *ld, int eventCount, EVT_FilteredEventSpecifier *events,
                                 int *msgID) noexcept
{
    return monitor(ld, eventCount, events, msgID, LDAPX_MONITOR_EVENTS_FILTERED_REQUEST);
}

int ldap_parse_monitor_events_response(LDAP *ld, LDAPMessage *eventMessage, int *resultCode,
                                       char **errorMsg, int *badEventCount,
                                       EVT_EventSpecifier **badEvents, int freeIt) noexcept
{
    if (resultCode == nullptr) {
        store_result(ld, LDAPX_PARAM_ERROR);
        return LDAPX_PARAM_ERROR;
    }
    if (badEvents != nullptr)
        *badEvents = nullptr;
    if (badEventCount != nullptr)
        *badEventCount = 0;
    if (errorMsg != nullptr)
        *errorMsg = nullptr;

    CallFrame call;
    read_response(call, ld, eventMessage, resultCode, errorMsg, freeIt);
    // A response without a name is an answer without a list.
    const bool named = call.err == LDAP_SUCCESS && call.returnedOID != nullptr;
    if (named && !same_name(call.returnedOID, LDAPX_MONITOR_EVENTS_RESPONSE))
        call.err = LDAPX_DECODING_ERROR;
    if (named && call.err == LDAP_SUCCESS && call.returnedbv != nullptr && badEvents != nullptr &&
        badEventCount != nullptr) {
        EventReader in = reader_of(*call.returnedbv);
        int count = 0;
        *badEvents = read_rejected(in, count);
        if (in.err == LDAP_SUCCESS)
            *badEventCount = count;
        call.err = in.err;
    }
    // The response's name is not released: applications have come to hold on to it.
    call.returnedOID = nullptr;
    return end_and_store(call, ld);
}
