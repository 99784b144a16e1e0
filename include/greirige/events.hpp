// greirige/events.hpp - the server's events: a stream that waits for them, and each as a value.
//
//     Result<EventStream> stream = EventStream::open(session, {{.type = 1}});
//     for (const Result<Event> &event : stream->until(Clock::now() + 10min))
//         if (event)
//             std::cout << to_string(event->tag()) << '\n';
//
// An Event owns what the server sent and shows it through one of the types of event_views.hpp:
//
//     if (const auto *entry = event->get_if<EntryEvent>())
//         std::cout << entry->entry_dn.value_or("?") << '\n';
//     std::visit(printer, event->data());
//     for_each_field(*entry, [](std::string_view name, const auto &value) { ... });
//
// Views, and the strings and bytes in them, are valid as long as their Event. All numbers are the
// server's own and pass through unchanged.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "greirige/detail.hpp"
#include "greirige/event_layout.hpp"
#include "greirige/event_views.hpp"
#include "greirige/result.hpp"
#include "greirige/session.hpp"
#include "ldap_events.h"

namespace greirige {

namespace detail {

// ldap_event_free() leaves the first address of a referral list allocated.
struct FreeRecord {
    void operator()(void *record) const noexcept
    {
        if (static_cast<const ber_tag_t *>(record)[-1] == EVT_TAG_SEV_INFO) {
            auto *event = static_cast<EVT_SEVInfo *>(record);
            if (event->referralCount > 0 && event->referrals) {
                ldapx_memfree(event->referrals[0].address);
                event->referrals[0].address = nullptr;
            }
        }
        ldap_event_free(record);
    }
};
using EventRecord = std::unique_ptr<void, FreeRecord>;

} // namespace detail

// ---- An event -----------------------------------------------------------------------------------

// One event, owning what it shows. It may outlive the stream and the session that it came from.
class Event {
public:
    Event(Event &&other) noexcept
        : type_(other.type_), result_(other.result_), tag_(other.tag_),
          record_(std::move(other.record_)), address_record_(std::move(other.address_record_)),
          data_(std::exchange(other.data_, NoData())),
          address_(std::exchange(other.address_, std::nullopt))
    {
    }
    Event &operator=(Event &&other) noexcept
    {
        // The views leave before the record that they show.
        data_ = NoData();
        type_ = other.type_;
        result_ = other.result_;
        tag_ = other.tag_;
        record_ = std::move(other.record_);
        address_record_ = std::move(other.address_record_);
        data_ = std::exchange(other.data_, NoData());
        address_ = std::exchange(other.address_, std::nullopt);
        return *this;
    }

    // The event's type and result, as in the registration and as the server defines them.
    int type() const noexcept
    {
        return type_;
    }
    int result() const noexcept
    {
        return result_;
    }
    // The kind of its data. May be one that nothing is known of: the data is NoData then.
    EventTag tag() const noexcept
    {
        return tag_;
    }

    // The data. It refers to the event: keep the event, not the data of a temporary one.
    const EventData &data() const &noexcept
    {
        return data_;
    }
    void data() const && = delete;
    // The data if it is of this kind, else a null pointer.
    template <class View>
    const View *get_if() const &noexcept
    {
        return std::get_if<View>(&data_);
    }
    template <class View>
    void get_if() const && = delete;

    // The network address that some events carry behind their data.
    const std::optional<Address> &address() const &noexcept
    {
        return address_;
    }
    void address() const && = delete;

private:
    friend Result<Event> parse_event(Session, LDAPMessage *);

    Event(int type, int result, EventTag tag, detail::EventRecord record,
          detail::EventRecord address)
        : type_(type), result_(result), tag_(tag), record_(std::move(record)),
          address_record_(std::move(address))
    {
        if (const detail::EventKind *kind = detail::event_kind(tag_); kind && record_)
            data_ = kind->view(record_.get());
        if (address_record_)
            address_ = detail::view(*static_cast<const EVT_NetAddress *>(address_record_.get()));
    }

