#include "replicas.h"

#include "clock.h"
#include "ldapx.h"
#include "schema.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <utility>

namespace sandbox {

namespace {

constexpr std::array<const char *, LDAP_RT_COUNT> type_names = {
    "master", "secondary", "read-only", "subref", "sparse-write", "sparse-read"};

enum State { state_on = 0, state_merging = 1, state_updating = 2 };

std::optional<int> number_in(const std::string &text)
{
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return {};
    return number;
}

std::string quoted(const std::string &text)
{
    return "\"" + text + "\"";
}

bool refuse_type(Call &call, int type)
{
    if (type >= 0 && type < LDAP_RT_COUNT)
        return false;
    call.answer({LDAP_CONSTRAINT_VIOLATION,
                 call.operation().title + ": there is no replica type " + std::to_string(type) +
                     ", only 0 (master) to 5 (sparse-read)",
                 {}});
    return true;
}

const HeldReplica *held_by(const Replicas::Holders &holders, const std::string &server)
{
    const auto found = std::find_if(holders.begin(), holders.end(),
                                    [&](const HeldReplica &held) { return held.server == server; });
    return found == holders.end() ? nullptr : &*found;
}

const HeldReplica *master_of(const Replicas::Holders &holders)
{
    const auto found = std::find_if(holders.begin(), holders.end(), [](const HeldReplica &held) {
        return held.replica.type == LDAP_RT_MASTER;
    });
    return found == holders.end() ? nullptr : &*found;
}

Result holds_none(const std::string &server, const std::string &partition)
{
    return {LDAP_NO_SUCH_OBJECT, server + " holds no replica of " + quoted(partition), server};
}

// 31 bits of the entryUUID, which is random enough to be a number of its own.
int root_id(const std::string &uuid)
{
    std::uint32_t id = 0;
    std::from_chars(uuid.data(), uuid.data() + std::min<std::size_t>(uuid.size(), 8), id, 16);
    return static_cast<int>(id & 0x7fffffff);
}

} // namespace

// ---- The value --------------------------------------------------------------------------------

std::string text_of(const Replica &replica)
{
    std::ostringstream text;
    text << "number=" << replica.number
         << " type=" << type_names.at(static_cast<std::size_t>(replica.type))
         << " state=" << (replica.updating ? "updating" : "on") << " flags=" << replica.flags
         << " modified=" << generalized_time(replica.modified)
         << " purged=" << generalized_time(replica.purged) << " id=" << replica.partition_uuid
         << " partition=" << replica.partition_dn;
    return text.str();
}

std::optional<Replica> replica_of(const std::string &text)
{
    std::istringstream words(text);
    const auto next = [&words](const std::string &name) -> std::string {
        std::string word;
        words >> word;
        return word.rfind(name + "=", 0) == 0 ? word.substr(name.size() + 1) : std::string();
    };
    const auto number = number_in(next("number"));
    const std::string type = next("type");
    const std::string state = next("state");
    const auto flags = number_in(next("flags"));
    const auto modified = time_of(next("modified"));
    const auto purged = time_of(next("purged"));
    const std::string uuid = next("id");
    const auto *const known = std::find(type_names.begin(), type_names.end(), type);
    const std::size_t name = text.find(" partition=");
    if (!number || !flags || !modified || !purged || known == type_names.end() || uuid.empty() ||
        name == std::string::npos)
        return {};
    return Replica{*number,
                   static_cast<int>(known - type_names.begin()),
                   state == "updating",
                   *flags,
                   *modified,
                   *purged,
                   uuid,
                   text.substr(name + std::string_view(" partition=").size())};
}

void Replicas::touch(Replica &replica)
{
    replica.modified = std::max(replica.modified + 1, std::time(nullptr));
}

// ---- Beginning --------------------------------------------------------------------------------

Replicas::Replicas(asio::io_context &loop, Directory &directory, std::string base)
    : directory_(directory), base_(std::move(base)), turns_(loop)
{
}

void Replicas::offer(Operations &operations)
{
    using Method = void (Replicas::*)(std::shared_ptr<Call>);
    const auto add = [&](const char *request, const char *response, const char *title,
                         Method method) {
        operations.add({request, response, title, [this, method](std::shared_ptr<Call> call) {
                            (this->*method)(std::move(call));
                        }});
    };
    add(LDAPX_ADD_REPLICA_REQUEST, LDAPX_ADD_REPLICA_RESPONSE, "add replica", &Replicas::add);
    add(LDAPX_REMOVE_REPLICA_REQUEST, LDAPX_REMOVE_REPLICA_RESPONSE, "remove replica",
        &Replicas::remove);
    add(LDAPX_CHANGE_REPLICA_TYPE_REQUEST, LDAPX_CHANGE_REPLICA_TYPE_RESPONSE,
        "change replica type", &Replicas::change_type);
    add(LDAPX_GET_REPLICA_INFO_REQUEST, LDAPX_GET_REPLICA_INFO_RESPONSE, "replica information",
        &Replicas::information);
    add(LDAPX_LIST_REPLICAS_REQUEST, LDAPX_LIST_REPLICAS_RESPONSE, "list replicas",
        &Replicas::list);
}

void Replicas::prepare(Directory::Done done)
{
    find({}, [this, done = std::move(done)](const Result &result, const Holders &all) {
        for (const HeldReplica &held : all)
            last_number_ = std::max(last_number_, held.replica.number);
        if (!result.ok() || !all.empty())
            return done(result);
        directory_.read(
            as_administrator, base_, {"entryUUID"},
            [this, done](const Result &read, const Entry &root) {
                if (!read.ok())
                    return done(read);
                const auto first = std::make_shared<std::string>();
                directory_.search(
                    as_administrator,
                    {base_, LDAP_SCOPE_SUBTREE, filter::equal("objectClass", directory_server)},
                    [first](const Entry &server) {
                        if (first->empty())
                            *first = server.dn;
                    },
                    [this, done, first, root](const Result &searched) {
                        if (!searched.ok() || first->empty())
                            return done(searched);
                        Replica master;
                        master.number = ++last_number_;
                        master.partition_uuid = root.value("entryUUID");
                        master.partition_dn = root.dn;
                        master.modified = master.purged = std::time(nullptr);
                        directory_.modify(as_administrator, *first,
                                          {{LDAP_MOD_ADD, held_replica, {text_of(master)}}}, done);
                    });
            });
    });
}

// ---- Finding and writing ----------------------------------------------------------------------

void Replicas::find(const std::string &uuid,
                    std::function<void(const Result &, const Holders &)> use)
{
    const auto holders = std::make_shared<Holders>();
    directory_.search(
        as_administrator,
        {base_,
         LDAP_SCOPE_SUBTREE,
         filter::all(
             {filter::equal("objectClass", directory_server), filter::present(held_replica)}),
         {held_replica}},
        [holders, uuid](const Entry &server) {
            for (const std::string &text : server.values(held_replica))
                if (const auto replica = replica_of(text))
                    if (uuid.empty() || replica->partition_uuid == uuid)
                        holders->push_back({server.dn, text, *replica});
        },
        [holders, use = std::move(use)](const Result &result) { use(result, *holders); });
}

void Replicas::write(const Behalf &behalf, const HeldReplica &held, const Replica &changed,
                     Directory::Done done)
{
    // Fails when somebody has changed the value meanwhile.
    directory_.modify(behalf, held.server,
                      {{LDAP_MOD_DELETE, held_replica, {held.text}},
                       {LDAP_MOD_ADD, held_replica, {text_of(changed)}}},
                      std::move(done));
}

// One change after the other; what has no replica any more is removed. A server that has gone
// meanwhile has taken its replicas along.
void Replicas::write_all(
    std::shared_ptr<std::vector<std::pair<HeldReplica, std::optional<Replica>>>> rest,
    std::size_t done_so_far, Counted done)
{
    if (rest->empty())
        return done({}, done_so_far);
    const auto [held, changed] = std::move(rest->back());
    rest->pop_back();
    const auto next = [this, rest, done_so_far, done = std::move(done)](const Result &result) {
        if (!result.ok() && result.code != LDAP_NO_SUCH_OBJECT &&
            result.code != LDAP_NO_SUCH_ATTRIBUTE)
            return done(result, done_so_far);
        write_all(rest, done_so_far + (result.ok() ? 1 : 0), done);
    };
    if (!changed)
        directory_.modify(as_administrator, held.server,
                          {{LDAP_MOD_DELETE, held_replica, {held.text}}}, next);
    else if (held.text.empty())
        directory_.modify(as_administrator, held.server,
                          {{LDAP_MOD_ADD, held_replica, {text_of(*changed)}}}, next);
    else
        write(as_administrator, held, *changed, next);
}

void Replicas::edit_all(const std::string &uuid, Edit edit, Counted done)
{
    turns_.wait([this, uuid, edit = std::move(edit), done = std::move(done)](const Turn &turn) {
        find(uuid, [this, edit, done, turn](const Result &result, const Holders &holders) {
            if (!result.ok())
                return done(result, 0);
            const auto changes =
                std::make_shared<std::vector<std::pair<HeldReplica, std::optional<Replica>>>>();
            for (const HeldReplica &held : holders) {
                Replica changed = held.replica;
                if (edit(changed))
                    changes->emplace_back(held, changed);
            }
            write_all(changes, 0, [done, turn](const Result &written, std::size_t count) {
                done(written, count);
            });
        });
    });
}

// ---- Splitting and merging --------------------------------------------------------------------

void Replicas::inherit(const std::string &root, const std::string &uuid,
                       const std::string &parent_uuid, Directory::Done done)
{
    if (parent_uuid.empty())
        return done({});
    turns_.wait([=, this](const Turn &turn) {
        find(parent_uuid, [=, this](const Result &result, const Holders &holders) {
            if (!result.ok())
                return done(result);
            const auto changes =
                std::make_shared<std::vector<std::pair<HeldReplica, std::optional<Replica>>>>();
            for (const HeldReplica &held : holders) {
                Replica replica = held.replica;
                replica.number = ++last_number_;
                replica.updating = false;
                replica.modified = replica.purged = std::time(nullptr);
                replica.partition_uuid = uuid;
                replica.partition_dn = root;
                changes->emplace_back(HeldReplica{held.server, {}, {}}, replica);
            }
            write_all(changes, 0,
                      [done, turn](const Result &written, std::size_t) { done(written); });
        });
    });
}

void Replicas::forget(const std::string &uuid, Directory::Done done)
{
    turns_.wait([=, this](const Turn &turn) {
        find(uuid, [=, this](const Result &result, const Holders &holders) {
            if (!result.ok())
                return done(result);
            const auto changes =
                std::make_shared<std::vector<std::pair<HeldReplica, std::optional<Replica>>>>();
            for (const HeldReplica &held : holders)
                changes->emplace_back(held, std::nullopt);
            write_all(changes, 0,
                      [done, turn](const Result &written, std::size_t) { done(written); });
        });
    });
}

void Replicas::clean(Counted done)
{
    turns_.wait([this, done = std::move(done)](const Turn &turn) {
        const auto alive = std::make_shared<std::vector<std::string>>();
        directory_.search(
            as_administrator, {base_, LDAP_SCOPE_SUBTREE, partition_roots(), {"entryUUID"}},
            [alive](const Entry &root) { alive->push_back(root.value("entryUUID")); },
            [this, done, turn, alive](const Result &searched) {
                if (!searched.ok())
                    return done(searched, 0);
                find({}, [this, done, turn, alive](const Result &found, const Holders &holders) {
                    if (!found.ok())
                        return done(found, 0);
                    const auto changes = std::make_shared<
                        std::vector<std::pair<HeldReplica, std::optional<Replica>>>>();
                    for (const HeldReplica &held : holders)
                        if (std::find(alive->begin(), alive->end(), held.replica.partition_uuid) ==
                            alive->end())
                            changes->emplace_back(held, std::nullopt);
                    write_all(changes, 0, [done, turn](const Result &written, std::size_t count) {
                        done(written, count);
                    });
                });
            });
    });
}

// ---- The operations ---------------------------------------------------------------------------

void Replicas::change(std::shared_ptr<Call> call, const Request &request, Found use)
{
    if (refuse_anonymous(*call))
        return;
    turns_.wait([this, call, request, use = std::move(use)](const Turn &turn) {
        find_server(directory_, call, request.server, {}, [=, this](const Entry &server) {
            find_partition(directory_, call, request.partition,
                           [=, this](const PartitionRoot &root) {
                               if (root.state != "on")
                                   return call->answer({LDAP_BUSY, root.dn + " is merging", {}});
                               find(root.uuid, [=](const Result &result, const Holders &holders) {
                                   if (!result.ok())
                                       return call->answer(result);
                                   use(root, server, holders, turn);
                               });
                           });
        });
    });
}

Replicas::Request Replicas::read_typed(const Call &call)
{
    ber::Reader value = call.value();
    Request request;
    request.flags = value.integer();
    request.type = value.integer();
    request.server = value.text();
    request.partition = value.text();
    value.finish();
    return request;
}

void Replicas::add(std::shared_ptr<Call> call)
{
    const Request request = read_typed(*call);
    if (refuse_anonymous(*call) || refuse_type(*call, request.type))
        return;
    change(call, request,
           [=, this](const PartitionRoot &root, const Entry &server, const Holders &holders,
                     const Turn &turn) {
               if (held_by(holders, server.dn) != nullptr)
                   return call->answer(
                       {LDAP_ALREADY_EXISTS, server.dn + " holds a replica of " + root.dn, {}});
               const HeldReplica *master = master_of(holders);
               if (request.type == LDAP_RT_MASTER && master != nullptr)
                   return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                        master->server + " holds the master of " + root.dn +
                                            ": add another type, and change that to master",
                                        {}});
               if (request.type != LDAP_RT_MASTER && master == nullptr)
                   return call->answer(
                       {LDAP_UNWILLING_TO_PERFORM,
                        root.dn + " has no replica yet, and the first is its master",
                        {}});
               Replica replica;
               replica.number = ++last_number_;
               replica.type = request.type;
               replica.flags = request.flags;
               replica.modified = replica.purged = std::time(nullptr);
               replica.partition_uuid = root.uuid;
               replica.partition_dn = root.dn;
               directory_.modify(call->behalf(), server.dn,
                                 {{LDAP_MOD_ADD, held_replica, {text_of(replica)}}},
                                 [call, turn, dn = server.dn](const Result &result) {
                                     call->answer(explained(result, *call, dn));
                                 });
           });
}

