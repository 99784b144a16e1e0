// Requests for synchronisation: receive all updates, send all updates, synchronise a partition,
// synchronise the schema.
//
// The sandbox has one tree, so no update travels. What was asked for is kept and carried through
// its states: an entry cn=N,cn=synchronisation,cn=system for each request, of which the last
// thousand stay, with its kind (receive, send, partition, schema), partition, servers, who asked
// and when, the delay, and the state: waiting until the delay, in seconds, is over, then done.
// The replicas that are brought up to date have the state "updating" meanwhile and a new
// modification time afterwards: the receiver's own, all but the sender's own, the server's own.
//
// Result codes, beside those that slapd gives for entries and clients, and those of targets.h:
//   protocolError            the request value is not what the operation asks for
//   constraintViolation      the delay is negative
//   noSuchObject             a server holds no replica of the partition
//   unwillingToPerform       the receiver and the source are the same server
//   busy                     a thousand requests are waiting
//   insufficientAccessRights the client is anonymous, or may not add to cn=synchronisation
#pragma once

#include "operations.h"
#include "replicas.h"

#include <asio.hpp>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace sandbox {

class Synchronisation {
public:
    static constexpr int kept = 1000;
    using Counted = std::function<void(std::size_t)>;

    Synchronisation(asio::io_context &loop, Directory &directory, Replicas &replicas);

    void offer(Operations &operations);
    void prepare(Directory::Done done);
    // Does what is waiting now, and tells how many requests that were.
    void finish_waiting(Counted done);

private:
    struct Request {
        std::string kind;
        std::string partition_dn;
        std::string partition_uuid;
        std::string server; // empty when there is none
        std::string source;
        int delay = 0;
        int number = 0;
        std::set<int> replicas; // the numbers of those that it brings up to date
        std::shared_ptr<asio::steady_timer> timer;
    };
    using Use =
        std::function<void(const PartitionRoot &, const Entry &server, const Replicas::Holders &)>;

    void receive(std::shared_ptr<Call> call);
    void send(std::shared_ptr<Call> call);
    void synchronise_partition(std::shared_ptr<Call> call);
    void synchronise_schema(std::shared_ptr<Call> call);

    void find_holder(std::shared_ptr<Call> call, const std::string &partition,
                     const std::string &server, Use use);
    void begin(std::shared_ptr<Call> call, Request request);
    void record(const Request &request, const std::string &requester, const Behalf &behalf,
                Directory::Done done);
    void wait(std::shared_ptr<Call> call, Request request);
    void finish(const Request &request, const Directory::Done &done);
    bool is_awaited(int replica) const;

    asio::io_context &loop_;
    Directory &directory_;
    Replicas &replicas_;
    int last_number_ = 0;
    std::map<int, Request> waiting_;
};

} // namespace sandbox