    int type_ = 0;
    int result_ = 0;
    EventTag tag_ = EventTag::none;
    detail::EventRecord record_;
    detail::EventRecord address_record_;
    EventData data_;
    std::optional<Address> address_;
};

namespace detail {

// An event whose data does not read as its kind's behind so many elements that do.
inline Error undecodable(int type, const EventKind &kind, std::size_t good, std::string_view where)
{
    std::string text = "event " + std::to_string(type) + ", ";
    text.append(to_string(kind.tag)).append(", cannot be decoded: ");
    if (good == kind.layout.size())
        text += "its address is wrong";
    else
        text += "element " + std::to_string(good + 1) + " of its data is wrong or missing";
    return refusal(LDAPX_DECODING_ERROR, text, std::string(where));
}

} // namespace detail

// Turns a message that ldap_result() returned into its event, for programs with a loop of their
// own. The message must be an IntermediateResponse (LDAP_RES_INTERMEDIATE); it stays the caller's.
// LDAPX_DECODING_ERROR for one that is no event or whose data does not read as its kind's.
inline Result<Event> parse_event(Session session, LDAPMessage *message)
{
    constexpr std::string_view where = "parse_event";
    LDAP *ld = session.handle();
    if (!ld || !message)
        return detail::bad_argument(where, "", "the session or the message is a null pointer");

    char *oid = nullptr;
    berval *data = nullptr;
    int rc = ldap_parse_intermediate(ld, message, &oid, &data, nullptr, 0);
    const detail::LdapString name(oid);
    const detail::Value value(data);
    if (rc != LDAP_SUCCESS)
        return detail::failure(ld, rc, where);
    if (!name || name.get() != std::string_view(LDAPX_EVENT_NOTIFICATION) || !value)
        return detail::refusal(LDAPX_DECODING_ERROR, "the message is no event", std::string(where));

    // SEQUENCE { INTEGER type, INTEGER result, data }, trailer.
    detail::Reader in(*value);
    in.enter();
    const int event_type = in.number();
    in.number();
    EventTag tag = EventTag::none;
    if (in.ok() && in.tag() != detail::Reader::none)
        tag = static_cast<EventTag>(in.tag());
    if (!in.ok())
        return detail::refusal(LDAPX_DECODING_ERROR,
                               "the event's type, result or data cannot be decoded",
                               std::string(where));
    if (const detail::EventKind *kind = detail::event_kind(tag)) {
        in.enter();
        const std::size_t good = detail::LayoutReader(in).follow(kind->layout);
        if (!in.ok())
            return detail::undecodable(event_type, *kind, good, where);
    }

    int type = 0;
    int result = 0;
    void *record = nullptr;
    void *address = nullptr;
    rc = ldap_parse_ds_event_IP(ld, message, &type, &result, &record, 0, &address);
    detail::EventRecord owned_record(record);
    detail::EventRecord owned_address(address);
    if (rc != LDAP_SUCCESS)
        return detail::failure(ld, rc, where);
    return Event(type, result, tag, std::move(owned_record), std::move(owned_address));
}

// ---- Registration -------------------------------------------------------------------------------

// An event to monitor, or one that the server rejected. The numbers are the server's.
struct EventSpecifier {
    int type = 0;
    int status = 0;

    friend bool operator==(const EventSpecifier &, const EventSpecifier &) = default;
};

// An event to monitor, and a filter that the server applies to it.
struct FilteredEventSpecifier {
    int type = 0;
    int status = 0;
    std::string filter;
};

// What the server said when it ended a stream.
struct StreamEnd {
    int code = LDAP_SUCCESS; // its verdict on the registration
    std::string message;
    std::vector<EventSpecifier> rejected; // what it would not monitor

    friend bool operator==(const StreamEnd &, const StreamEnd &) = default;
};

// ---- The stream ---------------------------------------------------------------------------------

// A registration for events, and the events as they come: intermediate responses (RFC 4511, 4.13).
//
// A stream keeps a handle of its own on the session's connection: it may outlive the Session and
// the LDAP * (the connection closes with the last of them). It ends its registration when it is
// destroyed. Events that arrive while nobody waits are kept by the LDAP library, in memory.
//
// While one thread waits for events, the LDAP library makes other calls on the same connection wait
// as well, for as long as that takes: a stream that is watched on a thread of its own wants a
// session of its own.
class EventStream {
public:
    using Clock = std::chrono::steady_clock;

    // Registers for events. LDAPX_PARAM_ERROR for an empty list. The server's verdict comes with
    // the stream: a registration that it refuses is the first thing that next() tells.
    static Result<EventStream> open(Session session, std::span<const EventSpecifier> events);
    static Result<EventStream> open(Session session, std::initializer_list<EventSpecifier> events)
    {
        return open(session, std::span(events.begin(), events.size()));
    }
    static Result<EventStream> open_filtered(Session session,
                                             std::span<const FilteredEventSpecifier> events);
    static Result<EventStream> open_filtered(Session session,
                                             std::initializer_list<FilteredEventSpecifier> events)
    {
        return open_filtered(session, std::span(events.begin(), events.size()));
    }

    EventStream(EventStream &&other) noexcept = default;
    EventStream &operator=(EventStream &&other) noexcept
    {
        cancel();
        ld_ = std::move(other.ld_);
        message_id_ = other.message_id_;
        end_ = std::move(other.end_);
        return *this;
    }
    ~EventStream()
    {
        cancel();
    }

