// The C++ layer and memory: every single allocation may fail, in the layer (std::bad_alloc), in the
// library or in libldap, and nothing is lost; and a long load takes no more of it than a short one.

#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bare_exchange.h"
#include "greirige.hpp"
#include "support/ber.h"
#include "support/memory.h"
#include "support/peer.h"

using namespace greirige;
using namespace support;
using std::string;

namespace {

constexpr int wrong_value = 7777;
constexpr int bad_alloc = -7777;

template <class T>
int code_of(const Result<T> &result, const T &expected)
{
    return !result ? result.error().code : *result == expected ? LDAP_SUCCESS : wrong_value;
}

// Longer than what a std::string holds in itself.
const string dn = "cn=an entry with a long name,ou=partition,o=example";
const string server = "cn=a server with a long name,o=example";

struct Row {
    string name;
    std::function<void(Peer &)> answer;
    std::function<int(LDAP *)> call; // LDAP_SUCCESS with the right value, or the error's code
    // What the library itself leaves behind when it lacks memory, in one block each.
    std::size_t lost_by_the_library = 0;
    bool refused = false;
};

string one_event(const string &fields, ber_tag_t tag)
{
    return sequence(integer(1), integer(2), element(tag, fields));
}

int first_event(LDAP *ld, const std::function<bool(const Event &)> &right)
{
    Result<EventStream> stream = EventStream::open(Session(ld), {{1, 2}});
    if (!stream)
        return stream.error().code;
    Result<std::optional<Event>> event = stream->next();
    if (!event)
        return event.error().code;
    return *event && right(**event) ? LDAP_SUCCESS : wrong_value;
}

int load_two(LDAP *ld)
{
    std::uint64_t tag = 0;
    Result<BulkLoad> load =
        BulkLoad::start(Session(ld), [&](const BulkFailure &failure) { tag = failure.tag; });
    if (!load)
        return load.error().code;
    const Update add = AddEntry{dn, {{"objectClass", {"top", "person"}}}, {{"1.2.3", true, "v"}}};
    const Update rename = RenameEntry{dn, "cn=b", true, server};
    std::uint64_t line = 0;
    for (const Update *update : {&add, &rename})
        if (Result<void> taken = load->submit(*update, ++line); !taken)
            return taken.error().code;
    Result<BulkSummary> summary = load->finish();
    if (!summary)
        return summary.error().code;
    return *summary == BulkSummary{2, 2, 1, 1} && tag == 2 ? LDAP_SUCCESS : wrong_value;
}

const std::vector<Row> &rows()
{
    static const std::vector<Row> table{
        {"replica_info",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_GET_REPLICA_INFO_RESPONSE,
                           .value = concat(integer(1), integer(2), integer(3), integer(4),
                                           integer(5), octets(dn), integer(1), integer(6))});
         },
         [](LDAP *ld) {
             return code_of(Session(ld).replica_info(dn, Server(server)),
                            {1, 2, 3, 4, 5, dn, ReplicaType::secondary, 6});
         }},
        {"list_replicas",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_LIST_REPLICAS_RESPONSE,
                           .value = sequence(octets(dn), octets(server))});
         },
         [](LDAP *ld) {
             return code_of(Session(ld).list_replicas(Server(server)), {dn, server});
         }},
        {"replication_filter",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_GET_REPLICATION_FILTER_RESPONSE,
                           .value = sequence(sequence(octets(dn), sequence(octets(server))))});
         },
         [](LDAP *ld) {
             return code_of(Session(ld).replication_filter(Server(server)), {{dn, {server}}});
         }},
        {"bind_dn",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_GET_BIND_DN_RESPONSE, .value = octets(dn)});
         },
         [](LDAP *ld) {
             return code_of(Session(ld).bind_dn(), dn);
         }},
        {"effective_privileges_list",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE,
                           .value = sequence(sequence(integer(1)), set(sequence(integer(6))))});
         },
         [](LDAP *ld) {
             return code_of(Session(ld).effective_privileges_list(dn, Subject(server), {"sn"}),
                            {{"sn", 6}});
         }},
        // The library loses a chunk list that cannot grow.
        {"backup_object",
         [](Peer &peer) {
             peer.respond(
                 {.name = LDAPX_BACKUP_OBJECT_RESPONSE,
                  .value = concat(integer(static_cast<int>(dn.size())), integer(8), integer(9),
                                  octets(dn), sequence(integer(1), set(sequence(integer(5)))))});
         },
         [](LDAP *ld) {
             return code_of(Session(ld).backup_object(dn, Password(server), "7+8"),
                            {"8+9", dn, {5}});
         },
         1},
        {"restore_object",
         [](Peer &peer) { peer.respond({.name = LDAPX_RESTORE_OBJECT_RESPONSE}); },
         [](LDAP *ld) {
             const Result<void> done =
                 Session(ld).restore_object(dn, Password(server), {"8+9", dn, {5}});
             return done ? LDAP_SUCCESS : done.error().code;
         }},
        {"a_refusal",
         [](Peer &peer) {
             peer.respond({.code = LDAP_NO_SUCH_OBJECT, .diagnostic = dn, .matched_dn = server});
         },
         [](LDAP *ld) {
             const Result<void> done = Session(ld).split_partition(dn);
             return done ? wrong_value : done.error().code;
         },
         0, true},
        {"an_event",
         [](Peer &peer) {
             peer.respond_intermediate(
                 LDAPX_EVENT_NOTIFICATION,
                 one_event(concat(sequence(integer(1), integer(2), octets(server)), integer(3),
                                  integer(4), octets(dn), octets(dn), integer(5), octets("(cn=*)"),
                                  integer(0),
                                  sequence(sequence(octets("cn")), sequence(octets("sn")))),
                           EVT_TAG_SEARCH),
                 1);
         },
         [](LDAP *ld) {
             return first_event(ld, [](const Event &event) {
                 const auto *search = event.get_if<SearchEvent>();
                 return search && search->base == dn && search->attributes.size() == 2;
             });
         }},
        // The library's own release of a referral list leaves its first address.
        {"an_event_with_referrals",
         [](Peer &peer) {
             peer.respond_intermediate(
                 LDAPX_EVENT_NOTIFICATION,
                 one_event(
                     concat(octets(dn), integer(3), octets(dn),
                            sequence(integer(2), sequence(sequence(integer(1), octets(dn)),
                                                          sequence(integer(2), octets(server))))),
                     EVT_TAG_SEV_INFO),
                 1);
         },
         [](LDAP *ld) {
             return first_event(ld, [](const Event &event) {
                 const auto *seen = event.get_if<ServerToServerEvent>();
                 return seen && seen->referrals.size() == 2;
             });
         },
         1},
        {"the_end_of_a_stream",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_MONITOR_EVENTS_RESPONSE,
                           .value = sequence(integer(1), set(sequence(integer(7), enumerated(8)))),
                           .diagnostic = dn});
         },
         [](LDAP *ld) {
             Result<EventStream> stream = EventStream::open(Session(ld), {{1, 2}});
             if (!stream)
                 return stream.error().code;
             Result<std::optional<Event>> event = stream->next();
             if (!event)
                 return event.error().code;
             return stream->end_of_stream() && stream->end_of_stream()->rejected.size() == 1
                        ? LDAP_SUCCESS
                        : wrong_value;
         }},
        {"a_load",
         [](Peer &peer) {
             peer.respond({.name = LDAPX_LBURP_START_RESPONSE});
             peer.respond({.name = LDAPX_LBURP_OPERATION_RESPONSE,
                           .value = sequence(
                               integer(2), sequence(enumerated(68), octets(server), octets(dn)))});
             peer.respond({.name = LDAPX_LBURP_END_RESPONSE});
         },
         load_two},
    };
    return table;
}

