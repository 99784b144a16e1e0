// Partitions: split, merge, abort, entry count, orphan partitions.
//
// What is a partition stands in the tree: its root entry carries the class partitionRoot and a
// partitionState, an orphan partition is a value on its server's object. So everything that slapd
// does to entries (delete, rename, access rules) does the right thing to partitions too. Here is
// kept only what is running.
//
// Result codes, beside those that slapd gives for the entry and the client:
//   protocolError            the request value is not what the operation asks for
//   noSuchObject             the entry, the server or the orphan partition is not there, or the
//                            client may not see it
//   insufficientAccessRights the client is anonymous or may not change the entry
//   entryAlreadyExists       split: it is a partition's root already; orphan: it is there already
//   unwillingToPerform       merge, count: it is no partition's root; merge: it has no parent;
//                            abort: nothing is running
//   objectClassViolation     orphan: the entry is no server
//   busy                     an operation is running on the partition or on its parent
#pragma once

#include "operations.h"
#include "targets.h"

#include <asio.hpp>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

namespace sandbox {

class Partitions {
public:
    // Splits and merges take so long. The request is answered when the operation has begun; with
    // no time at all, when it is done.
    Partitions(asio::io_context &loop, Directory &directory, std::string base,
               std::chrono::milliseconds duration);

    // What else a split and a merge bring about, once the tree shows them and before the operation
    // counts as done.
    struct Effects {
        std::function<void(const std::string &root, const std::string &uuid,
                           const std::string &parent_uuid, Directory::Done done)>
            split;
        std::function<void(const std::string &uuid, Directory::Done done)> merged;
    };
    void on_change(Effects effects)
    {
        effects_ = std::move(effects);
    }

    void offer(Operations &operations);
    // Makes the base the root of the tree's first partition, unless the tree says so already.
    void mark_base(Directory::Done done);

private:
    struct Target {
        std::string dn;
        std::string uuid; // what an entry is known by while its name may change
        std::string state;

        bool is_root() const
        {
            return is_partition_root(state);
        }
    };
    using Use = std::function<void(const Target &)>;
    enum class Kind { split, merge };
    struct Running;
    using Process = std::shared_ptr<Running>;

    void split(std::shared_ptr<Call> call);
    void merge(std::shared_ptr<Call> call);
    void abort(std::shared_ptr<Call> call);
    void count(std::shared_ptr<Call> call);
    void change_orphan(std::shared_ptr<Call> call, int operation);

    // Hands on the entry that the call is about, and the root of the partition that holds it
    // (above it, when it is itself a root; no uuid when there is none); else answers the call.
    void find(std::shared_ptr<Call> call, const std::string &dn, Use use);
    void find_parent(std::shared_ptr<Call> call, const Target &target, Use use);
    void count_within(std::shared_ptr<Call> call, const Target &root);

    void begin(std::shared_ptr<Call> call, Kind kind, const Target &target, const Target &parent);
    void wait(const Process &process);
    void finish(const Process &process);
    void change_running(const Process &process, const Behalf &behalf,
                        const std::vector<Change> &changes, Directory::Done done);
    void take_effect(const Process &process, Directory::Done done) const;
    Process running_on(const std::string &uuid) const;

    asio::io_context &loop_;
    Directory &directory_;
    std::string base_;
    std::chrono::milliseconds duration_;
    std::list<Process> running_;
    Effects effects_;
};

} // namespace sandbox
