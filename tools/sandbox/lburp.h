// Bulk updates (LBURP, RFC 4373): numbered batches of updates that slapd carries out.
//
// A client opens one bulk update at a time on its connection, sends batches numbered from 1 and
// ends it with the number after the last one; it ends with the connection too. Batches may be
// sent without waiting for answers and may arrive in any order: they are applied in the order of
// their numbers, with the rights that the client had when it sent them. The operations of a batch
// are numbered from 1. One that fails does not keep the others from being applied. Several are
// under way in slapd at a time, but only such as do not depend on each other.
//
// Result codes of a batch:
//   success                  every operation succeeded
//   other                    some failed; the value lists them:
//                            SEQUENCE { operationNumber, SEQUENCE { code, matchedDN, message } }
//                            ...
//   protocolError            the batch cannot be read
//   operationsError          no bulk update is open, or its number has been there already, or a
//                            batch before it never came
//   adminLimitExceeded       it holds more operations than the transaction size
//   busy                     too much waits already; send it again when answers have come
// Except for the first two nothing of the batch is applied, and its number stays free. A client
// that abandons a batch gives up its answer only: later batches build on it.
//
// Start: insufficientAccessRights for anonymous clients, unwillingToPerform for a style other than
// the incremental one, operationsError when one is open. End: answered when everything has been
// applied; operationsError when its number is not the one after the last batch. Batches that wait
// for one that never came are then refused too, and the bulk update stays open.
//
// A rename's new superior may come as a plain OCTET STRING instead of [0]. A new superior that
// repeats the new RDN says nothing: the entry stays below its parent.
#pragma once

#include "directory.h"
#include "operations.h"

#include <memory>
#include <string>

namespace sandbox {

struct BulkUpdateLimits {
    std::int32_t transaction_size = 500;    // operations in a batch
    std::size_t waiting = 64 * 1024 * 1024; // bytes of batches that wait
};

class BulkUpdates {
public:
    BulkUpdates(Directory &directory, const std::string &base, BulkUpdateLimits limits);

    void offer(Operations &operations);

private:
    class Session;

    void start(std::shared_ptr<Call> call);
    void update(std::shared_ptr<Call> call);
    void end(std::shared_ptr<Call> call);
    std::shared_ptr<Session> session_of(const Call &call) const;

    Directory &directory_;
    std::string groups_;
    BulkUpdateLimits limits_;
};

} // namespace sandbox
