// What a client sends to the sandbox, in front of a slapd that agrees to everything. The first byte
// chooses: the rest is all that the client sends, or the value of one of the sandbox's requests.
// The second says what has gone before: a bind, a bulk update, a monitor for all events. Whatever
// comes, the client's connection goes on or ends, and what it is sent are whole messages with
// events that can be decoded.

#include "fuzz.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "background.h"
#include "backup.h"
#include "event_sources.h"
#include "events.h"
#include "filters.h"
#include "identity.h"
#include "lburp.h"
#include "names.h"
#include "partitions.h"
#include "privileges.h"
#include "programs.h"
#include "replicas.h"
#include "synchronisation.h"

#include "connection.h"
#include "gateway.h"
#include "ldapx.h"
#include "support/administration.h"
#include "support/ber.h"
#include "support/events.h"
#include "support/updates.h"
#include "wire/partition_operations.h"

namespace {

using support::concat;
using support::element;
using support::enumerated;
using support::integer;
using support::octets;
using support::sequence;

const std::string base = "dc=example,dc=com";
const std::string administrator = "cn=admin," + base;
constexpr std::size_t largest_message = 1 << 20;

// ---- Requests -----------------------------------------------------------------------------------

struct Named {
    std::string name;
    std::string value; // a good one
};

std::vector<Named> make_requests()
{
    const support::Batch batch{0};
    const std::string update = batch.modify(
        "ou=a," + base, {{"description", {"x"}, LDAP_MOD_REPLACE}}, support::ControlList());
    std::vector<Named> all = {
        {LDAPX_MONITOR_EVENTS_REQUEST,
         sequence(integer(1), support::set(sequence(integer(5), enumerated(0))))},
        {LDAPX_MONITOR_EVENTS_FILTERED_REQUEST,
         sequence(integer(1), support::set(sequence(integer(10), enumerated(1),
                                                    octets("(&(entryDN:dnSubtreeMatch:=ou=a)"
                                                           "(!(attributeName=c*n))(type>=1))"))))},
        {LDAPX_LBURP_START_REQUEST, sequence(octets(LDAPX_LBURP_INCREMENTAL_UPDATE))},
        {LDAPX_LBURP_OPERATION_REQUEST,
         batch.request(1, update + batch.add("ou=b," + base, {{"ou", {"b"}}}) +
                              batch.remove("ou=c," + base) +
                              batch.rename("ou=d," + base, "ou=e", true, "ou=f," + base))},
        {LDAPX_LBURP_END_REQUEST, sequence(integer(2))},
        {LDAPX_BACKUP_OBJECT_REQUEST,
         concat(octets("ou=a," + base), integer(0), integer(0), octets("pw"))},
        {LDAPX_RESTORE_OBJECT_REQUEST,
         concat(octets("ou=a," + base), octets("pw"), integer(4), octets("data"),
                sequence(integer(1), support::set(sequence(integer(4)))))},
    };
    for (const support::Operation &operation : support::operations())
        all.push_back({operation.request_name, operation.request_value.value_or("")});
    for (const Operation &operation : partition::operations())
        all.push_back({operation.request, operation.value});
    return all;
}

const std::vector<Named> &requests()
{
    static const std::vector<Named> all = make_requests();
    return all;
}

std::string message(int id, const std::string &operation)
{
    return sequence(integer(id), operation);
}

std::string extended(int id, const std::string &name, const std::string &value)
{
    const std::string part = value.empty() ? "" : octets(value, 0x81);
    return message(id, element(0x77, concat(octets(name, 0x80), part)));
}

enum Before : unsigned char { bound = 1, updating = 2, watched = 4 };

std::string before(unsigned char what)
{
    std::string all;
    if ((what & bound) != 0)
        all += message(
            1001, element(0x60, concat(integer(3), octets(administrator), octets("secret", 0x80))));
    if ((what & watched) != 0)
        all += extended(1002, LDAPX_MONITOR_EVENTS_REQUEST,
                        sequence(integer(3), support::set(sequence(integer(0), enumerated(0)),
                                                          sequence(integer(104), enumerated(0)),
                                                          sequence(integer(113), enumerated(0)))));
    if ((what & updating) != 0)
        all += extended(1003, LDAPX_LBURP_START_REQUEST,
                        sequence(octets(LDAPX_LBURP_INCREMENTAL_UPDATE)));
    return all;
}

// ---- slapd --------------------------------------------------------------------------------------

// One end of a socket pair, without waiting.
class End {
public:
    explicit End(int fd) : fd_(fd)
    {
        fcntl(fd_, F_SETFL, O_NONBLOCK);
    }
    ~End()
    {
        ::close(fd_);
    }
    End(const End &) = delete;
    End &operator=(const End &) = delete;

