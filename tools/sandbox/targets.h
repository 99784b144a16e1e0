// What requests name: servers and partitions, looked up with the rights of the client that asks.
// Each lookup hands on what it found, or answers the call:
//
//   noSuchObject          the entry is not there, or the client may not see it
//   unwillingToPerform    the entry is not the root of a partition
//   objectClassViolation  the entry is not a server
#pragma once

#include "operations.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sandbox {

struct PartitionRoot {
    std::string dn;
    std::string uuid; // what the entry is known by while its name may change
    std::string state;
};

void find_partition(Directory &directory, const std::shared_ptr<Call> &call, const std::string &dn,
                    std::function<void(const PartitionRoot &)> use);

// The server's entry with these attributes.
void find_server(Directory &directory, const std::shared_ptr<Call> &call, const std::string &dn,
                 std::vector<std::string> attributes, std::function<void(const Entry &)> use);

// Entries that are roots of partitions now: a merging one is, a splitting one is not yet.
std::string partition_roots();
bool is_partition_root(std::string_view state);

} // namespace sandbox