void PrintTo(const Row &row, std::ostream *stream)
{
    *stream << row.name;
}

class WithoutMemory : public testing::TestWithParam<Row> {};
INSTANTIATE_TEST_SUITE_P(, WithoutMemory, testing::ValuesIn(rows()),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(WithoutMemory, it_fails_whole_and_loses_nothing)
{
    const Row &row = GetParam();
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const std::vector<Outcome> outcomes = sweep(mode, [&](Step &step) {
            Peer peer;
            row.answer(peer);
            peer.finish(); // a lost response must not be waited for
            step.run([&] {
                try {
                    return row.call(peer.ld());
                } catch (const std::bad_alloc &) {
                    return bad_alloc;
                }
            });
        });
        std::size_t lost = 0;
        int thrown = 0;
        for (const Outcome &outcome : outcomes) {
            EXPECT_NE(outcome.rc, wrong_value) << outcome;
            thrown += outcome.rc == bad_alloc;
            if (is_libldap_failure(outcome))
                continue;
            EXPECT_EQ(outcome.died, "") << outcome;
            lost += outcome.lost;
        }
        EXPECT_EQ(lost, row.lost_by_the_library);
        EXPECT_GT(thrown, 0);
        EXPECT_EQ(outcomes.back().rc, row.refused ? LDAP_NO_SUCH_OBJECT : LDAP_SUCCESS);
        EXPECT_EQ(outcomes.back().lost, 0u);
    }
}

TEST(Memory, of_a_long_load_is_that_of_a_short_one)
{
    const auto kept_after = [](int batches) {
        Peer peer;
        peer.read_ahead();
        peer.respond({.name = LDAPX_LBURP_START_RESPONSE});
        for (int i = 0; i < batches; ++i)
            peer.respond(
                {.name = LDAPX_LBURP_OPERATION_RESPONSE,
                 .value = sequence(integer(1), sequence(enumerated(32), octets(""), octets(dn)))});
        BulkLoad load =
            BulkLoad::start(Session(peer.ld()), nullptr, {.operations = 10, .window = 3}).value();
        const Update update = AddEntry{dn, {{"description", {server}}}};
        const Usage usage = measure([&] {
            for (int i = 0; i < 10 * batches; ++i)
                if (!load.submit(update))
                    return;
        });
        EXPECT_EQ(load.progress().submitted, 10u * static_cast<unsigned>(batches));
        return usage.kept;
    };
    const long few = kept_after(20);
    EXPECT_GT(few, 0);                   // of the batches under way
    EXPECT_LE(kept_after(200), few + 5); // a buffer here and there may have grown
    EXPECT_LE(kept_after(2000), few + 5);
}
