#include "subschema.h"

#include <algorithm>
#include <ldap_schema.h>
#include <memory>

namespace sandbox {

namespace {

std::string lower(std::string_view text)
{
    std::string result(text);
    for (char &c : result)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + ('a' - 'A'));
    return result;
}

std::vector<std::string> list(char **texts)
{
    std::vector<std::string> found;
    for (char **text = texts; text != nullptr && *text != nullptr; ++text)
        found.push_back(lower(*text));
    return found;
}

// The names and the OID that a definition can be asked for by.
std::vector<std::string> keys(char **names, const char *oid)
{
    std::vector<std::string> found = list(names);
    if (oid != nullptr)
        found.push_back(lower(oid));
    return found;
}

const std::vector<std::string> &values(const Entry &entry, std::string_view name)
{
    static const std::vector<std::string> none;
    for (const Attribute &attribute : entry.attributes)
        if (attribute.name == name)
            return attribute.values;
    return none;
}

} // namespace

void Subschema::read(Directory &directory, Directory::Done done)
{
    directory.read(as_administrator, "cn=Subschema", {"attributeTypes", "objectClasses"},
                   [this, done = std::move(done)](const Result &result, const Entry &entry) {
                       if (result.ok())
                           learn(entry);
                       done(result);
                   });
}

void Subschema::learn(const Entry &subschema)
{
    int code = 0;
    const char *error = nullptr;
    std::map<std::string, std::string> parents; // of attributes without a syntax of their own
    for (const std::string &text : values(subschema, "attributeTypes")) {
        const std::unique_ptr<LDAPAttributeType, void (*)(LDAPAttributeType *)> type(
            ldap_str2attributetype(text.c_str(), &code, &error, LDAP_SCHEMA_ALLOW_ALL),
            ldap_attributetype_free);
        if (!type)
            continue;
        for (const std::string &key : keys(type->at_names, type->at_oid)) {
            if (type->at_syntax_oid != nullptr)
                syntaxes_[key] = type->at_syntax_oid;
            else if (type->at_sup_oid != nullptr)
                parents[key] = lower(type->at_sup_oid);
        }
    }
    for (const auto &[name, first] : parents) {
        std::string parent = first;
        for (int depth = 0; depth < 20 && !syntaxes_.contains(parent) && parents.contains(parent);
             ++depth)
            parent = parents.at(parent);
        if (const auto found = syntaxes_.find(parent); found != syntaxes_.end())
            syntaxes_[name] = found->second;
    }
    for (const std::string &text : values(subschema, "objectClasses")) {
        const std::unique_ptr<LDAPObjectClass, void (*)(LDAPObjectClass *)> found(
            ldap_str2objectclass(text.c_str(), &code, &error, LDAP_SCHEMA_ALLOW_ALL),
            ldap_objectclass_free);
        if (!found)
            continue;
        ObjectClass description;
        description.name = found->oc_names != nullptr && found->oc_names[0] != nullptr
                               ? found->oc_names[0]
                               : found->oc_oid;
        description.superiors = list(found->oc_sup_oids);
        description.structural = found->oc_kind == LDAP_SCHEMA_STRUCTURAL;
        for (const std::string &key : keys(found->oc_names, found->oc_oid))
            classes_[key] = description;
    }
}

std::string Subschema::syntax_of(std::string_view attribute) const
{
    const auto found = syntaxes_.find(lower(attribute.substr(0, attribute.find(';'))));
    return found == syntaxes_.end() ? std::string() : found->second;
}

bool Subschema::is_below(const std::string &name, const std::string &other, int depth) const
{
    const auto found = classes_.find(name);
    if (found == classes_.end() || depth > 20)
        return false;
    const std::vector<std::string> &superiors = found->second.superiors;
    return std::any_of(superiors.begin(), superiors.end(), [&](const std::string &superior) {
        return superior == other || is_below(superior, other, depth + 1);
    });
}

std::string Subschema::structural_class(const std::vector<std::string> &classes) const
{
    std::string lowest;
    for (const std::string &each : classes) {
        const std::string name = lower(each);
        const auto found = classes_.find(name);
        if (found != classes_.end() && found->second.structural &&
            (lowest.empty() || is_below(name, lowest)))
            lowest = name;
    }
    return lowest.empty() ? std::string() : classes_.at(lowest).name;
}

} // namespace sandbox
