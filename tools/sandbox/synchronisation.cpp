#include "synchronisation.h"

#include "clock.h"
#include "ldapx.h"
#include "schema.h"
#include "system_tree.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace sandbox {

namespace {

constexpr char container[] = "synchronisation";
// What the client library sends for a source that the caller leaves open.
constexpr char no_source[] = "unusedParam";

std::string dn_of(int number)
{
    return "cn=" + std::to_string(number) + "," + system_dn(container);
}

bool refuse_delay(Call &call, int delay)
{
    if (delay >= 0)
        return false;
    call.answer(
        {LDAP_CONSTRAINT_VIOLATION,
         call.operation().title + ": a delay of " + std::to_string(delay) + " seconds is none",
         {}});
    return true;
}

const HeldReplica *held_by(const Replicas::Holders &holders, const std::string &server)
{
    for (const HeldReplica &held : holders)
        if (held.server == server)
            return &held;
    return nullptr;
}

std::string master_among(const Replicas::Holders &holders)
{
    for (const HeldReplica &held : holders)
        if (held.replica.type == LDAP_RT_MASTER)
            return held.server;
    return {};
}

Result holds_none(const std::string &server, const std::string &partition)
{
    return {LDAP_NO_SUCH_OBJECT, server + " holds no replica of \"" + partition + "\"", server};
}

} // namespace

Synchronisation::Synchronisation(asio::io_context &loop, Directory &directory, Replicas &replicas)
    : loop_(loop), directory_(directory), replicas_(replicas)
{
}

void Synchronisation::offer(Operations &operations)
{
    using Method = void (Synchronisation::*)(std::shared_ptr<Call>);
    const auto add = [&](const char *request, const char *response, const char *title,
                         Method method) {
        operations.add({request, response, title, [this, method](std::shared_ptr<Call> call) {
                            (this->*method)(std::move(call));
                        }});
    };
    add(LDAPX_RECEIVE_ALL_UPDATES_REQUEST, LDAPX_RECEIVE_ALL_UPDATES_RESPONSE,
        "receive all updates", &Synchronisation::receive);
    add(LDAPX_SEND_ALL_UPDATES_REQUEST, LDAPX_SEND_ALL_UPDATES_RESPONSE, "send all updates",
        &Synchronisation::send);
    add(LDAPX_REQUEST_PARTITION_SYNC_REQUEST, LDAPX_REQUEST_PARTITION_SYNC_RESPONSE,
        "synchronise partition", &Synchronisation::synchronise_partition);
    add(LDAPX_REQUEST_SCHEMA_SYNC_REQUEST, LDAPX_REQUEST_SCHEMA_SYNC_RESPONSE, "synchronise schema",
        &Synchronisation::synchronise_schema);
}

void Synchronisation::prepare(Directory::Done done)
{
    ensure_entries(directory_, system_container(container, "What was asked of the servers"),
                   std::move(done));
}

// ---- The requests -----------------------------------------------------------------------------

void Synchronisation::find_holder(std::shared_ptr<Call> call, const std::string &partition,
                                  const std::string &server_name, Use use)
{
    find_partition(directory_, call, partition, [=, this](const PartitionRoot &root) {
        find_server(directory_, call, server_name, {}, [=, this](const Entry &server) {
            replicas_.find(root.uuid, [=](const Result &result, const Replicas::Holders &holders) {
                if (!result.ok())
                    return call->answer(result);
                if (held_by(holders, server.dn) == nullptr)
                    return call->answer(holds_none(server.dn, root.dn));
                use(root, server, holders);
            });
        });
    });
}

// OCTET STRING partition, OCTET STRING receiver, OCTET STRING source.
void Synchronisation::receive(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string partition = value.text();
    const std::string receiver = value.text();
    const std::string source = value.text();
    value.finish();
    if (refuse_anonymous(*call))
        return;
    find_holder(call, partition, receiver,
                [=, this](const PartitionRoot &root, const Entry &server,
                          const Replicas::Holders &holders) {
                    Request request{"receive", root.dn, root.uuid, server.dn, {}, 0, 0, {}, {}};
                    request.replicas = {held_by(holders, server.dn)->replica.number};
                    if (source == no_source) {
                        const std::string master = master_among(holders);
                        if (master != server.dn)
                            request.source = master;
                        return begin(call, request);
                    }
                    find_server(directory_, call, source, {}, [=, this](const Entry &sender) {
                        if (sender.dn == server.dn)
                            return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                                 server.dn + " cannot receive from itself",
                                                 {}});
                        if (held_by(holders, sender.dn) == nullptr)
                            return call->answer(holds_none(sender.dn, root.dn));
                        Request complete = request;
                        complete.source = sender.dn;
                        begin(call, complete);
                    });
                });
}

// OCTET STRING partition, OCTET STRING sender; an empty sender is the server with the master.
void Synchronisation::send(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string partition = value.text();
    const std::string sender = value.text();
    value.finish();
    if (refuse_anonymous(*call))
        return;
    const auto start = [=, this](const PartitionRoot &root, const std::string &server,
                                 const Replicas::Holders &holders) {
        Request request{"send", root.dn, root.uuid, server, {}, 0, 0, {}, {}};
        for (const HeldReplica &held : holders)
            if (held.server != server)
                request.replicas.insert(held.replica.number);
        begin(call, request);
    };
    if (!sender.empty())
        return find_holder(
            call, partition, sender,
            [start](const PartitionRoot &root, const Entry &server,
                    const Replicas::Holders &holders) { start(root, server.dn, holders); });
    find_partition(directory_, call, partition, [=, this](const PartitionRoot &root) {
        replicas_.find(root.uuid, [=](const Result &result, const Replicas::Holders &holders) {
            const std::string master = master_among(holders);
            if (!result.ok())
                return call->answer(result);
            if (master.empty())
                return call->answer(
                    {LDAP_NO_SUCH_OBJECT, "no server holds the master of " + root.dn, root.dn});
            start(root, master, holders);
        });
    });
}