// INTEGER flags, OCTET STRING server, OCTET STRING partition. No flag has a meaning here.
void Replicas::remove(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    Request request;
    request.flags = value.integer();
    request.server = value.text();
    request.partition = value.text();
    value.finish();
    change(call, request,
           [=, this](const PartitionRoot &root, const Entry &server, const Holders &holders,
                     const Turn &turn) {
               const HeldReplica *held = held_by(holders, server.dn);
               if (held == nullptr)
                   return call->answer(holds_none(server.dn, root.dn));
               if (held->replica.type == LDAP_RT_MASTER)
                   return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                        server.dn + " holds the master of " + root.dn +
                                            ": make another replica the master first",
                                        {}});
               directory_.modify(call->behalf(), server.dn,
                                 {{LDAP_MOD_DELETE, held_replica, {held->text}}},
                                 [call, turn, dn = server.dn](const Result &result) {
                                     call->answer(explained(result, *call, dn));
                                 });
           });
}

// As add(). The former master of a new one becomes a secondary.
void Replicas::change_type(std::shared_ptr<Call> call)
{
    const Request request = read_typed(*call);
    if (refuse_anonymous(*call) || refuse_type(*call, request.type))
        return;
    change(call, request,
           [=, this](const PartitionRoot &root, const Entry &server, const Holders &holders,
                     const Turn &turn) {
               const HeldReplica *held = held_by(holders, server.dn);
               if (held == nullptr)
                   return call->answer(holds_none(server.dn, root.dn));
               const HeldReplica *master = master_of(holders);
               if (held == master && request.type != LDAP_RT_MASTER)
                   return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                        server.dn + " holds the master of " + root.dn +
                                            ": make another replica the master instead",
                                        {}});
               Replica changed = held->replica;
               changed.type = request.type;
               changed.flags = request.flags;
               touch(changed);
               const auto answer = [call, turn, dn = server.dn](const Result &result) {
                   call->answer(explained(result, *call, dn));
               };
               if (request.type != LDAP_RT_MASTER || held == master || master == nullptr)
                   return write(call->behalf(), *held, changed, answer);

               HeldReplica former{master->server, {}, master->replica};
               former.replica.type = LDAP_RT_SECONDARY;
               touch(former.replica);
               former.text = text_of(former.replica);
               write(call->behalf(), *master, former.replica,
                     [=, this, held = *held, before = master->replica](const Result &demoted) {
                         if (!demoted.ok())
                             return call->answer(explained(demoted, *call, former.server));
                         write(call->behalf(), held, changed, [=, this](const Result &promoted) {
                             if (promoted.ok())
                                 return answer(promoted);
                             // Never without a master.
                             write(as_administrator, former, before,
                                   [answer, promoted](const Result &) { answer(promoted); });
                         });
                     });
           });
}