    // The next event: waits until it comes or the deadline passes; a deadline in the past takes
    // what has already arrived. Nothing when none came in time, a signal interrupted the wait, or
    // the stream has ended: ended() tells that apart.
    //
    // An event that cannot be decoded is an error (LDAPX_DECODING_ERROR) whose text says where it
    // breaks off, and the stream goes on. So is a message of another kind, which may end it.
    // The server's refusal of the registration and the loss of the connection are errors too, and
    // end the stream.
    Result<std::optional<Event>> next(Clock::time_point deadline = Clock::time_point::max());
    Result<std::optional<Event>> next(Clock::duration wait)
    {
        const Clock::time_point now = Clock::now();
        return next(wait < Clock::time_point::max() - now ? now + wait : Clock::time_point::max());
    }

    // Nothing more will come.
    bool ended() const noexcept
    {
        return !ld_;
    }
    // What the server said when it ended the stream; nothing where it did not come to that.
    const std::optional<StreamEnd> &end_of_stream() const noexcept
    {
        return end_;
    }
    // Ends the registration. The server is told (an abandon, RFC 4511, 4.11); what it has still
    // sent is dropped.
    void cancel() noexcept
    {
        if (ld_)
            ldap_abandon_ext(ld_.get(), message_id_, nullptr, nullptr);
        ld_.reset();
    }

    // For iteration: the results of next(), event or error, until it gives nothing. Each is gone
    // when the next one comes; move the event out of it to keep it.
    class Range;
    Range until(Clock::time_point deadline) &;
    Range until_end() &;

private:
    EventStream(detail::Handle ld, int message_id) noexcept
        : ld_(std::move(ld)), message_id_(message_id)
    {
    }
    template <class Send>
    static Result<EventStream> start(Session session, std::string_view name, std::size_t count,
                                     Send &&send);
    Result<std::optional<Event>> finish(LDAPMessage *message);

    detail::Handle ld_; // none once the stream has ended
    int message_id_ = 0;
    std::optional<StreamEnd> end_;
};

// The events that a stream gives until a deadline, an input range of Result<Event>. The stream
// must stay where it is.
class EventStream::Range {
public:
    class iterator {
    public:
        using value_type = Result<Event>;
        using difference_type = std::ptrdiff_t;

        iterator() = default;
        explicit iterator(Range *range) noexcept : range_(range) {}
        Result<Event> &operator*() const
        {
            return *range_->current_;
        }
        Result<Event> *operator->() const
        {
            return &*range_->current_;
        }
        iterator &operator++()
        {
            range_->advance();
            return *this;
        }
        void operator++(int)
        {
            ++*this;
        }
        bool operator==(std::default_sentinel_t) const noexcept
        {
            return !range_->current_;
        }

    private:
        Range *range_ = nullptr;
    };

    Range(EventStream &stream, Clock::time_point deadline) noexcept
        : stream_(&stream), deadline_(deadline)
    {
    }
    iterator begin()
    {
        advance();
        return iterator(this);
    }
    static std::default_sentinel_t end() noexcept
    {
        return {};
    }

private:
    void advance()
    {
        current_.reset();
        Result<std::optional<Event>> next = stream_->next(deadline_);
        if (!next)
            current_.emplace(std::move(next).error());
        else if (*next)
            current_.emplace(**std::move(next));
    }

