// greirige watch: the server's events, as they come.

#include <charconv>
#include <chrono>
#include <optional>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "commands.h"
#include "event_line.h"
#include "greirige/events.hpp"
#include "signals.h"
#include "text.h"

namespace tool {

namespace {

using namespace std::chrono_literals;
using greirige::Event;
using greirige::EventSpecifier;
using greirige::EventStream;
using greirige::Result;
using Clock = EventStream::Clock;
using Seconds = std::chrono::duration<double>;

constexpr std::chrono::seconds first_delay = 1s;
constexpr std::chrono::seconds longest_delay = 60s;
constexpr double most_seconds = 1e9; // what a --timeout beyond a lifetime stands for

struct Arguments {
    std::vector<std::string> events;
    std::optional<std::string> filter;
    std::optional<long> count;
    std::optional<double> seconds;
    bool reconnect = false;
};

// ---- Specifiers ---------------------------------------------------------------------------------

bool take_number(std::string_view &text, int &number)
{
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(read.ptr - text.data()));
    return read.ec == std::errc();
}

// TYPE or TYPE:STATUS
std::optional<EventSpecifier> parse_specifier(std::string_view text)
{
    EventSpecifier event;
    if (!take_number(text, event.type))
        return std::nullopt;
    if (text.starts_with(':')) {
        text.remove_prefix(1);
        if (!take_number(text, event.status))
            return std::nullopt;
    }
    return text.empty() ? std::optional(event) : std::nullopt;
}

std::string to_text(const std::vector<EventSpecifier> &events)
{
    std::string text;
    for (const auto &[type, status] : events)
        text += (text.empty() ? "" : ", ") + std::to_string(type) +
                (status == 0 ? "" : ':' + std::to_string(status));
    return text;
}

std::vector<EventSpecifier> specifiers(const Arguments &arguments)
{
    std::vector<EventSpecifier> events;
    events.reserve(arguments.events.size());
    for (const std::string &word : arguments.events)
        events.push_back(*parse_specifier(word));
    if (events.empty())
        events.push_back({});
    return events;
}

Operation operation_of(const Arguments &arguments)
{
    const std::vector<EventSpecifier> events = specifiers(arguments);
    Operation operation{.name = "watch",
                        .doing = "watch events of type " + to_text(events),
                        .done = {},
                        .details = {{"events", Json::array()}}};
    for (const EventSpecifier &event : events)
        operation.details["events"].push_back(
            {{"eventType", event.type}, {"eventStatus", event.status}});
    if (arguments.filter) {
        operation.doing += " that match " + in_quotes(*arguments.filter);
        operation.details["filter"] = json_text(*arguments.filter);
    }
    return operation;
}

// ---- Endings ------------------------------------------------------------------------------------

// A server that is too busy, is stopping or has too much to send may be asked again. Other refusals
// would only be repeated.
bool may_pass(int code)
{
    return code < 0 || code == LDAP_SUCCESS || code == LDAP_OPERATIONS_ERROR ||
           code == LDAP_TIMELIMIT_EXCEEDED || code == LDAP_SIZELIMIT_EXCEEDED ||
           code == LDAP_ADMINLIMIT_EXCEEDED || code == LDAP_BUSY || code == LDAP_UNAVAILABLE ||
           code == LDAP_OTHER || code == LDAPX_DECODING_ERROR;
}

// Why a stream has ended.
struct Ending {
    std::string text;
    bool may_come_back = true;
    bool orderly = false; // the server has ended it and has nothing to complain about
};

// A connection that is only listened to does not tell when the other side has vanished without a
// word. Unless ldap.conf says otherwise, it is asked after a minute and given up after two.
void keep_alive(LDAP *ld)
{
    int idle = 0;
    int socket = -1;
    ldap_get_option(ld, LDAP_OPT_X_KEEPALIVE_IDLE, &idle);
    ldap_get_option(ld, LDAP_OPT_DESC, &socket);
    if (idle > 0 || socket < 0)
        return;
    const auto set = [&](int level, int option, int value) {
        setsockopt(socket, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 60);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 15);
    set(IPPROTO_TCP, TCP_KEEPCNT, 4);
}

// ---- The watch ----------------------------------------------------------------------------------

class Watch {
public:
    Watch(Tool &tool, const Arguments &arguments)
        : tool_(tool), arguments_(arguments), operation_(operation_of(arguments)),
          lines_(tool.output.json())
    {
    }

    ExitStatus run();

private:
    void begin();
    ExitStatus follow();
    bool over() const;
    ExitStatus status() const;

