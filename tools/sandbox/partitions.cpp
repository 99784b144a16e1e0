#include "partitions.h"

#include "ldapx.h"
#include "schema.h"

#include <utility>

namespace sandbox {

// A split or merge from its first change to its last. It occupies its own root and the partition
// above, so that no second operation can move the ground under it.
struct Partitions::Running {
    Kind kind;
    std::string dn; // as the request had it
    std::string uuid;
    std::string parent_uuid;
    asio::steady_timer timer;
    bool waiting = false; // begun, and not yet ending: it can be aborted
};

namespace {

std::vector<Change> mark(const char *state)
{
    return {{LDAP_MOD_ADD, "objectClass", {partition_root}},
            {LDAP_MOD_REPLACE, partition_state, {state}}};
}

std::vector<Change> set_state(const char *state)
{
    return {{LDAP_MOD_REPLACE, partition_state, {state}}};
}

std::vector<Change> unmark()
{
    return {{LDAP_MOD_DELETE, "objectClass", {partition_root}},
            {LDAP_MOD_DELETE, partition_state, {}}};
}

// INTEGER flags, OCTET STRING dn. No flag has a meaning here.
std::string read_dn_with_flags(const Call &call)
{
    ber::Reader value = call.value();
    value.integer();
    std::string dn = value.text();
    value.finish();
    return dn;
}

} // namespace

Partitions::Partitions(asio::io_context &loop, Directory &directory, std::string base,
                       std::chrono::milliseconds duration)
    : loop_(loop), directory_(directory), base_(std::move(base)), duration_(duration)
{
}

void Partitions::offer(Operations &operations)
{
    using Method = void (Partitions::*)(std::shared_ptr<Call>);
    const auto add = [&](const char *request, const char *response, const char *title,
                         Method method) {
        operations.add({request, response, title, [this, method](std::shared_ptr<Call> call) {
                            (this->*method)(std::move(call));
                        }});
    };
    add(LDAPX_SPLIT_PARTITION_REQUEST, LDAPX_SPLIT_PARTITION_RESPONSE, "split partition",
        &Partitions::split);
    add(LDAPX_MERGE_PARTITIONS_REQUEST, LDAPX_MERGE_PARTITIONS_RESPONSE, "merge partitions",
        &Partitions::merge);
    add(LDAPX_ABORT_PARTITION_OPERATION_REQUEST, LDAPX_ABORT_PARTITION_OPERATION_RESPONSE,
        "abort partition operation", &Partitions::abort);
    add(LDAPX_PARTITION_ENTRY_COUNT_REQUEST, LDAPX_PARTITION_ENTRY_COUNT_RESPONSE,
        "partition entry count", &Partitions::count);
    operations.add({LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST, LDAPX_SPLIT_ORPHAN_PARTITION_RESPONSE,
                    "split orphan partition", [this](std::shared_ptr<Call> call) {
                        change_orphan(std::move(call), LDAP_MOD_ADD);
                    }});
    operations.add({LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST, LDAPX_REMOVE_ORPHAN_PARTITION_RESPONSE,
                    "remove orphan partition", [this](std::shared_ptr<Call> call) {
                        change_orphan(std::move(call), LDAP_MOD_DELETE);
                    }});
}

void Partitions::mark_base(Directory::Done done)
{
    directory_.modify(as_administrator, base_, mark("on"),
                      [done = std::move(done)](const Result &result) {
                          done(result.code == LDAP_TYPE_OR_VALUE_EXISTS ? Result{} : result);
                      });
}

// ---- Finding ----------------------------------------------------------------------------------

void Partitions::find(std::shared_ptr<Call> call, const std::string &dn, Use use)
{
    directory_.read(call->behalf(), dn, {"entryUUID", partition_state},
                    [call, dn, use = std::move(use)](const Result &result, const Entry &entry) {
                        const std::string uuid = entry.value("entryUUID");
                        if (!result.ok())
                            return call->answer(explained(result, *call, dn));
                        if (uuid.empty())
                            return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                                 "\"" + dn + "\" is no entry of the tree",
                                                 {}});
                        use({entry.dn, uuid, entry.value(partition_state)});
                    });
}

