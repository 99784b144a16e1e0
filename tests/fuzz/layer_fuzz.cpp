// The C++ layer over the library as it is delivered, with its assertions: a message that the server
// sends for an event, or its answer to an operation. No bytes stop the process, the layer takes
// exactly the events that an independent decoder takes, and nothing leaks.

#include "fuzz.h"

#include <array>

#include "greirige.hpp"
#include "support/administration.h"
#include "support/ber.h"
#include "support/events.h"
#include "support/peer.h"

namespace {

using greirige::Session;
using support::Peer;

// ---- Events -------------------------------------------------------------------------------------

void parse_event(std::size_t number, const std::string &fields)
{
    const auto &kinds = support::event_kinds();
    const support::EventKind &kind = kinds[number % kinds.size()];
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
    if (number == rows().size()) {
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

std::vector<std::string> fuzz::seeds()
{
    std::vector<std::string> all;
    for (std::size_t i = 0; i < rows().size(); ++i)
        all.push_back(static_cast<char>(i) + rows()[i].answer);
    all.push_back(static_cast<char>(rows().size()) + copy);
    auto number = static_cast<char>(rows().size() + 1);
    for (const support::EventKind &kind : support::event_kinds()) {
        all.push_back(number + support::full_event(kind).bytes + support::trailer_bytes());
        all.push_back(number + support::least_event(kind).bytes);
        ++number;
    }
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::size_t choices = rows().size() + 1 + support::event_kinds().size();
    const std::size_t number = input.below(choices);
    const std::string rest = input.rest();
    if (number <= rows().size())
        answer(number, rest);
    else
        parse_event(number - rows().size() - 1, rest);
    return 0;
}
