#include "backup.h"

#include "dn.h"
#include "ldapx.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <strings.h>
#include <utility>

namespace sandbox {

namespace {

// What slapd makes up when it is asked, or writes itself whoever makes a change.
constexpr std::array<std::string_view, 5> computed = {
    "entryDN", "subschemaSubentry", "hasSubordinates", "structuralObjectClass", "entryCSN"};

// What slapd notes of every change, unless the change itself says otherwise.
constexpr std::array<std::string_view, 2> noted = {"modifiersName", "modifyTimestamp"};

struct Marks {
    std::int64_t mts = 1;
    std::int64_t revision = 1;
};

int digits(std::string_view text, std::size_t at, std::size_t count)
{
    int value = 0;
    if (at + count <= text.size())
        std::from_chars(text.data() + at, text.data() + at + count, value);
    return value;
}

// From a CSN, "20260131235959.123456Z#000000#000#000000": slapd gives every change one of its own.
Marks marks_of(const std::string &csn)
{
    std::tm time{};
    time.tm_year = digits(csn, 0, 4) - 1900;
    time.tm_mon = digits(csn, 4, 2) - 1;
    time.tm_mday = digits(csn, 6, 2);
    time.tm_hour = digits(csn, 8, 2);
    time.tm_min = digits(csn, 10, 2);
    time.tm_sec = digits(csn, 12, 2);
    constexpr std::int64_t year_2000 = 946684800;
    const std::int64_t seconds = timegm(&time) - year_2000;
    // Four bytes each, never 0: that long the clock goes on until 2068.
    return {std::clamp<std::int64_t>(seconds, 1, INT32_MAX), digits(csn, 15, 6) + 1};
}

bool is_same_name(const std::string &one, const std::string &other)
{
    const auto first = normalised_dn(one);
    const auto second = normalised_dn(other);
    return first && second && strcasecmp(first->c_str(), second->c_str()) == 0;
}

// The relax rules control: slapd keeps what it would otherwise write itself. slapd takes it from
// the administrator only.
const std::string relax = ber::sequence(ber::octets(LDAP_CONTROL_RELAX), ber::boolean(true));

std::string strings(const std::vector<std::string> &values)
{
    std::string content;
    for (const std::string &value : values)
        content += ber::octets(value);
    return content;
}

std::string attribute_element(const std::string &name, const std::vector<std::string> &values)
{
    return ber::sequence(ber::octets(name), ber::set(strings(values)));
}

const Attribute *find_attribute(const Entry &entry, const std::string &name)
{
    const auto found = std::find_if(entry.attributes.begin(), entry.attributes.end(),
                                    [&name](const Attribute &each) {
                                        return strcasecmp(each.name.c_str(), name.c_str()) == 0;
                                    });
    return found == entry.attributes.end() ? nullptr : &*found;
}

Entry without_computed(Entry entry)
{
    const auto is_computed = [](const Attribute &attribute) {
        return std::find(computed.begin(), computed.end(), attribute.name) != computed.end();
    };
    entry.attributes.erase(
        std::remove_if(entry.attributes.begin(), entry.attributes.end(), is_computed),
        entry.attributes.end());
    return entry;
}

// The changes that make one entry out of the other; empty when there are none. What slapd notes is
// among them even where both say the same: the change itself is noted too.
std::string changes_between(const Entry &now, const Entry &then)
{
    const auto replace = [](const std::string &name, const std::vector<std::string> &values) {
        return ber::sequence(ber::enumerated(LDAP_MOD_REPLACE), attribute_element(name, values));
    };
    std::string changes;
    std::string notes;
    for (const Attribute &attribute : then.attributes) {
        const Attribute *present = find_attribute(now, attribute.name);
        if (present == nullptr || present->values != attribute.values)
            changes += replace(attribute.name, attribute.values);
        else if (std::find(noted.begin(), noted.end(), attribute.name) != noted.end())
            notes += replace(attribute.name, attribute.values);
    }
    for (const Attribute &attribute : now.attributes)
        if (find_attribute(then, attribute.name) == nullptr)
            changes += replace(attribute.name, {});
    return changes.empty() ? changes : changes + notes;
}

// With all rights, though monitors shall know which client asked for it.
Behalf administrator_for(const Call &call)
{
    Behalf behalf = call.behalf();
    behalf.dn.reset();
    return behalf;
}

// The answer to a change, told to whoever asked for the restore.
Directory::Response answering(const std::shared_ptr<Call> &call)
{
    return [call](const ber::Element &response) {
        ber::Reader reader(response.content);
        call->answer(read_result(reader));
    };
}

// SEQUENCE { INTEGER count, SET { SEQUENCE { INTEGER size } ... } }
std::string chunk_table(const std::vector<std::size_t> &chunks)
{
    std::string members;
    for (const std::size_t size : chunks)
        members += ber::sequence(ber::integer(static_cast<std::int64_t>(size)));
    return ber::sequence(ber::integer(static_cast<std::int64_t>(chunks.size())), ber::set(members));
}

// The table's sizes, which must add up to the size of the data.
std::vector<std::size_t> read_chunk_table(ber::Reader table, std::size_t size)
{
    const std::int32_t count = table.integer();
    ber::Reader members = table.enter(ber::set_tag);
    table.finish();
    std::vector<std::size_t> chunks;
    std::size_t sum = 0;
    while (!members.at_end()) {
        ber::Reader member = members.enter(ber::sequence_tag);
        const std::int32_t chunk = member.integer();
        member.finish();
        if (chunk < 0)
            throw ber::Malformed("a chunk of negative size");
        chunks.push_back(static_cast<std::size_t>(chunk));
        sum += chunks.back();
    }
    if (count < 0 || static_cast<std::size_t>(count) != chunks.size())
        throw ber::Malformed("the chunk table announces " + std::to_string(count) +
                             " chunks and lists " + std::to_string(chunks.size()));
    if (sum != size)
        throw ber::Malformed("the chunks add up to " + std::to_string(sum) + " bytes, not to " +
                             std::to_string(size));
    return chunks;
}

} // namespace

Backups::Backups(Directory &directory, std::string base, std::optional<std::string> password)
    : directory_(directory), base_(std::move(base)), password_(std::move(password))
{
}

void Backups::offer(Operations &operations)
{
    operations.add({LDAPX_BACKUP_OBJECT_REQUEST, LDAPX_BACKUP_OBJECT_RESPONSE, "back up object",
                    [this](std::shared_ptr<Call> call) {
                        back_up(std::move(call));
                    }});
    operations.add({LDAPX_RESTORE_OBJECT_REQUEST, LDAPX_RESTORE_OBJECT_RESPONSE, "restore object",
                    [this](std::shared_ptr<Call> call) {
                        restore(std::move(call));
                    }});
}

bool Backups::refuse(Call &call, const std::string &password) const
{
    if (call.identity().empty())
        call.answer({LDAP_INSUFFICIENT_ACCESS,
                     call.operation().title + " is not for anonymous clients: bind first",
                     {}});
    else if (password_ && *password_ != password)
        call.answer({LDAP_INVALID_CREDENTIALS, "this is not the sandbox's backup password", {}});
    else
        return false;
    return true;
}

void Backups::authorize(const std::shared_ptr<Call> &call, const std::string &dn,
                        std::function<void()> go_on)
{
    directory_.may_change(call->behalf(), dn, [call, dn, go_on = std::move(go_on)](Result result) {
        if (result.ok())
            return go_on();
        if (result.code == LDAP_INSUFFICIENT_ACCESS)
            result.diagnostic =
                call->operation().title + ": " + call->identity() + " may not change " + dn;
        call->answer(result);
    });
}

// ---- Backup -----------------------------------------------------------------------------------

// OCTET STRING dn, INTEGER mts, INTEGER revision, OCTET STRING password
void Backups::back_up(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string dn = value.text();
    value.integer();
    value.integer();
    const std::string password = value.text();
    value.finish();
    if (refuse(*call, password))
        return;
    authorize(call, dn, [this, call, dn, password] { hand_out(call, dn, password); });
}

// INTEGER size, INTEGER mts, INTEGER revision, OCTET STRING data, chunk table
void Backups::hand_out(const std::shared_ptr<Call> &call, const std::string &dn,
                       const std::string &password)
{
    directory_.read(
        as_administrator, dn, {LDAP_ALL_USER_ATTRIBUTES, LDAP_ALL_OPERATIONAL_ATTRIBUTES},
        [call, password](const Result &result, const Entry &entry) {
            if (!result.ok())
                return call->answer(result);
            const std::string hash = hash_password(password);
            if (hash.empty())
                return call->answer({LDAP_INVALID_CREDENTIALS,
                                     "a password of this length or with a zero byte cannot be kept",
                                     {}});
            const CopyBytes copy = write_copy({without_computed(entry), hash});
            const Marks marks = marks_of(entry.value("entryCSN"));
            call->answer({}, ber::integer(static_cast<std::int64_t>(copy.data.size())) +
                                 ber::integer(marks.mts) + ber::integer(marks.revision) +
                                 ber::octets(copy.data) + chunk_table(copy.chunks));
        });
}

// ---- Restore ----------------------------------------------------------------------------------

// OCTET STRING dn, OCTET STRING password, INTEGER size, OCTET STRING data, chunk table
void Backups::restore(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string dn = value.text();
    const std::string password = value.text();
    const std::int32_t size = value.integer();
    const std::string_view data = value.octets();
    ber::Reader table = value.enter(ber::sequence_tag);
    value.finish();
    if (size < 0 || static_cast<std::size_t>(size) != data.size())
        throw ber::Malformed("the data has " + std::to_string(data.size()) + " bytes, not " +
                             std::to_string(size));
    const std::vector<std::size_t> chunks = read_chunk_table(table, data.size());
    if (refuse(*call, password))
        return;

    ObjectCopy copy;
    try {
        copy = read_copy(data, chunks);
    } catch (const DamagedCopy &damage) {
        return call->answer(
            {LDAP_CONSTRAINT_VIOLATION, std::string("the copy is damaged: ") + damage.what(), {}});
    }
    if (!is_password(password, copy.password_hash))
        return call->answer(
            {LDAP_INVALID_CREDENTIALS, "the copy was taken with another password", {}});
    if (!is_same_name(dn, copy.entry.dn))
        return call->answer({LDAP_CONSTRAINT_VIOLATION, "the copy is one of " + copy.entry.dn, {}});
    find(call, copy);
}

void Backups::find(const std::shared_ptr<Call> &call, const ObjectCopy &copy)
{
    const auto now = std::make_shared<std::string>();
    directory_.search(
        as_administrator,
        {base_, LDAP_SCOPE_SUBTREE, filter::equal("entryUUID", copy.entry.value("entryUUID"))},
        [now](const Entry &entry) { *now = entry.dn; },
        [this, call, copy, now](const Result &result) {
            if (!result.ok() && result.code != LDAP_NO_SUCH_OBJECT)
                return call->answer(result);
            if (now->empty())
                return add(call, copy);
            authorize(call, *now, [this, call, copy, now] {
                if (!is_same_name(*now, copy.entry.dn))
                    return call->answer(
                        {LDAP_ALREADY_EXISTS, "the entry has the name " + *now + " now", {}});
                change_back(call, copy, *now);
            });
        });
}

void Backups::add(const std::shared_ptr<Call> &call, const ObjectCopy &copy)
{
    std::string attributes;
    for (const Attribute &each : copy.entry.attributes)
        attributes += attribute_element(each.name, each.values);
    const std::string request =
        ber::constructed(LDAP_REQ_ADD, ber::octets(copy.entry.dn), ber::sequence(attributes));
    authorize(call, parent_of(copy.entry.dn), [this, call, request] {
        directory_.send(administrator_for(*call), request, relax, answering(call));
    });
}

void Backups::change_back(const std::shared_ptr<Call> &call, const ObjectCopy &copy,
                          const std::string &dn)
{
    directory_.read(
        as_administrator, dn, {LDAP_ALL_USER_ATTRIBUTES, LDAP_ALL_OPERATIONAL_ATTRIBUTES},
        [this, call, copy](const Result &result, const Entry &entry) {
            if (!result.ok())
                return call->answer(result);
            const std::string changes = changes_between(without_computed(entry), copy.entry);
            if (changes.empty())
                return call->answer({});
            directory_.send(
                administrator_for(*call),
                ber::constructed(LDAP_REQ_MODIFY, ber::octets(entry.dn), ber::sequence(changes)),
                relax, answering(call));
        });
}

} // namespace sandbox
