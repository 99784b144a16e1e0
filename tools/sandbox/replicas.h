// Replicas of partitions on servers: add, remove, change type, information, list.
//
// Which server holds what stands in the tree, a value of heldReplica on the server's object:
//
//   number=1 type=master state=on flags=0 modified=20260101120000Z purged=20260101120000Z
//       id=ENTRYUUID partition=DN
//
// in one line. The partition is known by the entryUUID of its root, so a renamed one keeps its
// replicas; the DN is the one it had when the value was written. slapd decides who may change the
// server's object, and deletes and renames it with what it holds.
//
// A partition's first replica is its master, and it always has just one: making another replica
// the master makes the former master a secondary. A split gives the new partition the replicas of
// the one above, a merge takes those of the merged partition away. A change of a replica sets its
// modification time to now, and to a later second than before in any case.
//
// The information that a client gets: rootID is made of the first 31 bits of the root's
// entryUUID; state is 0 (on), 1 (the partition is merging into the one
// above), 2 (updates are under way); the times are seconds since 1970; localReplicaID is a number
// that no other replica of this sandbox has; flags are those that the replica was added or last
// retyped with.
//
// Result codes, beside those that slapd gives for entries and clients, and those of targets.h:
//   protocolError            the request value is not what the operation asks for
//   constraintViolation      the type is none of the six
//   entryAlreadyExists       add: the server holds a replica of the partition
//   busy                     add, remove, change type: the partition is merging
//   noSuchObject             the server holds no replica of the partition
//   unwillingToPerform       add: a second master, or a first replica that is none; remove,
//                            change type: it is the master
#pragma once

#include "operations.h"
#include "targets.h"
#include "turns.h"

#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

struct Replica {
    int number = 0;
    int type = 0;
    bool updating = false;
    int flags = 0;
    std::time_t modified = 0;
    std::time_t purged = 0;
    std::string partition_uuid;
    std::string partition_dn;
};
std::string text_of(const Replica &replica);
std::optional<Replica> replica_of(const std::string &text);

// A replica where it is held, with the text that stands there.
struct HeldReplica {
    std::string server;
    std::string text;
    Replica replica;
};

class Replicas {
public:
    using Holders = std::vector<HeldReplica>;
    using Counted = std::function<void(const Result &, std::size_t)>;
    // Changes a replica; false when there is nothing to change.
    using Edit = std::function<bool(Replica &)>;

    Replicas(asio::io_context &loop, Directory &directory, std::string base);

    void offer(Operations &operations);
    // Puts the master of the whole tree on its first server, if it has one and nobody holds it.
    void prepare(Directory::Done done);

    // What becomes of the replicas when a partition is split off, and when it is merged away.
    void inherit(const std::string &root, const std::string &uuid, const std::string &parent_uuid,
                 Directory::Done done);
    void forget(const std::string &uuid, Directory::Done done);

    // All replicas of a partition; of every partition without uuid.
    void find(const std::string &uuid, std::function<void(const Result &, const Holders &)> use);
    // Edits all replicas of a partition (every partition without uuid), as the administrator, and
    // tells how many have changed.
    void edit_all(const std::string &uuid, Edit edit, Counted done);
    // Removes the replicas of partitions that are no more.
    void clean(Counted done);

    static void touch(Replica &replica); // sets the modification time

private:
    struct Request {
        int flags = 0;
        int type = 0;
        std::string server;
        std::string partition;
    };
    using Found = std::function<void(const PartitionRoot &, const Entry &server, const Holders &,
                                     const Turn &turn)>;

    void add(std::shared_ptr<Call> call);
    void remove(std::shared_ptr<Call> call);
    void change_type(std::shared_ptr<Call> call);
    void information(std::shared_ptr<Call> call);
    void list(std::shared_ptr<Call> call);

    // INTEGER flags, INTEGER type, OCTET STRING server, OCTET STRING partition.
    static Request read_typed(const Call &call);

    // Looks up what the request names and waits for its turn; else answers the call.
    void change(std::shared_ptr<Call> call, const Request &request, Found use);
    void write(const Behalf &behalf, const HeldReplica &held, const Replica &changed,
               Directory::Done done);
    void
    write_all(std::shared_ptr<std::vector<std::pair<HeldReplica, std::optional<Replica>>>> rest,
              std::size_t done_so_far, Counted done);

    Directory &directory_;
    std::string base_;
    int last_number_ = 0;
    Turns turns_;
};

} // namespace sandbox