    Result<EventStream> open_stream();
    Result<void> wait_for_an_answer();
    Ending ending(const Result<std::optional<Event>> &last);
    void come_back(std::string why);
    void pause_until(Clock::time_point end);
    void close_gap(Time now);

    Tool &tool_;
    const Arguments &arguments_;
    Operation operation_;
    EventLines lines_;

    std::optional<EventStream> stream_;
    Clock::time_point deadline_ = Clock::time_point::max();
    Clock::time_point opened_; // the stream
    Time seen_;                // the last that is certain not to be missing
    long count_ = 0;           // of the events shown

    struct Gap {
        Time from;
        std::string reason;
    };
    std::optional<Gap> gap_; // to be told
    std::chrono::seconds delay_ = first_delay;
};

ExitStatus Watch::run()
{
    if (!tool_.begin(operation_))
        return ExitStatus::done;
    begin();
    try {
        const ExitStatus status = follow();
        close_gap(Time::clock::now());
        return status;
    } catch (const ReaderGone &) {
        return ExitStatus::done;
    } catch (const Interrupted &) {
        close_gap(Time::clock::now());
        throw Interrupted{.reported = true};
    } catch (const Failure &) {
        close_gap(Time::clock::now());
        throw;
    }
}

void Watch::begin()
{
    if (arguments_.reconnect)
        tool_.prepare_to_reconnect();
    tool_.ld();
    stream_ = tool_.value(operation_, open_stream());
    Tool::handle_signals_itself();
    if (arguments_.seconds)
        deadline_ = opened_ + std::chrono::ceil<Clock::duration>(
                                  Seconds(std::min(*arguments_.seconds, most_seconds)));
    seen_ = Time::clock::now();
    tool_.say("registered to " + operation_.doing + " on " + tool_.server());
}

ExitStatus Watch::follow()
{
    while (!over()) {
        leave_if_interrupted();
        const Clock::time_point now = Clock::now();
        const auto next = stream_->next(gap_ ? now : std::min(deadline_, now + 1s));
        const Time received = Time::clock::now();
        if (stream_->ended()) {
            const Ending end = ending(next);
            if (arguments_.reconnect && end.may_come_back) {
                come_back(end.text);
                continue;
            }
            if (!end.orderly)
                throw Failure(ExitStatus::failed, end.text);
            complain(end.text);
            break;
        }
        close_gap(seen_);
        if (!next) {
            tool_.output.line(lines_.undecodable(next.error(), received));
            seen_ = received;
        } else if (*next) {
            tool_.output.line(lines_.event(**next, received));
            seen_ = received;
            ++count_;
            delay_ = first_delay;
        } else if (tool_.output.reader_is_gone()) {
            throw ReaderGone();
        }
    }
    return status();
}

bool Watch::over() const
{
    return (arguments_.count && count_ >= *arguments_.count) || Clock::now() >= deadline_;
}

ExitStatus Watch::status() const
{
    if (!arguments_.count || count_ >= *arguments_.count)
        return ExitStatus::done;
    complain(std::to_string(count_) + " of " + counted(*arguments_.count, "event") + " came");
    return count_ == 0 ? ExitStatus::failed : ExitStatus::done_in_part;
}

Result<EventStream> Watch::open_stream()
{
    keep_alive(tool_.ld());
    opened_ = Clock::now();
    const std::vector<EventSpecifier> events = specifiers(arguments_);
    if (!arguments_.filter)
        return EventStream::open(tool_.session(), events);
    std::vector<greirige::FilteredEventSpecifier> filtered;
    filtered.reserve(events.size());
    for (const auto &[type, status] : events)
        filtered.push_back({type, status, *arguments_.filter});
    return EventStream::open_filtered(tool_.session(), filtered);
}

// Any answer to a later request tells that the registration has arrived.
Result<void> Watch::wait_for_an_answer()
{
    LDAP *ld = tool_.ld();
    std::string no_attributes = LDAP_NO_ATTRS;
    char *attributes[] = {no_attributes.data(), nullptr};
    LDAPMessage *entries = nullptr;
    const int code = ldap_search_ext_s(ld, "", LDAP_SCOPE_BASE, nullptr, attributes, 0, nullptr,
                                       nullptr, nullptr, LDAP_NO_LIMIT, &entries);
    ldap_msgfree(entries);
    if (code < 0)
        return greirige::Error{code, ldapx_err2string(code), "search"};
    return {};
}

Ending Watch::ending(const Result<std::optional<Event>> &last)
{
    const std::optional<greirige::StreamEnd> &end = stream_->end_of_stream();
    if (!end)
        return {"the watch on " + tool_.server() +
                " is broken: " + describe(tool_.ld(), last.error())};

    std::string text = "the server " + tool_.server() + " has ended the watch";
    if (!last)
        text = (count_ == 0 ? "cannot " + operation_.doing + " on " + tool_.server() : text) +
               ": " + describe(tool_.ld(), last.error());
    else if (!end->message.empty())
        text += ": it says " + in_quotes(end->message);
    if (!end->rejected.empty())
        text += "; it rejects the events " + to_text(end->rejected);
    return {text, end->rejected.empty() && may_pass(end->code), last && end->rejected.empty()};
}

// Makes a new connection and a new registration, as often as it takes.
void Watch::come_back(std::string why)
{
    if (Clock::now() - opened_ >= longest_delay)
        delay_ = first_delay;
    if (!gap_)
        gap_ = Gap{seen_, why};
    while (!over()) {
        complain(why + "; trying again in " + counted(delay_.count(), "second"));
        pause_until(Clock::now() + delay_);
        if (over())
            return;
        delay_ = std::min(2 * delay_, longest_delay);
        const auto left = std::chrono::ceil<std::chrono::seconds>(deadline_ - Clock::now());
        stream_.reset(); // before the session that it belongs to
        Result<void> answered;
        try {
            tool_.reconnect(arguments_.seconds ? std::optional<long>(left.count()) : std::nullopt);
            stream_ = tool_.value(operation_, open_stream());
            answered = wait_for_an_answer();
            if (!answered && answered.error().code == LDAP_TIMEOUT)
                tool_.check(operation_, answered);
        } catch (const ConnectFailure &failure) {
            if (failure.final)
                throw;
            why = failure.what();
            continue;
        } catch (const Failure &failure) {
            why = failure.what();
            continue;
        }
        Tool::handle_signals_itself();
        seen_ = Time::clock::now();
        if (answered) // else the stream may hold events all the same, before its end
            complain("watching again on " + tool_.server());
        return;
    }
}

void Watch::pause_until(Clock::time_point end)
{
    end = std::min(end, deadline_);
    for (auto now = Clock::now(); now < end; now = Clock::now()) {
        pause_for(
            std::chrono::ceil<std::chrono::milliseconds>(std::min<Clock::duration>(end - now, 1s)));
        leave_if_interrupted();
        if (tool_.output.reader_is_gone())
            throw ReaderGone();
    }
}

void Watch::close_gap(Time now)
{
    if (const auto gap = std::exchange(gap_, std::nullopt))
        tool_.output.line(lines_.gap(gap->from, now, gap->reason));
}

// ---- The command line ---------------------------------------------------------------------------

std::string fault_of_specifier(const std::string &text)
{
    if (parse_specifier(text))
        return {};
    return in_quotes(text) + " is not TYPE or TYPE:STATUS, the server's numbers, such as 1 or 1:2";
}

std::string fault_of_filter(const std::string &text)
{
    return is_utf8(text) ? std::string() : "is not UTF-8: " + printable(text);
}

template <class Number>
std::string fault_of_limit(const std::string &text)
{
    Number number{};
    if (!CLI::detail::lexical_cast(text, number) || number > 0)
        return {}; // the parser tells what is no number
    return in_quotes(text) + " is not above 0";
}

} // namespace