    void send(const std::string &bytes) const
    {
        fuzz::require(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0 || errno == EPIPE,
                      "room in the socket");
    }
    void finish() const
    {
        shutdown(fd_, SHUT_WR);
    }
    // True when something came.
    bool receive(std::string &bytes) const
    {
        std::array<char, 65536> chunk{};
        const ssize_t got = recv(fd_, chunk.data(), chunk.size(), 0);
        if (got > 0)
            bytes.append(chunk.data(), static_cast<std::size_t>(got));
        return got > 0;
    }

private:
    int fd_;
};

std::string take_message(std::string &bytes)
{
    const std::size_t size = support::whole_element(bytes);
    const std::string whole = bytes.substr(0, size);
    bytes.erase(0, size);
    return whole;
}

// The gateway relays what clients send, so that it need not be LDAP. What is not ends it.
std::string agree(const std::string &request)
{
    try {
        support::Reader outer(request);
        const std::string content = outer.take(0x30);
        support::Reader reader(content);
        const int id = static_cast<int>(reader.take_integer());
        const unsigned char tag = reader.next_tag();
        const std::string success = concat(enumerated(0), octets(""), octets(""));
        switch (tag) {
        case 0x77:
            return message(id, element(0x78, concat(success, octets("dn:" + administrator, 0x8b))));
        case 0x60:
        case 0x66:
        case 0x68:
        case 0x6c:
        case 0x6e:
            return message(id, element(tag + 1UL, success));
        case 0x4a:
            return message(id, element(0x6b, success));
        case 0x63:
            return message(id, element(0x64, concat(octets("ou=a," + base), sequence()))) +
                   message(id, element(0x65, success));
        default:
            return {};
        }
    } catch (const std::runtime_error &) {
        return {};
    }
}

// ---- The sandbox --------------------------------------------------------------------------------

// As the program puts it together, but for the directory: it is never connected, so that every
// operation ends where it would first ask slapd.
struct Sandbox {
    asio::io_context loop;
    sandbox::Directory directory{loop};
    sandbox::Events events{loop, {.with_addresses = true, .samples = true}};
    sandbox::EventSources sources{events, directory};
    sandbox::Operations operations;
    sandbox::Partitions partitions{loop, directory, base, std::chrono::milliseconds(0)};
    sandbox::Replicas replicas{loop, directory, base};
    sandbox::Synchronisation synchronisation{loop, directory, replicas};
    sandbox::Background background{loop, directory, replicas, synchronisation, base};
    sandbox::Filters filters{directory};
    sandbox::Names names{directory, base};
    sandbox::Programs programs{loop, "/nonexistent"};
    sandbox::Privileges privileges{directory, programs};
    sandbox::BulkUpdates bulk_updates{directory, base, {}};
    sandbox::Backups backups{directory, base, std::nullopt};
    sandbox::Service service{operations, largest_message, {}, &sources};

    Sandbox()
    {
        directory.report_to(sources);
        partitions.offer(operations);
        replicas.offer(operations);
        synchronisation.offer(operations);
        background.offer(operations);
        filters.offer(operations);
        names.offer(operations);
        privileges.offer(operations);
        sandbox::offer_bind_identity(operations);
        events.offer(operations);
        bulk_updates.offer(operations);
        backups.offer(operations);
    }

