// A server's replication filter: the classes, and the attributes of each, that it replicates.
//
// It stands on the server's object, one value of replicationFilter in the flat text that the
// client library uses: class$attribute$...$$...$. A server without the attribute has a filter
// without classes. Names are kept as they come, known to the schema or not.
//
// Result codes, beside those that slapd gives for the entry and the client, and those of targets.h:
//   protocolError            the request value is not what the operation asks for
//   constraintViolation      set: a name is empty, or holds a "$" or a zero byte
//   insufficientAccessRights set: the client is anonymous or may not change the server's object
//   other                    get: somebody has written a text there that is no filter
#pragma once

#include "operations.h"

#include <memory>

namespace sandbox {

class Filters {
public:
    explicit Filters(Directory &directory) : directory_(directory) {}

    void offer(Operations &operations);

private:
    void set(std::shared_ptr<Call> call);
    void get(std::shared_ptr<Call> call);

    Directory &directory_;
};

} // namespace sandbox
