// The C++ layer over the library as it is delivered, with its assertions: a message that the server
// sends for an event, or its answer to an operation. No bytes stop the process, the layer takes
// exactly the events that an independent decoder takes and the lists of rejected events that the C
// interface takes, what it tells of a bulk load fits together, and nothing leaks.

#include "fuzz.h"

#include <chrono>
#include <optional>

#include "greirige.hpp"
#include "support/administration.h"
#include "support/ber.h"
#include "support/events.h"
#include "support/peer.h"
#include "support/response.h"
#include "support/stated_leak.h"

namespace {

using greirige::Session;
using support::Peer;

// ---- Events -------------------------------------------------------------------------------------

void parse_event(std::size_t number, const std::string &fields)
{
    const auto &kinds = support::event_kinds();
    const support::EventKind &kind = kinds[number];
    const support::Verdict expected = support::expected_verdict(kind, fields, true);
    const bool good = expected.code == LDAP_SUCCESS && expected.assertion.empty();

    Peer peer;
    int id = 0;
    fuzz::require(ldap_extended_operation(peer.ld(), "1.2.3", nullptr, nullptr, nullptr, &id) ==
                  LDAP_SUCCESS);
    peer.respond_intermediate(LDAPX_EVENT_NOTIFICATION,
                              support::notification(1, 2, kind.tag, fields), id);
    const support::Message message = peer.result(id);
    const auto event = greirige::parse_event(Session(peer.ld()), message.get());
    fuzz::require(event.has_value() == good, "what the layer takes");
    if (!event) {
        fuzz::require(event.error().code == LDAPX_DECODING_ERROR, "what the layer says");
        return;
    }
    fuzz::require(event->type() == 1 && event->result() == 2, "an event's type and result");
    fuzz::require(event->tag() == static_cast<greirige::EventTag>(kind.tag), "an event's tag");
    fuzz::require(event->address().has_value() == (expected.trailer != "none"), "a trailer");
}

// ---- The ends of an event stream and of a batch
// --------------------------------------------------

// As the C interface reads it; nothing where it does not.
std::optional<std::vector<greirige::EventSpecifier>> rejected(const std::string &value)
{
    const support::StatedLeak name; // is not released
    const support::Collected response({.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = value});
    int result = 0, count = 0;
    EVT_EventSpecifier *events = nullptr;
    if (ldap_parse_monitor_events_response(response.ld(), response.message(), &result, nullptr,
                                           &count, &events, 0) != LDAP_SUCCESS)
        return std::nullopt;
    std::vector<greirige::EventSpecifier> list;
    for (int i = 0; i < count; ++i)
        list.push_back({events[i].eventType, events[i].eventStatus});
    ldapx_memfree(events);
    return list;
}

void end_stream(const std::string &value)
{
    const auto expected = rejected(value);
    Peer peer;
    auto stream = greirige::EventStream::open(Session(peer.ld()), {{1, 0}});
    fuzz::require(stream.has_value(), "a registration");
    peer.respond({.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = value});
    const auto event = stream->next(std::chrono::seconds(5));
    fuzz::require(stream->ended(), "the end of a stream");
    fuzz::require(event.has_value() == expected.has_value(), "a list that the layer takes");
    if (expected)
        fuzz::require(stream->end_of_stream()->rejected == *expected, "the rejected events");
}

void answer_batch(const std::string &value)
{
    Peer peer;
    peer.respond(
        {.name = LDAPX_LBURP_START_RESPONSE, .value = support::sequence(support::integer(10))});
    peer.respond({.code = LDAP_OTHER, .name = LDAPX_LBURP_OPERATION_RESPONSE, .value = value});
    peer.respond({.name = LDAPX_LBURP_END_RESPONSE});
    peer.finish();
    std::uint64_t failures = 0;
    auto load =
        greirige::BulkLoad::start(Session(peer.ld()), [&](const greirige::BulkFailure &failure) {
            ++failures;
            fuzz::require(!failure.number || *failure.number < 3, "an update of the load");
            fuzz::require(failure.error.code != LDAP_SUCCESS, "why an update failed");
        });
    fuzz::require(load.has_value(), "the start of a load");
    for (const char *dn : {"o=a", "o=b", "o=c"})
        fuzz::require(load->submit(greirige::DeleteEntry{dn}).has_value(), "an update");
    const auto summary = load->finish();
    const greirige::BulkSummary progress = load->progress();
    fuzz::require(progress.submitted == 3 && progress.answered <= 3 && progress.failed == failures,
                  "how far a load came");
    fuzz::require(!summary || *summary == progress, "the summary of a load");
}

// ---- Answers ------------------------------------------------------------------------------------

const greirige::Server server("cn=srv");
const greirige::Password password("pw");

template <class T>
bool good(const greirige::Result<T> &result)
{
    fuzz::require(result || result.error().code != LDAP_SUCCESS, "an error without a code");
    return result.has_value();
}

struct Row {
    int response; // its number
    std::string answer;
    bool (*call)(const Session &session);
};

const std::vector<Row> &rows()
{
    using namespace support;
    static const std::vector<Row> all = {
        {14, integer(42),
         [](const Session &session) {
             return good(session.partition_entry_count("o=x"));
         }},
        {18, operation("ldap_get_replica_info").answer.value(),
         [](const Session &session) {
             return good(session.replica_info("o=x", server));
         }},
        {20, operation("ldap_list_replicas").answer.value(),
         [](const Session &session) {
             return good(session.list_replicas(server));
         }},
        {38, operation("ldap_get_replication_filter").answer.value(),
         [](const Session &session) {
             return good(session.replication_filter(server));
         }},
        {38, operation("ldap_get_replication_filter").answer.value(),
         [](const Session &session) {
             return good(session.replication_filter_text(server));
         }},
        {32, octets("cn=admin,o=x"),
         [](const Session &session) {
             return good(session.bind_dn());
         }},
        {34, integer(-19),
         [](const Session &session) {
             return good(session.effective_privileges("o=x", greirige::Subject("cn=a"), "cn"));
         }},
        {104, operation("ldap_get_effective_privileges_list").answer.value(),
         [](const Session &session) {
             const auto rights =
                 session.effective_privileges_list("o=x", greirige::Subject("cn=a"), {"cn", "sn"});
             fuzz::require(!rights || rights->size() == 2, "one number for each attribute");
             return good(rights);
         }},
        {2, octets("cn=native"),
         [](const Session &session) {
             return good(session.dn_from_native(u"a.b"));
         }},
        {102, octets("dc=x"),
         [](const Session &session) {
             return good(session.dn_from_dns("x.example"));
         }},
    };
    return all;
}

const std::string copy = support::concat(
    support::integer(4), support::integer(11), support::integer(12), support::octets("data"),
    support::sequence(support::integer(2), support::set(support::sequence(support::integer(3)),
                                                        support::sequence(support::integer(1)))));

void answer(std::size_t number, const std::string &value)
{
    Peer peer;
    if (number == rows().size()) { // a backup
        // The largest block that can be made, and whose copy is one byte larger: see fuzz.cpp.
        if (value.find(std::string("\4\0\0\0", 4)) != std::string::npos)
            return;
        peer.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = value});
        peer.finish();
        const auto backup = Session(peer.ld()).backup_object("o=x", password);
        good(backup);
        return;
    }
    const Row &row = rows()[number];
    peer.respond({.name = support::admin_name(row.response), .value = value});
    peer.finish();
    const bool taken = row.call(Session(peer.ld()));
    fuzz::require(taken || value != row.answer, "the answer of the table");
}

} // namespace