void add_watch_command(CommandLine &line)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command =
        line.command("watch", "Show the server's events as they come, one on a line",
                     "greirige watch 1 2 100:2 --reconnect",
                     [arguments](Tool &tool) { return Watch(tool, *arguments).run(); });
    command
        .add_option("TYPE[:STATUS]", arguments->events,
                    "Types of event and which of them, as the server numbers both; STATUS is 0 if "
                    "not given, and without any TYPE it is 0 too: every event, for the sandbox")
        ->type_name("")
        ->check(CLI::Validator(fault_of_specifier, ""));
    command
        .add_option("--filter", arguments->filter,
                    "Only events that match TEXT, which the server interprets")
        ->type_name("TEXT")
        ->check(CLI::Validator(fault_of_filter, ""));
    command.add_option("--count", arguments->count, "End after N events")
        ->type_name("N")
        ->check(CLI::Validator(fault_of_limit<long>, ""));
    command
        .add_option("--timeout", arguments->seconds,
                    "End after S seconds in all; with --count, too few events are a failure then")
        ->type_name("S")
        ->check(CLI::Validator(fault_of_limit<double>, ""));
    command.add_flag("--reconnect", arguments->reconnect,
                     "When the connection is lost, come back and tell what may be missing");
}

} // namespace tool