void Partitions::find_parent(std::shared_ptr<Call> call, const Target &target, Use use)
{
    const Search search{base_,
                        LDAP_SCOPE_SUBTREE,
                        filter::all({partition_roots(), filter::around(target.dn),
                                     filter::not_(filter::equal("entryUUID", target.uuid))}),
                        {"entryUUID", partition_state}};
    // All of them lie on the way up from the target: the longest name is the nearest.
    const auto nearest = std::make_shared<Target>();
    directory_.search(
        as_administrator, search,
        [nearest](const Entry &entry) {
            if (entry.dn.size() > nearest->dn.size())
                *nearest = {entry.dn, entry.value("entryUUID"), entry.value(partition_state)};
        },
        [call, nearest, use = std::move(use)](const Result &result) {
            if (!result.ok())
                return call->answer(result);
            use(*nearest);
        });
}

Partitions::Process Partitions::running_on(const std::string &uuid) const
{
    for (const Process &process : running_)
        if (process->uuid == uuid || process->parent_uuid == uuid)
            return process;
    return {};
}

// ---- Split, merge, abort ------------------------------------------------------------------------

void Partitions::split(std::shared_ptr<Call> call)
{
    const std::string dn = read_dn_with_flags(*call);
    if (refuse_anonymous(*call))
        return;
    find(call, dn, [this, call](const Target &target) {
        if (target.is_root())
            return call->answer(
                {LDAP_ALREADY_EXISTS, target.dn + " is the root of a partition already", {}});
        find_parent(call, target, [this, call, target](const Target &parent) {
            begin(call, Kind::split, target, parent);
        });
    });
}

void Partitions::merge(std::shared_ptr<Call> call)
{
    const std::string dn = read_dn_with_flags(*call);
    if (refuse_anonymous(*call))
        return;
    find(call, dn, [this, call](const Target &target) {
        if (!target.is_root() && !running_on(target.uuid))
            return call->answer(
                {LDAP_UNWILLING_TO_PERFORM, target.dn + " is not the root of a partition", {}});
        find_parent(call, target, [this, call, target](const Target &parent) {
            if (parent.uuid.empty())
                return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                     target.dn + " has no partition above it to merge into",
                                     {}});
            begin(call, Kind::merge, target, parent);
        });
    });
}

// The first change is made with the client's own rights, so slapd decides whether it may.
void Partitions::begin(std::shared_ptr<Call> call, Kind kind, const Target &target,
                       const Target &parent)
{
    if (running_on(target.uuid) || running_on(parent.uuid))
        return call->answer(
            {LDAP_BUSY, "an operation is running on the partition or the one above it", {}});
    const Process process = std::make_shared<Running>(
        Running{kind, target.dn, target.uuid, parent.uuid, asio::steady_timer(loop_)});
    running_.push_back(process);

    const bool at_once = duration_ == std::chrono::milliseconds::zero();
    const char *state = at_once ? "on" : kind == Kind::split ? "splitting" : "merging";
    const std::vector<Change> changes = kind == Kind::merge && at_once ? unmark()
                                        : target.state.empty()         ? mark(state)
                                                                       : set_state(state);
    directory_.modify(call->behalf(), target.dn, changes,
                      [this, call, process, target, at_once](const Result &result) {
                          if (result.ok() && at_once)
                              return take_effect(process, [this, call, process](const Result &all) {
                                  running_.remove(process);
                                  call->answer(all);
                              });
                          if (result.ok()) {
                              process->timer.expires_after(duration_);
                              wait(process);
                          } else {
                              running_.remove(process);
                          }
                          call->answer(explained(result, *call, target.dn));
                      });
}

void Partitions::wait(const Process &process)
{
    process->waiting = true;
    process->timer.async_wait([this, process](std::error_code stopped) {
        if (!stopped && process->waiting)
            finish(process);
    });
}

void Partitions::finish(const Process &process)
{
    process->waiting = false;
    // Nobody is left to be told; if the entry has gone meanwhile, so has the partition.
    change_running(
        process, as_administrator, process->kind == Kind::split ? set_state("on") : unmark(),
        [this, process](const Result &result) {
            if (!result.ok())
                return static_cast<void>(running_.remove(process));
            take_effect(process, [this, process](const Result &) { running_.remove(process); });
        });
}

void Partitions::take_effect(const Process &process, Directory::Done done) const
{
    if (process->kind == Kind::split && effects_.split)
        effects_.split(process->dn, process->uuid, process->parent_uuid, std::move(done));
    else if (process->kind == Kind::merge && effects_.merged)
        effects_.merged(process->uuid, std::move(done));
    else
        done({});
}