// OCTET STRING server, OCTET STRING partition.
void Replicas::information(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string server_name = value.text();
    const std::string partition = value.text();
    value.finish();
    find_server(directory_, call, server_name, {held_replica}, [=, this](const Entry &server) {
        find_partition(directory_, call, partition, [call, server](const PartitionRoot &root) {
            for (const std::string &text : server.values(held_replica)) {
                const auto replica = replica_of(text);
                if (!replica || replica->partition_uuid != root.uuid)
                    continue;
                const State state = root.state == "merging" ? state_merging
                                    : replica->updating     ? state_updating
                                                            : state_on;
                const std::array<std::string, 8> elements = {
                    ber::integer(root_id(root.uuid)), ber::integer(state),
                    ber::integer(replica->modified),  ber::integer(replica->purged),
                    ber::integer(replica->number),    ber::octets(root.dn),
                    ber::integer(replica->type),      ber::integer(replica->flags)};
                std::string content;
                for (const std::string &element : elements)
                    content += element;
                return call->answer({}, content);
            }
            call->answer(holds_none(server.dn, root.dn));
        });
    });
}

// OCTET STRING server; the answer is the partitions' names as they are now, in the order of the
// replicas' numbers, as far as the client may see their roots.
void Replicas::list(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string server_name = value.text();
    value.finish();
    find_server(directory_, call, server_name, {held_replica}, [=, this](const Entry &server) {
        std::vector<Replica> held;
        for (const std::string &text : server.values(held_replica))
            if (const auto replica = replica_of(text))
                held.push_back(*replica);
        std::sort(held.begin(), held.end(), [](const Replica &left, const Replica &right) {
            return left.number < right.number;
        });
        if (held.empty())
            return call->answer({}, ber::sequence());
        std::vector<std::string> wanted;
        wanted.reserve(held.size());
        for (const Replica &replica : held)
            wanted.push_back(filter::equal("entryUUID", replica.partition_uuid));
        const auto names = std::make_shared<std::map<std::string, std::string>>();
        directory_.search(
            call->behalf(),
            {base_,
             LDAP_SCOPE_SUBTREE,
             filter::all({filter::any(wanted), partition_roots()}),
             {"entryUUID"}},
            [names](const Entry &root) { (*names)[root.value("entryUUID")] = root.dn; },
            [call, held, names](const Result &result) {
                if (!result.ok())
                    return call->answer(explained(result, *call, "the partitions"));
                std::string content;
                for (const Replica &replica : held)
                    if (const auto found = names->find(replica.partition_uuid);
                        found != names->end())
                        content += ber::octets(found->second);
                call->answer({}, ber::sequence(content));
            });
    });
}

} // namespace sandbox
