// The names that ldap_events.h gives to what an event shows.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "greirige/event_views.hpp"

namespace tool {

// A member of a record. Some go with a second one that counts: the bytes of a value, the elements
// of a list.
struct Member {
    std::string_view name;
    std::string_view count = {};
    bool address = false; // bytes that are a network address
};
using Members = std::array<Member, 12>;

// "verb value:size addr:addrSize:address"
consteval Members members(std::string_view list)
{
    Members all{};
    for (Member &member : all) {
        std::string_view word = list.substr(0, list.find(' '));
        list.remove_prefix(word.size() < list.size() ? word.size() + 1 : list.size());
        const auto take = [&] {
            const std::string_view part = word.substr(0, word.find(':'));
            word.remove_prefix(part.size() < word.size() ? part.size() + 1 : word.size());
            return part;
        };
        member.name = take();
        member.count = take();
        member.address = take() == "address";
    }
    return all;
}

// In the order of the view's fields.
template <class View>
inline constexpr Members members_of{};

template <>
inline constexpr Members members_of<greirige::EntryEvent> =
    members("perpetratorDN entryDN className verb flags creationTime newDN");
template <>
inline constexpr Members members_of<greirige::ValueEvent> =
    members("verb perpetratorDN entryDN attributeName syntaxOID className timeStamp value:size");
template <>
inline constexpr Members members_of<greirige::GeneralEvent> =
    members("dstime milliseconds curProcess verb perpetratorDN intValues strValues");
template <>
inline constexpr Members
    members_of<greirige::BinderyObjectEvent> = members("entryDN type emuObjFlags security name");
template <>
inline constexpr Members members_of<greirige::ServerToServerEvent> =
    members("entryDN retryCount valueDN referrals:referralCount");
template <>
inline constexpr Members members_of<greirige::ModuleStateEvent> =
    members("connectionDN flags sourceModule name description");
template <>
inline constexpr Members members_of<greirige::ConnectionStateEvent> =
    members("connectionDN oldFlags newFlags sourceModule");
template <>
inline constexpr Members members_of<greirige::ServerAddressEvent> =
    members("flags proto addrFamily addr:addrSize:address pstkname sourceModule");
template <>
inline constexpr Members members_of<greirige::ConfigParameterEvent> = members("type name value");
template <>
inline constexpr Members members_of<greirige::StatusLogEvent> =
    members("logTime moduleName messageLevel messageEvent messageCode messageDesc statusDoc");
template <>
inline constexpr Members members_of<greirige::DebugEvent> =
    members("dsTime milliseconds perpetratorDN formatString verb parameters:paramCount");
template <>
inline constexpr Members members_of<greirige::AuthenticationEvent> =
    members("connectionData msgID time bindDN bindType authMechanism controlOID resultCode");
template <>
inline constexpr Members
    members_of<greirige::ConnectionEvent> = members("connection time inetAddr");
template <>
inline constexpr Members members_of<greirige::SearchEvent> =
    members("connectionData msgID time bindDN base scope filter attrs controlOID resultCode");
template <>
inline constexpr Members members_of<greirige::SearchEntryEvent> =
    members("connectionData msgID time entryDN className attrs resultCode");
template <>
inline constexpr Members members_of<greirige::UpdateEvent> =
    members("connectionData msgID time operation bindDN entryDN className controlOID resultCode");
template <>
inline constexpr Members members_of<greirige::CompareEvent> = members(
    "connectionData msgID time bindDN compareDN assertionType assertionValue className resultCode");
template <>
inline constexpr Members members_of<greirige::RenameEvent> =
    members("connectionData msgID time bindDN oldRDN newRDN className controlOID resultCode");
template <>
inline constexpr Members members_of<greirige::AbandonEvent> =
    members("connectionData msgID time operation bindDN resultCode");
template <>
inline constexpr Members members_of<greirige::ExtendedOperationEvent> =
    members("connectionData msgID time operation extensionOID bindDN resultCode");
template <>
inline constexpr Members members_of<greirige::SystemExtendedOperationEvent> =
    members("connectionData msgID time operation extensionOID bindDN value1 value2 value3 value4 "
            "resultCode");
template <>
inline constexpr Members members_of<greirige::ResponseEvent> =
    members("connectionData msgID time operation resultCode matchedDN referral");
template <>
inline constexpr Members members_of<greirige::PasswordModifyEvent> =
    members("connectionData msgID time bindDN entryDN passwordModifyType resultCode");
template <>
inline constexpr Members members_of<greirige::UnknownOperationEvent> = members("time inetAddr");

} // namespace tool
