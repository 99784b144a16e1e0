#include "system_tree.h"

#include "schema.h"

#include <utility>

namespace sandbox {

void ensure_entries(Directory &directory, std::vector<NewEntry> entries, Directory::Done done)
{
    if (entries.empty())
        return done({});
    const NewEntry first = std::move(entries.front());
    entries.erase(entries.begin());
    directory.add(
        as_administrator, first.dn, first.attributes,
        [&directory, entries = std::move(entries), done = std::move(done)](const Result &result) {
            if (!result.ok() && result.code != LDAP_ALREADY_EXISTS)
                return done(result);
            ensure_entries(directory, entries, done);
        });
}

std::string system_dn(const std::string &name)
{
    return "cn=" + name + "," + system_base;
}

std::vector<NewEntry> system_container(const std::string &name, const std::string &description)
{
    const auto container = [](const std::string &dn, const std::string &cn,
                              const std::string &about) {
        return NewEntry{
            dn, {{"objectClass", {"systemContainer"}}, {"cn", {cn}}, {"description", {about}}}};
    };
    return {container(system_base, "system", "The sandbox's own entries"),
            container(system_dn(name), name, description)};
}

} // namespace sandbox
