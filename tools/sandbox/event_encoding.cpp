#include "event_encoding.h"

#include "traffic.h"

#include "ldap_events.h"

namespace sandbox {

namespace {

// Tags of the general event's parts, of lists of controls and of referrals.
constexpr ber::Tag general_perpetrator = 0x85;
constexpr ber::Tag general_integers = 0x86;
constexpr ber::Tag general_strings = 0xa7;
constexpr ber::Tag control_list = 0x80;
constexpr ber::Tag referral_list = 0x81;

// Connection block, msgID, time.
Record begin(ber::Tag tag, const Origin &origin)
{
    Record record(tag);
    if (origin.client) {
        Record block(ber::sequence_tag);
        block.number("connection", origin.client->number)
            .number("time", origin.begun)
            .text("inetAddr", origin.client->address);
        record.nested(block);
    }
    return record.number("msgID", origin.id).number("time", origin.time);
}

std::string address_bytes(const asio::ip::address &address)
{
    const auto text = [](const auto &bytes) {
        return std::string(bytes.begin(), bytes.end());
    };
    return address.is_v4() ? text(address.to_v4().to_bytes()) : text(address.to_v6().to_bytes());
}

} // namespace

Record &Record::number(std::string_view name, std::int64_t value, ber::Tag tag)
{
    remember(name, std::to_string(value));
    return raw(ber::integer(value, tag));
}

Record &Record::text(std::string_view name, std::string_view value, ber::Tag tag)
{
    remember(name, value);
    return raw(ber::octets(value, tag));
}

Record &Record::list(std::string_view name, const std::vector<std::string> &values, ber::Tag tag)
{
    std::string content;
    for (const std::string &value : values) {
        remember(name, value);
        // What clients send may hold a zero byte. No decoder takes it in a list; elsewhere it ends
        // the string.
        content += ber::sequence(ber::octets(value.substr(0, value.find('\0'))));
    }
    return raw(ber::element(tag, content));
}

Record &Record::optional_list(std::string_view name, const std::vector<std::string> &values,
                              ber::Tag tag)
{
    return values.empty() ? *this : list(name, values, tag);
}

Record &Record::time_stamp(const TimeStamp &stamp)
{
    return raw(ber::sequence(ber::integer(stamp.seconds), ber::integer(stamp.replica),
                             ber::integer(stamp.event)));
}

Record &Record::nested(const Record &record)
{
    fields_.insert(fields_.end(), record.fields_.begin(), record.fields_.end());
    return raw(record.bytes());
}

Record &Record::raw(std::string_view element)
{
    content_.append(element);
    return *this;
}

void Record::remember(std::string_view name, std::string_view value)
{
    if (!value.empty())
        fields_.emplace_back(name, value);
}

// ---- Directory events ---------------------------------------------------------------------------

Record encode_entry(EventType type, const EntryRecord &entry)
{
    return Record(EVT_TAG_ENTRY_INFO)
        .text("perpetratorDN", entry.perpetrator)
        .text("entryDN", entry.entry)
        .text("className", entry.class_name)
        .time_stamp(entry.created)
        .number("verb", type)
        .number("flags", 0)
        .text("newDN", entry.new_dn);
}

Record encode_value(EventType type, const ValueRecord &value)
{
    Record record(EVT_TAG_VALUE_INFO);
    record.text("perpetratorDN", value.perpetrator)
        .text("entryDN", value.entry)
        .text("attributeName", value.attribute)
        .text("syntaxOID", value.syntax)
        .text("className", value.class_name)
        .time_stamp(value.stamp);
    if (!value.value.empty())
        record.text("value", value.value);
    return record.number("verb", type);
}

Record encode_general(EventType type, const GeneralRecord &general)
{
    Record record(EVT_TAG_GENERAL_EVENT);
    record.number("dstime", general.time)
        .number("milliseconds", general.milliseconds)
        .number("verb", type)
        .number("curProcess", general.process)
        .text("perpetratorDN", general.perpetrator, general_perpetrator);
    Record integers(general_integers);
    for (const std::uint32_t each : general.integers)
        integers.number("intValues", each);
    Record strings(general_strings);
    for (const std::string &each : general.strings)
        strings.text("strValues", each);
    // The list of strings is sent even when it is empty: a decoder would take the INTEGER of an
    // address for one more of the integers.
    return record.nested(integers).nested(strings);
}

// ---- Operations ---------------------------------------------------------------------------------

Record encode_bind(const Origin &origin, int type, std::string_view mechanism, int result,
                   const std::vector<std::string> &controls)
{
    return begin(EVT_TAG_AUTH, origin)
        .text("bindDN", origin.bind_dn)
        .number("bindType", type)
        .text("authMechanism", mechanism)
        .number("resultCode", result)
        .optional_list("controlOID", controls, control_list);
}

Record encode_connection(const Client &client, std::uint32_t time)
{
    return Record(EVT_TAG_CONNECTION)
        .number("connection", client.number)
        .number("time", time)
        .text("inetAddr", client.address);
}

Record encode_search(const Origin &origin, const SearchRecord &search, int result)
{
    return begin(EVT_TAG_SEARCH, origin)
        .text("bindDN", origin.bind_dn)
        .text("base", search.base)
        .number("scope", search.scope)
        .text("filter", search.filter)
        .number("resultCode", result)
        .list("attrs", search.attributes)
        .optional_list("controlOID", search.controls, control_list);
}

Record encode_search_entry(const Origin &origin, std::string_view dn, std::string_view class_name,
                           const std::vector<std::string> &attributes)
{
    return begin(EVT_TAG_SEARCH_ENTRY_RESPONSE, origin)
        .text("entryDN", dn)
        .text("className", class_name)
        .number("resultCode", 0)
        .list("attrs", attributes);
}

Record encode_update(const Origin &origin, ber::Tag operation, std::string_view dn,
                     std::string_view class_name, int result,
                     const std::vector<std::string> &controls)
{
    return begin(EVT_TAG_UPDATE, origin)
        .number("operation", operation)
        .text("bindDN", origin.bind_dn)
        .text("entryDN", dn)
        .text("className", class_name)
        .number("resultCode", result)
        .optional_list("controlOID", controls, control_list);
}

Record encode_compare(const Origin &origin, const CompareRecord &compare, int result)
{
    return begin(EVT_TAG_COMPARE, origin)
        .text("bindDN", origin.bind_dn)
        .text("compareDN", compare.dn)
        .text("assertionType", compare.type)
        .text("assertionValue", compare.value)
        .text("className", compare.class_name)
        .number("resultCode", result);
}

Record encode_rename(const Origin &origin, std::string_view old_rdn, std::string_view new_rdn,
                     std::string_view class_name, int result,
                     const std::vector<std::string> &controls)
{
    return begin(EVT_TAG_MODDN, origin)
        .text("bindDN", origin.bind_dn)
        .text("oldRDN", old_rdn)
        .text("newRDN", new_rdn)
        .text("className", class_name)
        .number("resultCode", result)
        .optional_list("controlOID", controls, control_list);
}

Record encode_abandon(const Origin &origin, std::int32_t abandoned, int result)
{
    return begin(EVT_TAG_ABANDON, origin)
        .number("operation", abandoned)
        .text("bindDN", origin.bind_dn)
        .number("resultCode", result);
}

Record encode_extended(const Origin &origin, std::string_view name, int result)
{
    return begin(EVT_TAG_EXTOP, origin)
        .number("operation", LDAP_REQ_EXTENDED)
        .text("extensionOID", name)
        .text("bindDN", origin.bind_dn)
        .number("resultCode", result);
}

Record encode_system_extended(const Origin &origin, int operation, std::string_view name,
                              const std::vector<std::string> &values, int result)
{
    Record record = begin(EVT_TAG_SYS_EXTOP, origin);
    record.number("operation", operation).text("extensionOID", name).text("bindDN", origin.bind_dn);
    constexpr std::string_view names[] = {"value1", "value2", "value3", "value4"};
    for (std::size_t i = 0; i < std::size(names); ++i)
        record.text(names[i], i < values.size() ? values[i] : std::string());
    return record.number("resultCode", result);
}

Record encode_response(const Origin &origin, ber::Tag operation, int result,
                       std::string_view matched_dn, const std::vector<std::string> &referrals)
{
    return begin(EVT_TAG_RESPONSE, origin)
        .number("operation", operation)
        .number("resultCode", result)
        .text("matchedDN", matched_dn)
        .optional_list("referral", referrals, referral_list);
}

Record encode_password(const Origin &origin, std::string_view dn, int type, int result)
{
    return begin(EVT_TAG_PASSWORD_MODIFY, origin)
        .text("bindDN", origin.bind_dn)
        .text("entryDN", dn)
        .number("passwordModifyType", type)
        .number("resultCode", result);
}

Record encode_unknown_operation(const Client &client, std::uint32_t time)
{
    return Record(EVT_TAG_UNKNOWN_OP).number("time", time).text("inetAddr", client.address);
}

// ---- The notification ---------------------------------------------------------------------------

bool is_success(int result)
{
    return result == LDAP_SUCCESS || result == LDAP_COMPARE_TRUE || result == LDAP_COMPARE_FALSE ||
           result == LDAP_SASL_BIND_IN_PROGRESS;
}

std::string encode_event(const Event &event, bool with_address)
{
    std::string trailer;
    if (with_address && event.client) {
        const asio::ip::address address = event.client->peer.address();
        trailer = ber::integer(address.is_v4() ? ipv4_address : ipv6_address) +
                  ber::octets(address_bytes(address));
    }
    return ber::sequence(ber::integer(event.type), ber::integer(event.result), event.record.bytes(),
                         trailer);
}

} // namespace sandbox