void Partitions::abort(std::shared_ptr<Call> call)
{
    const std::string dn = read_dn_with_flags(*call);
    if (refuse_anonymous(*call))
        return;
    find(call, dn, [this, call](const Target &target) {
        const Process process = running_on(target.uuid);
        if (!process || !process->waiting)
            return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                 "no operation that could be aborted is running on " + target.dn,
                                 {}});
        process->waiting = false;
        process->timer.cancel();
        change_running(process, call->behalf(),
                       process->kind == Kind::split ? unmark() : set_state("on"),
                       [this, call, process, target](const Result &result) {
                           if (result.ok() || result.code == LDAP_NO_SUCH_OBJECT)
                               running_.remove(process);
                           else
                               wait(process); // it goes on as if nobody had asked
                           call->answer(explained(result, *call, target.dn));
                       });
    });
}

// Changes the root of a running operation, which may have another name by now.
void Partitions::change_running(const Process &process, const Behalf &behalf,
                                const std::vector<Change> &changes, Directory::Done done)
{
    const auto dn = std::make_shared<std::string>();
    directory_.search(
        as_administrator,
        {base_, LDAP_SCOPE_SUBTREE, filter::equal("entryUUID", process->uuid), {LDAP_NO_ATTRS}},
        [dn](const Entry &entry) { *dn = entry.dn; },
        [this, dn, behalf, changes, done = std::move(done)](const Result &result) {
            if (result.ok() && dn->empty())
                return done({LDAP_NO_SUCH_OBJECT, "the partition's root is gone", {}});
            if (!result.ok())
                return done(result);
            directory_.modify(behalf, *dn, changes, done);
        });
}

// ---- Entry count -------------------------------------------------------------------------------

void Partitions::count(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string dn = value.text();
    value.finish();
    find(call, dn, [this, call](const Target &target) {
        if (!target.is_root())
            return call->answer(
                {LDAP_UNWILLING_TO_PERFORM, target.dn + " is not the root of a partition", {}});
        count_within(call, target);
    });
}

// A partition is its root's subtree without the partitions inside. Their roots are found first
// and then left out of the count, so slapd does both with its own idea of names.
void Partitions::count_within(std::shared_ptr<Call> call, const Target &root)
{
    const auto others = std::make_shared<std::vector<std::string>>();
    const Search inside{
        root.dn, LDAP_SCOPE_SUBTREE,
        filter::all({partition_roots(), filter::not_(filter::equal("entryUUID", root.uuid))})};
    directory_.search(
        as_administrator, inside,
        [others](const Entry &entry) { others->push_back(filter::within(entry.dn)); },
        [this, call, root, others](const Result &result) {
            if (!result.ok())
                return call->answer(result);
            const std::string everything = filter::present("objectClass");
            const Search own{root.dn, LDAP_SCOPE_SUBTREE,
                             others->empty()
                                 ? everything
                                 : filter::all({everything, filter::not_(filter::any(*others))})};
            directory_.count(as_administrator, own,
                             [call](const Result &counted, std::size_t entries) {
                                 if (!counted.ok())
                                     return call->answer(counted);
                                 call->answer({}, ber::integer(static_cast<std::int64_t>(entries)));
                             });
        });
}

// ---- Orphan partitions -------------------------------------------------------------------------

// OCTET STRING serverDN, OCTET STRING contextName: one value more or less on the server's object.
void Partitions::change_orphan(std::shared_ptr<Call> call, int operation)
{
    ber::Reader value = call->value();
    const std::string server = value.text();
    const std::string name = value.text();
    value.finish();
    if (refuse_anonymous(*call))
        return;
    if (name.empty())
        return call->answer({LDAP_INVALID_DN_SYNTAX, "an orphan partition needs a name", {}});
    directory_.modify(
        call->behalf(), server, {{operation, orphan_partition, {name}}},
        [call, server, name](const Result &result) {
            switch (result.code) {
            case LDAP_TYPE_OR_VALUE_EXISTS:
                return call->answer(
                    {LDAP_ALREADY_EXISTS, server + " has the orphan partition " + name, {}});
            case LDAP_NO_SUCH_ATTRIBUTE:
                return call->answer(
                    {LDAP_NO_SUCH_OBJECT, server + " has no orphan partition " + name, {}});
            case LDAP_INVALID_SYNTAX:
                return call->answer({LDAP_INVALID_DN_SYNTAX, "\"" + name + "\" is no name", {}});
            case LDAP_OBJECT_CLASS_VIOLATION:
                return call->answer({result.code, server + " is not a " + directory_server, {}});
            default:
                return call->answer(explained(result, *call, server));
            }
        });
}

} // namespace sandbox
