#include "targets.h"

#include "schema.h"

#include <algorithm>
#include <strings.h>
#include <utility>

namespace sandbox {

std::string partition_roots()
{
    return filter::any(
        {filter::equal(partition_state, "on"), filter::equal(partition_state, "merging")});
}

bool is_partition_root(std::string_view state)
{
    return state == "on" || state == "merging";
}

void find_partition(Directory &directory, const std::shared_ptr<Call> &call, const std::string &dn,
                    std::function<void(const PartitionRoot &)> use)
{
    directory.read(call->behalf(), dn, {"entryUUID", partition_state},
                   [call, dn, use = std::move(use)](const Result &result, const Entry &entry) {
                       const std::string state = entry.value(partition_state);
                       if (!result.ok())
                           return call->answer(explained(result, *call, dn));
                       if (!is_partition_root(state))
                           return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                                "\"" + dn + "\" is not the root of a partition",
                                                {}});
                       use({entry.dn, entry.value("entryUUID"), state});
                   });
}

void find_server(Directory &directory, const std::shared_ptr<Call> &call, const std::string &dn,
                 std::vector<std::string> attributes, std::function<void(const Entry &)> use)
{
    attributes.emplace_back("objectClass");
    directory.read(call->behalf(), dn, std::move(attributes),
                   [call, dn, use = std::move(use)](const Result &result, const Entry &entry) {
                       const std::vector<std::string> classes = entry.values("objectClass");
                       const bool is_server =
                           std::any_of(classes.begin(), classes.end(), [](const std::string &name) {
                               return strcasecmp(name.c_str(), directory_server) == 0;
                           });
                       if (!result.ok())
                           return call->answer(explained(result, *call, dn));
                       if (!is_server)
                           return call->answer({LDAP_OBJECT_CLASS_VIOLATION,
                                                "\"" + dn + "\" is not a directoryServer",
                                                {}});
                       use(entry);
                   });
}

} // namespace sandbox
