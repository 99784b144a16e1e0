// Records of events and their bytes, in the order in which libgreirige's decoders read them.
#pragma once

#include "ber.h"
#include "event_types.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox {

struct Client;

struct TimeStamp {
    std::uint32_t seconds = 0;
    std::uint32_t replica = 0;
    std::uint32_t event = 0; // tells apart what one second holds
};

// A record that is being written: each call appends one element and remembers its value under
// the name that the field has in ldap_events.h, for filters to match.
class Record {
public:
    using Fields = std::vector<std::pair<std::string_view, std::string>>;

    explicit Record(ber::Tag tag) : tag_(tag) {}

    Record &number(std::string_view name, std::int64_t value, ber::Tag tag = ber::integer_tag);
    Record &text(std::string_view name, std::string_view value, ber::Tag tag = ber::octets_tag);
    // { s } ..., each string a field of this name.
    Record &list(std::string_view name, const std::vector<std::string> &values,
                 ber::Tag tag = ber::sequence_tag);
    // The same, but nothing at all for an empty list.
    Record &optional_list(std::string_view name, const std::vector<std::string> &values,
                          ber::Tag tag);
    Record &time_stamp(const TimeStamp &stamp);
    // Another record as an element of this one.
    Record &nested(const Record &record);
    // An element that is no field.
    Record &raw(std::string_view element);

    ber::Tag tag() const
    {
        return tag_;
    }
    std::string bytes() const
    {
        return ber::element(tag_, content_);
    }
    const Fields &fields() const
    {
        return fields_;
    }

private:
    void remember(std::string_view name, std::string_view value);

    ber::Tag tag_;
    std::string content_;
    Fields fields_;
};

// What the records of all operations begin with: the connection block, msgID, time.
struct Origin {
    std::shared_ptr<const Client> client; // nobody: no connection block
    std::uint32_t begun = 0;              // the block's time: when the request came
    std::int32_t id = 0;
    std::uint32_t time = 0; // when it was answered
    std::string bind_dn;
};

struct EntryRecord { // 0x61
    std::string perpetrator, entry, class_name;
    TimeStamp created;
    std::string new_dn;
};
struct ValueRecord { // 0x62
    std::string perpetrator, entry, attribute, syntax, class_name;
    TimeStamp stamp;
    std::string value; // not sent when empty: the decoder could not read on behind it
};
struct GeneralRecord { // 0x63; at most four integers and three strings
    std::uint32_t time = 0, milliseconds = 0, process = 0;
    std::string perpetrator;
    std::vector<std::uint32_t> integers;
    std::vector<std::string> strings;
};
struct SearchRecord { // 0x73
    std::string base;
    int scope = 0;
    std::string filter;
    std::vector<std::string> attributes, controls;
};
struct CompareRecord { // 0x76
    std::string dn, type, value, class_name;
};

Record encode_entry(EventType type, const EntryRecord &entry);
Record encode_value(EventType type, const ValueRecord &value);
Record encode_general(EventType type, const GeneralRecord &general);
Record encode_bind(const Origin &origin, int type, std::string_view mechanism, int result,
                   const std::vector<std::string> &controls);
Record encode_connection(const Client &client, std::uint32_t time);
Record encode_search(const Origin &origin, const SearchRecord &search, int result);
Record encode_search_entry(const Origin &origin, std::string_view dn, std::string_view class_name,
                           const std::vector<std::string> &attributes);
Record encode_update(const Origin &origin, ber::Tag operation, std::string_view dn,
                     std::string_view class_name, int result,
                     const std::vector<std::string> &controls);
Record encode_compare(const Origin &origin, const CompareRecord &compare, int result);
Record encode_rename(const Origin &origin, std::string_view old_rdn, std::string_view new_rdn,
                     std::string_view class_name, int result,
                     const std::vector<std::string> &controls);
Record encode_abandon(const Origin &origin, std::int32_t abandoned, int result);
Record encode_extended(const Origin &origin, std::string_view name, int result);
Record encode_system_extended(const Origin &origin, int operation, std::string_view name,
                              const std::vector<std::string> &values, int result);
Record encode_response(const Origin &origin, ber::Tag operation, int result,
                       std::string_view matched_dn, const std::vector<std::string> &referrals);
Record encode_password(const Origin &origin, std::string_view dn, int type, int result);
Record encode_unknown_operation(const Client &client, std::uint32_t time);

// One event: its frame, its record, and what a filter can match beside the record's fields.
struct Event {
    EventType type;
    int result;
    Record record;
    std::shared_ptr<const Client> client = nullptr; // whose address follows, when addresses do
    std::string perpetrator{};
    std::string entry{};
};

// True for the results of operations that did what was asked: success, the two answers of a
// compare, and one step of a SASL bind.
bool is_success(int result);

// The notification's value: SEQUENCE { INTEGER type, INTEGER result, record, address trailer }.
std::string encode_event(const Event &event, bool with_address);

// Types of address: 1 is IPv4 with 4 bytes, 2 is IPv6 with 16.
inline constexpr int ipv4_address = 1;
inline constexpr int ipv6_address = 2;

} // namespace sandbox
