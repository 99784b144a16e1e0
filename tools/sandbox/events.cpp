#include "events.h"

#include "event_samples.h"
#include "traffic.h"

#include "ldapx.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace sandbox {

namespace {

// What an event costs in a queue beside its bytes.
constexpr std::size_t overhead = 64;
// Diagnostics name so many of the specifiers that were rejected; the list has all of them.
constexpr std::size_t most_reasons = 5;

} // namespace

struct Events::Specifier {
    int type = 0;
    int status = 0;
    std::string filter;
};

struct Events::Monitor {
    // What is asked about the events of one type with one kind of result.
    struct Wish {
        bool unconditional = false;
        std::vector<EventFilter> filters;

        bool exists() const
        {
            return unconditional || !filters.empty();
        }
        bool covers(const Event &event) const
        {
            return unconditional ||
                   std::any_of(filters.begin(), filters.end(),
                               [&](const EventFilter &filter) { return filter.matches(event); });
        }
        void add(const EventFilter &filter, bool is_empty)
        {
            if (is_empty)
                unconditional = true;
            else
                filters.push_back(filter);
        }
    };

    std::shared_ptr<Call> call;
    std::size_t specifiers = 0;
    std::map<std::pair<int, bool>, Wish> wishes{}; // by type, and whether it is about successes
    std::deque<std::shared_ptr<const std::string>> queue{};
    std::size_t queued = 0;
    std::size_t lost = 0; // events since the queue was full

    bool wants(const Event &event, int type) const
    {
        const auto found = wishes.find({type, is_success(event.result)});
        return found != wishes.end() && found->second.covers(event);
    }
};

Events::Events(asio::io_context &loop, const EventOptions &options) : loop_(loop), options_(options)
{
}

void Events::offer(Operations &operations)
{
    operations.add({LDAPX_MONITOR_EVENTS_REQUEST, LDAPX_MONITOR_EVENTS_RESPONSE, "monitor events",
                    [this](std::shared_ptr<Call> call) {
                        start(std::move(call), false);
                    }});
    operations.add({LDAPX_MONITOR_EVENTS_FILTERED_REQUEST, LDAPX_MONITOR_EVENTS_RESPONSE,
                    "monitor events with filters", [this](std::shared_ptr<Call> call) {
                        start(std::move(call), true);
                    }});
}

// ---- Registration -------------------------------------------------------------------------------

// SEQUENCE { INTEGER count, SET { SEQUENCE { INTEGER type, ENUMERATED status [, OCTET STRING
// filter] } ... } }.
void Events::start(std::shared_ptr<Call> call, bool filtered)
{
    ber::Reader value = call->value();
    ber::Reader request = value.enter(ber::sequence_tag);
    value.finish();
    const int count = request.integer();
    ber::Reader set = request.enter(ber::set_tag);
    request.finish();
    std::vector<Specifier> specifiers;
    while (!set.at_end()) {
        ber::Reader specifier = set.enter(ber::sequence_tag);
        specifiers.push_back({specifier.integer(), specifier.integer(ber::enumerated_tag),
                              filtered ? specifier.text() : std::string()});
        specifier.finish();
    }
    if (count <= 0 || static_cast<std::size_t>(count) != specifiers.size())
        throw ber::Malformed("a count of " + std::to_string(count) + " with " +
                             std::to_string(specifiers.size()) + " specifiers");
    if (call->identity().empty())
        return call->answer({LDAP_INSUFFICIENT_ACCESS,
                             call->operation().title + " is not for anonymous clients: bind first",
                             {}});
    admit(std::move(call), specifiers);
}

void Events::admit(std::shared_ptr<Call> call, const std::vector<Specifier> &specifiers)
{
    const auto monitor = std::make_shared<Monitor>(Monitor{call, specifiers.size()});
    std::string rejected;
    std::size_t rejections = 0;
    std::string reasons;
    for (const Specifier &specifier : specifiers) {
        try {
            const EventKind *kind = find_event_kind(specifier.type);
            if (kind == nullptr && specifier.type != any_event)
                throw EventFilter::Malformed("no such event type");
            if (specifier.status < any_result || specifier.status > failures_only)
                throw EventFilter::Malformed("no such status " + std::to_string(specifier.status));
            const EventFilter filter(specifier.filter);
            const auto wish = [&](int type, bool success) {
                monitor->wishes[{type, success}].add(filter, specifier.filter.empty());
            };
            if (specifier.status != failures_only)
                wish(specifier.type, true);
            if (specifier.status != successes_only)
                wish(specifier.type, false);
        } catch (const EventFilter::Malformed &error) {
            rejected +=
                ber::sequence(ber::integer(specifier.type), ber::enumerated(specifier.status));
            if (++rejections <= most_reasons)
                reasons += (reasons.empty() ? "event " : "; event ") +
                           std::to_string(specifier.type) + ": " + error.what();
        }
    }
    if (rejections > 0) {
        if (rejections > most_reasons)
            reasons += "; and " + std::to_string(rejections - most_reasons) + " more";
        return call->answer({LDAP_UNWILLING_TO_PERFORM, reasons, {}},
                            ber::sequence(ber::integer(static_cast<std::int64_t>(rejections)),
                                          ber::element(ber::set_tag, rejected)));
    }
    call->on_stop([this, weak = std::weak_ptr(monitor)] {
        if (const auto self = weak.lock())
            forget(self);
    });
    call->on_room([this, weak = std::weak_ptr(monitor)] {
        if (const auto self = weak.lock())
            flush(*self);
    });
    monitors_.push_back(monitor);
    count_wishes();
    tell(monitor_started, *monitor);
    if (options_.samples)
        send_samples(monitor);
}

