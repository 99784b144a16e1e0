// The twelve partition functions as a table: what each sends and expects, written down here once
// more by hand and not taken from the header.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "ldapx.h"
#include "support/ber.h"

struct Operation {
    std::string function;
    std::string request;  // name it sends
    std::string response; // name it requires
    std::string value;    // request value of call()
    std::string answer;   // response value that it decodes; empty when it wants none
    std::function<int(LDAP *)> call;

    bool decodes() const
    {
        return !answer.empty();
    }
};

inline void PrintTo(const Operation &operation, std::ostream *out)
{
    *out << operation.function;
}

inline std::string administrative(int number)
{
    return "2.16.840.1.424242.1.27.100." + std::to_string(number);
}

namespace partition {

using Flagged = int (*)(LDAP *, char *, int) noexcept;
using Orphan = int (*)(LDAP *, char *, char *) noexcept;
using Count = int (*)(LDAP *, char *, unsigned long *) noexcept;

struct FlaggedFunction {
    const char *name;
    Flagged function;
    int number; // of the request name; the response's is the next one
};
struct OrphanFunction {
    const char *name;
    Orphan function;
    int number;
};
struct CountFunction {
    const char *name;
    Count function;
    int number;
};

inline void PrintTo(const CountFunction &function, std::ostream *out)
{
    *out << function.name; // and not the record's bytes, some of which are padding
}

inline const std::vector<FlaggedFunction> flagged = {
    {"ldap_split_partition", ldap_split_partition, 3},
    {"ldap_create_naming_context", ldap_create_naming_context, 3},
    {"ldap_merge_partitions", ldap_merge_partitions, 5},
    {"ldap_merge_naming_contexts", ldap_merge_naming_contexts, 5},
    {"ldap_abort_partition_operation", ldap_abort_partition_operation, 29},
    {"ldap_abort_naming_context_operation", ldap_abort_naming_context_operation, 29},
};
inline const std::vector<OrphanFunction> orphan = {
    {"ldap_split_orphan_partition", ldap_split_orphan_partition, 39},
    {"ldap_create_orphan_naming_context", ldap_create_orphan_naming_context, 39},
    {"ldap_remove_orphan_partition", ldap_remove_orphan_partition, 41},
    {"ldap_remove_orphan_naming_context", ldap_remove_orphan_naming_context, 41},
};
inline const std::vector<CountFunction> count = {
    {"ldap_partition_entry_count", ldap_partition_entry_count, 13},
    {"ldap_naming_context_entry_count", ldap_naming_context_entry_count, 13},
};

// Every function, called with short arguments.
inline std::vector<Operation> operations()
{
    using namespace support;
    static char dn[] = "o=x";
    static char server[] = "cn=s";
    static char context[] = "o=lost";
    std::vector<::Operation> all;
    all.reserve(flagged.size() + orphan.size() + count.size());
    for (const auto &[name, function, number] : flagged)
        all.push_back({name, administrative(number), administrative(number + 1),
                       bytes("02 01 00 04 03 6f 3d 78"), "", [f = function](LDAP *ld) {
                           return f(ld, dn, 0);
                       }});
    for (const auto &[name, function, number] : orphan)
        all.push_back({name, administrative(number), administrative(number + 1),
                       bytes("04 04 63 6e 3d 73  04 06 6f 3d 6c 6f 73 74"), "",
                       [f = function](LDAP *ld) {
                           return f(ld, server, context);
                       }});
    for (const auto &[name, function, number] : count)
        all.push_back({name, administrative(number), administrative(number + 1),
                       bytes("04 03 6f 3d 78"), bytes("02 01 2a"), [f = function](LDAP *ld) {
                           unsigned long entries = 0;
                           return f(ld, dn, &entries);
                       }});
    return all;
}

} // namespace partition

struct FunctionName {
    template <class Info>
    std::string operator()(const Info &info) const
    {
        return info.param.function;
    }
};