// The choices of an input's first byte: the rows, a backup, the ends, the kinds of events.
const std::size_t backup_choice = rows().size();
const std::size_t stream_choice = backup_choice + 1;
const std::size_t batch_choice = stream_choice + 1;
const std::size_t event_choice = batch_choice + 1;
const std::size_t choices = event_choice + support::event_kinds().size();

std::vector<std::string> fuzz::seeds()
{
    using namespace support;
    const auto failed = [](int number, const std::string &text) {
        return sequence(integer(number), sequence(integer(68), octets("o=a"), octets(text)));
    };
    const auto seed = [](std::size_t choice, const std::string &bytes) {
        return static_cast<char>(choice) + bytes;
    };
    std::vector<std::string> all;
    for (std::size_t i = 0; i < rows().size(); ++i)
        all.push_back(seed(i, rows()[i].answer));
    all.push_back(seed(backup_choice, copy));
    all.push_back(seed(stream_choice,
                       sequence(integer(2), support::set(sequence(integer(1), enumerated(0)),
                                                         sequence(integer(77), enumerated(2))))));
    all.push_back(seed(batch_choice, failed(1, "there already") + failed(3, "")));
    std::size_t choice = event_choice;
    for (const EventKind &kind : event_kinds()) {
        all.push_back(seed(choice, full_event(kind).bytes + trailer_bytes()));
        all.push_back(seed(choice, least_event(kind).bytes));
        ++choice;
    }
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::size_t choice = input.below(choices);
    const std::string rest = input.rest();
    if (choice >= event_choice)
        parse_event(choice - event_choice, rest);
    else if (choice == batch_choice)
        answer_batch(rest);
    else if (choice == stream_choice)
        end_stream(rest);
    else
        answer(choice, rest);
    return 0;
}
