// A session that waits for events, and what the library makes of each.
//
//     EventSession session;
//     Event event = session.parse_value(notification(1, 0, 0x61, fields));
//     EXPECT_EQ(event.code, 0);
//     describe(event_kind(0x61), event.data.get());
//
// Every parse and decode also checks that the session's result code is the returned one.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "support/events.h"
#include "support/peer.h"
#include "support/records.h"
#include "support/stated_leak.h"

namespace support {

struct Event {
    int code = -99;
    int type = -99;
    int result = -99;
    EventRecord data;
    EventRecord ip;
};

class EventSession {
public:
    EventSession()
    {
        EVT_EventSpecifier specifier{1, 0};
        EXPECT_EQ(ldap_monitor_events(peer.ld(), 1, &specifier, &id), 0);
        peer.take_request();
    }

    LDAP *ld() const
    {
        return peer.ld();
    }

    // The message that the server sends for an event.
    Message message(const std::optional<std::string> &value,
                    const std::optional<std::string> &name = LDAPX_EVENT_NOTIFICATION)
    {
        peer.respond_intermediate(name, value, id);
        return peer.result(id);
    }

    Event parse_message(LDAPMessage *message) const
    {
        Event event;
        void *data = &event; // must be overwritten
        void *ip = nullptr;
        set_session_code(77);
        event.code =
            ldap_parse_ds_event_IP(ld(), message, &event.type, &event.result, &data, 0, &ip);
        EXPECT_EQ(peer.session_code(), event.code);
        event.data.reset(data);
        event.ip.reset(ip);
        return event;
    }

    Event parse_value(const std::optional<std::string> &value)
    {
        return parse_message(message(value).get());
    }

    // An event of this kind through the message parser, with and without a place for the trailer.
    Verdict parse(const EventKind &kind, std::string_view fields, std::string_view trailer = {})
    {
        const Message received = message(notification(1, 2, kind.tag, fields, trailer));
        const BrokenOffList leak(kind);
        const Event event = parse_message(received.get());
        EXPECT_EQ(event.type, 1);
        EXPECT_EQ(event.result, 2);

        int type = 0, result = 0;
        void *data = nullptr;
        EXPECT_EQ(ldap_parse_ds_event(ld(), received.get(), &type, &result, &data, 0), event.code);
        EXPECT_EQ(peer.session_code(), event.code);
        const EventRecord without_trailer(data);
        const Verdict verdict = verdict_of(kind, event);
        if (event.code == 0) {
            EXPECT_EQ(describe(kind, data), verdict.text);
        } else {
            EXPECT_EQ(data, nullptr);
        }
        return verdict;
    }

    // The same through the kind's own decoder.
    Verdict decode(const EventKind &kind, std::string_view fields)
    {
        const Element ber = element_of(fields);
        Event event;
        void *data = &event;
        void *ip = nullptr;
        set_session_code(77);
        {
            const BrokenOffList leak(kind);
            event.code = kind.decoder(ld(), ber.get(), &data, &ip);
        }
        EXPECT_EQ(peer.session_code(), event.code);
        event.data.reset(data);
        event.ip.reset(ip);
        Verdict verdict = verdict_of(kind, event);
        if (event.code == 0)
            verdict.unread = unread(ber);
        return verdict;
    }

    void set_session_code(int code) const
    {
        ldap_set_option(ld(), LDAP_OPT_RESULT_CODE, &code);
    }

    Peer peer;
    int id = 0;

private:
    // A referral list that breaks off loses its first address.
    struct BrokenOffList {
        explicit BrokenOffList(const EventKind &kind)
        {
            if (kind.tag == EVT_TAG_SEV_INFO)
                leak.emplace();
        }
        std::optional<StatedLeak> leak;
    };

    static Verdict verdict_of(const EventKind &kind, const Event &event)
    {
        Verdict verdict;
        verdict.code = event.code;
        if (event.code == 0) {
            EXPECT_NE(event.data, nullptr);
            EXPECT_EQ(static_cast<ber_tag_t *>(event.data.get())[-1], kind.tag);
            verdict.text = describe(kind, event.data.get());
        } else {
            EXPECT_EQ(event.data, nullptr);
            EXPECT_EQ(event.ip, nullptr);
        }
        verdict.trailer = describe_address(event.ip.get());
        return verdict;
    }
};

} // namespace support