// OCTET STRING server, OCTET STRING partition, INTEGER delay.
void Synchronisation::synchronise_partition(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string server_name = value.text();
    const std::string partition = value.text();
    const int delay = value.integer();
    value.finish();
    if (refuse_anonymous(*call) || refuse_delay(*call, delay))
        return;
    find_holder(call, partition, server_name,
                [=, this](const PartitionRoot &root, const Entry &server,
                          const Replicas::Holders &holders) {
                    begin(call, {"partition",
                                 root.dn,
                                 root.uuid,
                                 server.dn,
                                 {},
                                 delay,
                                 0,
                                 {held_by(holders, server.dn)->replica.number},
                                 {}});
                });
}

// OCTET STRING partition, INTEGER delay.
void Synchronisation::synchronise_schema(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string partition = value.text();
    const int delay = value.integer();
    value.finish();
    if (refuse_anonymous(*call) || refuse_delay(*call, delay))
        return;
    find_partition(directory_, call, partition, [=, this](const PartitionRoot &root) {
        begin(call, {"schema", root.dn, root.uuid, {}, {}, delay, 0, {}, {}});
    });
}

// ---- Their course -----------------------------------------------------------------------------

void Synchronisation::begin(std::shared_ptr<Call> call, Request request)
{
    if (request.delay > 0 && waiting_.size() >= kept)
        return call->answer(
            {LDAP_BUSY, std::to_string(kept) + " requests are waiting for their delay", {}});
    request.number = ++last_number_;
    record(request, call->identity(), call->behalf(), [=, this](const Result &recorded) {
        if (!recorded.ok())
            return call->answer(explained(recorded, *call, system_dn(container)));
        if (request.number > kept)
            directory_.remove(as_administrator, dn_of(request.number - kept),
                              [](const Result &) {});
        if (request.delay > 0)
            return wait(call, request);
        finish(request, [call](const Result &result) { call->answer(result); });
    });
}

// The client itself adds the entry, so slapd decides whether it may ask.
void Synchronisation::record(const Request &request, const std::string &requester,
                             const Behalf &behalf, Directory::Done done)
{
    std::vector<Attribute> attributes = {
        {"objectClass", {synchronisation_request}},
        {"cn", {std::to_string(request.number)}},
        {request_kind, {request.kind}},
        {request_state, {"waiting"}},
        {requested_partition, {request.partition_dn}},
        {requested_by, {requester}},
        {requested_at, {generalized_time(std::time(nullptr))}},
        {request_delay, {std::to_string(request.delay)}},
    };
    if (!request.server.empty())
        attributes.push_back({requested_server, {request.server}});
    if (!request.source.empty())
        attributes.push_back({source_server, {request.source}});
    directory_.add(behalf, dn_of(request.number), attributes, std::move(done));
}

void Synchronisation::wait(std::shared_ptr<Call> call, Request request)
{
    request.timer = std::make_shared<asio::steady_timer>(loop_);
    request.timer->expires_after(std::chrono::seconds(request.delay));
    request.timer->async_wait([this, number = request.number](std::error_code stopped) {
        const auto found = waiting_.find(number);
        if (stopped || found == waiting_.end())
            return;
        const Request due = std::move(found->second);
        waiting_.erase(found);
        finish(due, [](const Result &) {}); // nobody is left to be told
    });
    waiting_[request.number] = request;
    replicas_.edit_all(
        request.partition_uuid,
        [this](Replica &replica) {
            return std::exchange(replica.updating, is_awaited(replica.number)) != replica.updating;
        },
        [call](const Result &result, std::size_t) { call->answer(result); });
}

void Synchronisation::finish(const Request &request, const Directory::Done &done)
{
    const auto conclude = [this, number = request.number, done] {
        directory_.modify(as_administrator, dn_of(number),
                          {{LDAP_MOD_REPLACE, request_state, {"done"}},
                           {LDAP_MOD_REPLACE, done_at, {generalized_time(std::time(nullptr))}}},
                          [done](const Result &result) {
                              // Somebody may have removed the entry: that undoes nothing.
                              done(result.code == LDAP_NO_SUCH_OBJECT ? Result{} : result);
                          });
    };
    if (request.replicas.empty())
        return conclude();
    replicas_.edit_all(
        request.partition_uuid,
        [this, replicas = request.replicas](Replica &replica) {
            if (!replicas.contains(replica.number))
                return false;
            replica.updating = is_awaited(replica.number);
            Replicas::touch(replica);
            return true;
        },
        [conclude, done](const Result &result, std::size_t) {
            if (!result.ok())
                return done(result);
            conclude();
        });
}

bool Synchronisation::is_awaited(int replica) const
{
    return std::ranges::any_of(waiting_, [replica](const auto &waiting) {
        return waiting.second.replicas.contains(replica);
    });
}

void Synchronisation::finish_waiting(Counted done)
{
    const auto rest = std::make_shared<std::map<int, Request>>(std::exchange(waiting_, {}));
    const std::size_t count = rest->size();
    const auto left = std::make_shared<std::size_t>(count);
    if (count == 0)
        return done(0);
    for (const auto &[number, request] : *rest)
        finish(request, [left, count, done](const Result &) {
            if (--*left == 0)
                done(count);
        });
}

} // namespace sandbox