    EventStream *stream_;
    Clock::time_point deadline_;
    std::optional<Result<Event>> current_;
};

// ---- Implementation -----------------------------------------------------------------------------

template <class Send>
Result<EventStream> EventStream::start(Session session, std::string_view name, std::size_t count,
                                       Send &&send)
{
    detail::Call call(session.handle(), name);
    if (count > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        call.refuse("events", "there are too many");
    if (!call.ready())
        return call.ready().error();
    detail::Handle ld(ldap_dup(session.handle()));
    if (!ld)
        return call.failure(LDAPX_NO_MEMORY);
    int message_id = 0;
    detail::Call request(ld.get(), name);
    return request.run([&] { return send(ld.get(), static_cast<int>(count), &message_id); })
        .transform([&] { return EventStream(std::move(ld), message_id); });
}

inline Result<EventStream> EventStream::open(Session session,
                                             std::span<const EventSpecifier> events)
{
    std::vector<EVT_EventSpecifier> specifiers;
    for (const EventSpecifier &event : events)
        specifiers.push_back({event.type, event.status});
    return start(session, "monitor_events", specifiers.size(),
                 [&](LDAP *ld, int count, int *message_id) {
                     return ldap_monitor_events(ld, count, specifiers.data(), message_id);
                 });
}

inline Result<EventStream>
EventStream::open_filtered(Session session, std::span<const FilteredEventSpecifier> events)
{
    detail::Call call(session.handle(), "monitor_events_filtered");
    std::vector<std::string_view> filters;
    for (const FilteredEventSpecifier &event : events)
        filters.emplace_back(event.filter);
    detail::CStrings texts = call.texts("filter", filters);
    if (!call.ready())
        return call.ready().error();
    std::vector<EVT_FilteredEventSpecifier> specifiers;
    for (std::size_t i = 0; i < events.size(); ++i)
        specifiers.push_back({events[i].type, events[i].status, static_cast<char **>(texts)[i]});
    return start(session, "monitor_events_filtered", specifiers.size(),
                 [&](LDAP *ld, int count, int *message_id) {
                     return ldap_monitor_events_filtered(ld, count, specifiers.data(), message_id);
                 });
}

inline Result<std::optional<Event>> EventStream::next(Clock::time_point deadline)
{
    while (ld_) {
        LDAPMessage *received = nullptr;
        timeval wait = detail::time_until(deadline);
        errno = 0;
        const int kind = ldap_result(ld_.get(), message_id_, LDAP_MSG_ONE, &wait, &received);
        const detail::Message message(received);
        if (kind == LDAP_RES_INTERMEDIATE)
            return parse_event(Session(ld_.get()), message.get()).transform([](Event &&event) {
                return std::optional<Event>(std::move(event));
            });
        if (kind == LDAP_RES_EXTENDED)
            return finish(message.get());
        if (kind < 0 && errno == EINTR) {
            // The LDAP library takes that for the loss of the connection, and would from now on.
            const int success = LDAP_SUCCESS;
            ldap_set_option(ld_.get(), LDAP_OPT_RESULT_CODE, &success);
            return std::nullopt;
        }
        if (kind < 0) {
            // No code of its own: another call of the connection has found it lost before.
            int code = LDAP_SUCCESS;
            ldap_get_option(ld_.get(), LDAP_OPT_RESULT_CODE, &code);
            Error lost = detail::failure(ld_.get(), code == LDAP_SUCCESS ? LDAP_SERVER_DOWN : code,
                                         "monitor_events");
            ld_.reset();
            return lost;
        }
        if (kind > 0) {
            // Whatever it is, with these two exceptions it is the last that comes.
            if (kind != LDAP_RES_SEARCH_ENTRY && kind != LDAP_RES_SEARCH_REFERENCE)
                ld_.reset();
            return detail::refusal(LDAPX_DECODING_ERROR, "the message is no event",
                                   "monitor_events");
        }
        if (Clock::now() >= deadline)
            return std::nullopt;
    }
    return std::nullopt;
}

// SEQUENCE { INTEGER count, SET { SEQUENCE { INTEGER type, ENUMERATED status } ... } }, or nothing
// of the kind. The C function for this response never releases the response's name.
inline Result<std::optional<Event>> EventStream::finish(LDAPMessage *message)
{
    constexpr std::string_view where = "monitor_events";
    const detail::Handle ld = std::move(ld_);
    Result<detail::Answer> answer = detail::read_answer(ld.get(), message, where);
    if (!answer)
        return std::move(answer).error();
    if (answer->name && answer->name.get() != std::string_view(LDAPX_MONITOR_EVENTS_RESPONSE))
        return detail::refusal(LDAPX_DECODING_ERROR, "the response is another operation's",
                               std::string(where));

    StreamEnd end{answer->code, answer->message, {}};
    if (answer->name && answer->value) {
        detail::Reader in(*answer->value);
        in.enter();
        const std::int32_t count = in.number();
        if (in.next_is(LBER_SET)) {
            in.enter();
            if (count < 0 || static_cast<std::uint32_t>(count) > in.unread())
                in.fail();
            for (std::int32_t i = 0; i < count && in.ok(); ++i) {
                in.enter();
                const int type = in.number();
                end.rejected.push_back({type, in.number()});
            }
            if (!in.ok())
                return detail::refusal(LDAPX_DECODING_ERROR,
                                       "the list of rejected events cannot be decoded",
                                       std::string(where));
        }
    }
    end_ = std::move(end);
    if (answer->code != LDAP_SUCCESS)
        return detail::refused(*answer, where);
    return std::nullopt;
}

inline EventStream::Range EventStream::until(Clock::time_point deadline) &
{
    return Range(*this, deadline);
}

inline EventStream::Range EventStream::until_end() &
{
    return Range(*this, Clock::time_point::max());
}

} // namespace greirige