// The types that were asked for by name, and with "any" the others that it stands for.
void Events::count_wishes()
{
    wishes_ = {};
    for (const auto &monitor : monitors_) {
        for (const auto &[key, wish] : monitor->wishes) {
            const auto &[type, success] = key;
            for (const EventKind &kind : event_kinds)
                if (kind.type == type || (type == any_event && !kind.on_request))
                    wishes_.at(static_cast<std::size_t>(kind.type)).at(success) = true;
        }
    }
}

void Events::forget(const std::shared_ptr<Monitor> &monitor)
{
    monitors_.remove(monitor);
    count_wishes();
    tell(monitor_ended, *monitor);
}

void Events::tell(EventType type, const Monitor &monitor)
{
    if (!are_wanted(type, LDAP_SUCCESS))
        return;
    const Call &call = *monitor.call;
    const auto now = static_cast<std::uint32_t>(std::time(nullptr));
    GeneralRecord general;
    general.time = now;
    general.perpetrator = call.identity();
    general.integers = {call.client().number, static_cast<std::uint32_t>(call.id()),
                        static_cast<std::uint32_t>(monitor.specifiers)};
    general.strings = {call.client().address};
    publish(
        {type, LDAP_SUCCESS, encode_general(type, general), call.behalf().client, call.identity()});
}

// ---- Delivery -----------------------------------------------------------------------------------

bool Events::are_wanted(EventType type, int result) const
{
    return wishes_.at(static_cast<std::size_t>(type)).at(is_success(result));
}

void Events::publish(const Event &event)
{
    if (line_.empty() || is_telling_)
        return publish_now(event);
    fill(reserve(), [this, event] { publish_now(event); });
}

Events::Place Events::reserve()
{
    return line_.emplace_back(std::make_shared<std::function<void()>>());
}

void Events::fill(const Place &place, std::function<void()> tell)
{
    *place = std::move(tell);
    is_telling_ = true;
    while (!line_.empty() && *line_.front()) {
        const Place first = std::move(line_.front());
        line_.pop_front();
        (*first)();
    }
    is_telling_ = false;
}

void Events::publish_now(const Event &event)
{
    const bool by_any = !find_event_kind(event.type)->on_request;
    std::shared_ptr<const std::string> bytes;
    for (const auto &monitor : monitors_) {
        if (!monitor->wants(event, event.type) && !(by_any && monitor->wants(event, any_event)))
            continue;
        if (!bytes)
            bytes =
                std::make_shared<const std::string>(encode_event(event, options_.with_addresses));
        deliver(monitor, bytes);
    }
}

// Here "any" stands for every type.
void Events::send_samples(const std::shared_ptr<Monitor> &monitor)
{
    for (const Event &event : sample_events(monitor->call->behalf().client))
        if (monitor->wants(event, event.type) || monitor->wants(event, any_event))
            deliver(monitor, std::make_shared<const std::string>(
                                 encode_event(event, options_.with_addresses)));
}

// At once when the client takes it; otherwise it waits. An empty queue takes any event, or one
// that is larger than the limit could never be delivered.
void Events::deliver(const std::shared_ptr<Monitor> &monitor,
                     const std::shared_ptr<const std::string> &bytes)
{
    const std::size_t cost = bytes->size() + overhead;
    if (monitor->lost > 0 || (!monitor->queue.empty() && monitor->queued + cost > options_.queue)) {
        // Not dropped here: the answer to its request is an event itself.
        if (monitor->lost++ == 0)
            asio::post(loop_, [this, monitor] { drop(monitor); });
        return;
    }
    monitor->queue.push_back(bytes);
    monitor->queued += cost;
    flush(*monitor);
}

void Events::flush(Monitor &monitor)
{
    while (!monitor.queue.empty() && monitor.call->has_room()) {
        const std::shared_ptr<const std::string> bytes = std::move(monitor.queue.front());
        monitor.queue.pop_front();
        monitor.queued -= bytes->size() + overhead;
        monitor.call->notify(LDAPX_EVENT_NOTIFICATION, *bytes);
    }
}

void Events::drop(const std::shared_ptr<Monitor> &monitor)
{
    if (std::find(monitors_.begin(), monitors_.end(), monitor) == monitors_.end())
        return; // it has left meanwhile
    const std::size_t lost = std::exchange(monitor->queue, {}).size() + monitor->lost;
    forget(monitor);
    monitor->call->answer({LDAP_ADMINLIMIT_EXCEEDED,
                           "the monitor does not read: more than " +
                               std::to_string(options_.queue) + " bytes were waiting for it, and " +
                               std::to_string(lost) + " events are lost",
                           {}});
}

void Events::close()
{
    for (const auto &monitor : std::exchange(monitors_, {})) {
        for (const auto &bytes : std::exchange(monitor->queue, {}))
            monitor->call->notify(LDAPX_EVENT_NOTIFICATION, *bytes);
        monitor->call->answer({LDAP_UNAVAILABLE, "the sandbox is stopping", {}});
    }
    count_wishes();
}

} // namespace sandbox