    sandbox::Link::Socket socket(int fd)
    {
        return {loop, asio::generic::stream_protocol(AF_UNIX, 0), fd};
    }
};

void expect_event(const std::string &content)
{
    support::Reader response(content);
    fuzz::require(response.take(0x80) == LDAPX_EVENT_NOTIFICATION, "an event's name");
    const std::string value = response.take(0x81);
    support::Reader outer(value);
    const std::string notification = outer.take(0x30);
    support::Reader event(notification);
    event.take_integer();
    event.take_integer();
    for (const support::EventKind &kind : support::event_kinds())
        if (kind.tag == event.next_tag()) {
            const std::string fields =
                concat(event.take(static_cast<unsigned char>(kind.tag)), std::string(event.rest()));
            const support::Verdict verdict = support::expected_verdict(kind, fields, true);
            fuzz::require(verdict.code == LDAP_SUCCESS && verdict.assertion.empty(),
                          "an event that can be decoded");
        }
}

void expect_messages(std::string bytes)
{
    while (!bytes.empty()) {
        const std::string whole = take_message(bytes);
        fuzz::require(!whole.empty(), "whole messages");
        support::Reader outer(whole);
        const std::string content = outer.take(0x30);
        support::Reader reader(content);
        reader.take_integer();
        if (reader.next_tag() == 0x79)
            expect_event(reader.take(0x79));
    }
}

void serve(const std::string &bytes)
{
    int client[2], slapd[2];
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, client) == 0 &&
                  socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, slapd) == 0);
    const End outside(client[1]), inside(slapd[1]);
    outside.send(bytes);

    Sandbox sandbox;
    bool ended = false;
    auto connection = std::make_shared<sandbox::Connection>(
        sandbox.service, sandbox.socket(client[0]), sandbox.socket(slapd[0]),
        sandbox::Client{1, {}, "127.0.0.1:1"});
    connection->start(false, [&] { ended = true; });

    std::string requests, answers;
    bool finished = false;
    for (bool active = true; active;) {
        active = sandbox.loop.poll() > 0;
        active |= outside.receive(answers);
        active |= inside.receive(requests);
        for (std::string request = take_message(requests); !request.empty();
             request = take_message(requests)) {
            const std::string answer = agree(request);
            inside.send(answer);
            active |= !answer.empty();
        }
        if (!active && !finished) {
            outside.finish();
            finished = active = true;
        }
    }
    fuzz::require(ended, "a client that has left is forgotten");
    expect_messages(answers);
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    std::vector<std::string> all;
    for (std::size_t i = 0; i < requests().size(); ++i)
        for (const char shape : {'\0', '\1', '\3', '\7'})
            all.push_back(static_cast<char>(i + 1) + std::string(1, shape) + requests()[i].value);

    const std::string stream(1, '\0');
    const std::string filter = element(
        0xa0, concat(element(0x87, "objectClass"), element(0xa3, concat(octets("cn"), octets("a"))),
                     element(0xa4, concat(octets("cn"),
                                          sequence(element(0x80, "a"), element(0x82, "b"))))));
    const std::string attributes =
        sequence(sequence(octets("objectClass"), support::set(octets("organizationalUnit"))),
                 sequence(octets("ou"), support::set(octets("b"))));
    const std::string operations[] = {
        element(0x63, concat(octets(base), enumerated(2), enumerated(0), integer(0), integer(0),
                             support::boolean(false), filter, sequence(octets("cn")))),
        element(0x66,
                concat(octets("ou=a," + base),
                       sequence(sequence(enumerated(2), sequence(octets("description"),
                                                                 support::set(octets("x"))))))),
        element(0x68, concat(octets("ou=b," + base), attributes)),
        element(0x4a, "ou=c," + base),
        element(0x6c, concat(octets("ou=d," + base), octets("ou=e"), support::boolean(true),
                             octets("ou=f," + base, 0x80))),
        element(0x6e, concat(octets("ou=a," + base), sequence(octets("ou"), octets("a")))),
        element(0x60, concat(integer(3), octets(""),
                             element(0xa3, concat(octets("EXTERNAL"), octets(""))))),
        element(0x77, concat(octets("1.3.6.1.4.1.4203.1.11.1", 0x80),
                             octets(sequence(octets("cn=a", 0x80), octets("old", 0x81),
                                             octets("new", 0x82)),
                                    0x81))),
        element(0x77, concat(octets("1.3.6.1.1.8", 0x80), octets(sequence(integer(1002)), 0x81))),
        element(0x50, "\x7f"),
        element(0x42, ""),
    };
    for (const std::string &operation : operations)
        for (const char shape : {'\0', '\5'})
            all.push_back(stream + shape + message(7, operation));
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // What the sockets take without waiting.
    fuzz::Input input(data, std::min<std::size_t>(size, 64 * 1024));
    const std::size_t number = input.below(requests().size() + 1);
    const std::string prelude = before(input.byte());
    const std::string rest = input.rest();
    serve(prelude + (number == 0 ? rest : extended(7, requests()[number - 1].name, rest)));
    return 0;
}
