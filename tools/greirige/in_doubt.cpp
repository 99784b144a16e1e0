#include "in_doubt.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <string_view>

#include "signals.h"

namespace tool {

namespace {

using greirige::AddEntry;
using greirige::Attribute;
using greirige::Change;
using greirige::ChangeKind;
using greirige::DeleteEntry;
using greirige::ModifyEntry;
using greirige::RenameEntry;
using greirige::Update;

constexpr timeval patience{.tv_sec = 60, .tv_usec = 0};

struct FreeMessage {
    void operator()(LDAPMessage *message) const
    {
        ldap_msgfree(message);
    }
};
using Message = std::unique_ptr<LDAPMessage, FreeMessage>;

std::string lower(std::string_view text)
{
    std::string result(text);
    for (char &c : result)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// ---- Names --------------------------------------------------------------------------------------

// A name from the top of the tree down, each part ended by a zero byte, so that a name is the
// beginning of those below it. Names that are equal in the directory are equal here as far as case,
// blanks and the order of a part's values go. What is no name is empty: the top of everything.
std::string comparable(const std::string &name)
{
    LDAPDN dn = nullptr;
    if (ldap_str2dn(name.c_str(), &dn, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS || dn == nullptr)
        return {};
    std::vector<std::string> parts;
    for (LDAPRDN *rdn = dn; *rdn != nullptr; ++rdn) {
        std::vector<std::string> values;
        for (LDAPAVA **ava = *rdn; *ava != nullptr; ++ava) {
            std::string value =
                lower({(*ava)->la_value.bv_val, static_cast<std::size_t>((*ava)->la_value.bv_len)});
            std::erase_if(value, [](char c) { return c == ' ' || c == '\0'; });
            values.push_back(lower({(*ava)->la_attr.bv_val, (*ava)->la_attr.bv_len}) + '=' + value);
        }
        std::sort(values.begin(), values.end());
        std::string part;
        for (const std::string &value : values)
            part += value + '+';
        parts.push_back(part);
    }
    ldap_dnfree(dn);
    std::string all;
    for (auto part = parts.rbegin(); part != parts.rend(); ++part)
        all += *part + '\0';
    return all;
}

std::string parent_of(const std::string &name)
{
    LDAPDN dn = nullptr;
    if (ldap_str2dn(name.c_str(), &dn, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS || dn == nullptr)
        return {};
    char *text = nullptr;
    ldap_dn2str(dn + 1, &text, LDAP_DN_FORMAT_LDAPV3);
    std::string parent = text != nullptr ? text : "";
    ldap_memfree(text);
    ldap_dnfree(dn);
    return parent;
}

std::string name_after(const RenameEntry &rename)
{
    const std::string superior = rename.new_superior.value_or(parent_of(rename.dn));
    return rename.new_rdn + (superior.empty() ? "" : ',' + superior);
}

const std::string &name_of(const Update &update)
{
    return std::visit([](const auto &each) -> const std::string & { return each.dn; }, update);
}

bool moves_a_subtree(const Update &update)
{
    return std::holds_alternative<DeleteEntry>(update) ||
           std::holds_alternative<RenameEntry>(update);
}

std::vector<std::string> names_of(const Update &update)
{
    std::vector<std::string> names{comparable(name_of(update))};
    if (const auto *rename = std::get_if<RenameEntry>(&update))
        names.push_back(comparable(name_after(*rename)));
    return names;
}

// ---- Entries ------------------------------------------------------------------------------------

// The server's answer; without one nothing is known of what was asked.
int answered(LDAP *ld, int code)
{
    if (code >= 0)
        return code;
    leave_if_interrupted();
    throw Lost{greirige::detail::failure(ld, code, "search")};
}

// What of an entry matters.
class Entry {
public:
    // Nothing when there is none, or none that can be seen; code says which.
    static std::optional<Entry> read(LDAP *ld, const std::string &name,
                                     const std::vector<std::string> &attributes,
                                     int *code = nullptr)
    {
        std::vector<char *> wanted;
        wanted.reserve(attributes.size() + 2);
        for (const std::string &attribute : attributes)
            wanted.push_back(const_cast<char *>(attribute.c_str()));
        if (wanted.empty())
            wanted.push_back(const_cast<char *>(LDAP_NO_ATTRS));
        wanted.push_back(nullptr);
        timeval limit = patience;
        LDAPMessage *received = nullptr;
        const int result =
            ldap_search_ext_s(ld, name.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", wanted.data(),
                              0, nullptr, nullptr, &limit, 1, &received);
        Message message(received);
        if (code != nullptr)
            *code = result;
        if (answered(ld, result) != LDAP_SUCCESS || ldap_first_entry(ld, received) == nullptr)
            return std::nullopt;
        return Entry(ld, name, std::move(message));
    }

    std::size_t count(const std::string &attribute) const
    {
        const auto found = values_.find(lower(attribute));
        return found == values_.end() ? 0 : found->second.size();
    }
    std::vector<std::string> values(const std::string &attribute) const
    {
        const auto found = values_.find(lower(attribute));
        return found == values_.end() ? std::vector<std::string>()
                                      : std::vector(found->second.begin(), found->second.end());
    }
    // The value is there, as the server compares values.
    bool holds(const std::string &attribute, const std::string &value) const
    {
        const auto found = values_.find(lower(attribute));
        if (found != values_.end() && found->second.contains(value))
            return true;
        berval bytes{value.size(), const_cast<char *>(value.data())};
        return answered(ld_, ldap_compare_ext_s(ld_, name_.c_str(), attribute.c_str(), &bytes,
                                                nullptr, nullptr)) == LDAP_COMPARE_TRUE;
    }

private:
    Entry(LDAP *ld, std::string name, Message message) : ld_(ld), name_(std::move(name))
    {
        LDAPMessage *entry = ldap_first_entry(ld, message.get());
        BerElement *ber = nullptr;
        for (char *attribute = ldap_first_attribute(ld, entry, &ber); attribute != nullptr;
             attribute = ldap_next_attribute(ld, entry, ber)) {
            berval **values = ldap_get_values_len(ld, entry, attribute);
            for (berval **value = values; value != nullptr && *value != nullptr; ++value)
                values_[lower(attribute)].emplace((*value)->bv_val, (*value)->bv_len);
            ldap_value_free_len(values);
            ldap_memfree(attribute);
        }
        ber_free(ber, 0);
    }

    LDAP *ld_;
    std::string name_;
    std::map<std::string, std::set<std::string>> values_;
};

bool exists(LDAP *ld, const std::string &name)
{
    return Entry::read(ld, name, {}).has_value();
}

bool is_gone(LDAP *ld, const std::string &name)
{
    int code = LDAP_SUCCESS;
    return !Entry::read(ld, name, {}, &code) && code == LDAP_NO_SUCH_OBJECT;
}

// Servers keep passwords in another form than they were sent in.
bool is_password(const std::string &attribute)
{
    return lower(attribute) == "userpassword" || lower(attribute) == "authpassword";
}

// ---- Updates ------------------------------------------------------------------------------------

bool done(LDAP *ld, const AddEntry &add)
{
    std::vector<std::string> names;
    names.reserve(add.attributes.size());
    for (const Attribute &attribute : add.attributes)
        names.push_back(attribute.name);
    const auto entry = Entry::read(ld, add.dn, names);
    return entry &&
           std::all_of(add.attributes.begin(), add.attributes.end(), [&](const Attribute &each) {
               return is_password(each.name) ||
                      std::all_of(each.values.begin(), each.values.end(), [&](const auto &value) {
                          return entry->holds(each.name, value);
                      });
           });
}

bool done(LDAP *ld, const DeleteEntry &remove)
{
    return is_gone(ld, remove.dn);
}

bool done(LDAP *ld, const RenameEntry &rename)
{
    return is_gone(ld, rename.dn) && exists(ld, name_after(rename));
}

// What a modification leaves of an attribute: all of its values where that is known, or values that
// are there and values that are not.
struct Left {
    std::string attribute;
    bool all = false;
    std::set<std::string> there = {};
    std::set<std::string> gone = {};
};

std::map<std::string, Left> left_by(const ModifyEntry &modify)
{
    std::map<std::string, Left> all;
    for (const Change &change : modify.changes) {
        Left &left = all[lower(change.attribute.name)];
        left.attribute = change.attribute.name;
        const std::vector<std::string> &values = change.attribute.values;
        const bool removes_all = change.kind == ChangeKind::remove && values.empty();
        if (change.kind == ChangeKind::replace || removes_all)
            left = {left.attribute, true};
        for (const std::string &value : values) {
            const bool removed = change.kind == ChangeKind::remove;
            (removed ? left.there : left.gone).erase(value);
            (removed ? left.gone : left.there).insert(value);
        }
    }
    return all;
}

bool done(LDAP *ld, const ModifyEntry &modify)
{
    const auto all = left_by(modify);
    std::vector<std::string> names;
    names.reserve(all.size());
    for (const auto &[key, left] : all)
        names.push_back(left.attribute);
    const auto entry = Entry::read(ld, modify.dn, names);
    return entry && std::all_of(all.begin(), all.end(), [&](const auto &each) {
               const Left &left = each.second;
               const auto holds = [&](const std::string &value) {
                   return entry->holds(left.attribute, value);
               };
               return (!left.all || entry->count(left.attribute) == left.there.size()) &&
                      std::all_of(left.there.begin(), left.there.end(), holds) &&
                      std::none_of(left.gone.begin(), left.gone.end(), holds);
           });
}

std::vector<std::string> incremented_by(const Update &update)
{
    std::vector<std::string> attributes;
    if (const auto *modify = std::get_if<ModifyEntry>(&update))
        for (const Change &change : modify->changes)
            if (change.kind == ChangeKind::increment)
                attributes.push_back(change.attribute.name);
    return attributes;
}

} // namespace

bool has_been_done(LDAP *ld, const Update &update)
{
    return std::visit([ld](const auto &each) { return done(ld, each); }, update);
}

bool may_have_been_done(int code)
{
    return code == LDAP_ALREADY_EXISTS || code == LDAP_NO_SUCH_OBJECT ||
           code == LDAP_TYPE_OR_VALUE_EXISTS || code == LDAP_NO_SUCH_ATTRIBUTE;
}

bool is_increment(const Update &update)
{
    return !incremented_by(update).empty();
}

Json values_before(LDAP *ld, const Update &update)
{
    const auto attributes = incremented_by(update);
    const auto entry = Entry::read(ld, name_of(update), attributes);
    if (!entry)
        return nullptr;
    Json values = Json::object();
    for (const std::string &attribute : attributes) {
        Json &list = values[lower(attribute)] = Json::array();
        for (const std::string &value : entry->values(attribute))
            list.push_back(json_text(value));
    }
    return values;
}

std::optional<bool> has_been_incremented(LDAP *ld, const Update &update, const Json &before)
{
    const Json now = values_before(ld, update);
    if (now.is_null() || before.is_null())
        return std::nullopt;
    return now != before;
}

// ---- Names under way ----------------------------------------------------------------------------

bool NamesUnderWay::conflicts(const Update &update) const
{
    for (const std::string &name : names_of(update)) {
        if (names_.contains(name) || (name.empty() && !names_.empty()))
            return true;
        // Something above it is being moved or removed.
        for (std::size_t end = name.find('\0'); !subtrees_.empty() && end != std::string::npos;
             end = name.find('\0', end + 1))
            if (subtrees_.contains(name.substr(0, end + 1)))
                return true;
        // It moves or removes what is below it.
        const auto below = names_.lower_bound(name);
        if (moves_a_subtree(update) && below != names_.end() && below->starts_with(name))
            return true;
    }
    return names_.contains(std::string());
}

NamesUnderWay::Names NamesUnderWay::add(const Update &update)
{
    Names names = names_of(update);
    for (const std::string &name : names) {
        names_.insert(name);
        if (moves_a_subtree(update))
            subtrees_.insert(name);
    }
    return names;
}

void NamesUnderWay::remove(const Names &names)
{
    for (const std::string &name : names) {
        if (const auto found = names_.find(name); found != names_.end())
            names_.erase(found);
        if (const auto found = subtrees_.find(name); found != subtrees_.end())
            subtrees_.erase(found);
    }
}

} // namespace tool
