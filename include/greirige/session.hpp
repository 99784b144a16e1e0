// greirige/session.hpp - a session and the operations that are one question and one answer:
// partitions, replicas, synchronisation, replication filters, identity, privileges, names,
// background processes, backup and restore.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "greirige/detail.hpp"
#include "greirige/result.hpp"
#include "ldapx.h"

namespace greirige {

// ---- Arguments ----------------------------------------------------------------------------------

// Several operations take the names of two objects. What the operation is about comes first as an
// ordinary string; the other has a type of its own, so that the two cannot change places:
//
//     session.add_replica("ou=sales,o=x", Server("cn=s2,o=x"), ReplicaType::read_only);
//
// They refer to the caller's string, which must outlive the call.

// The server object that holds, or is to hold, a replica.
struct Server {
    explicit constexpr Server(std::string_view name) : dn(name) {}
    std::string_view dn;
};
// The server object that updates come from.
struct Origin {
    explicit constexpr Origin(std::string_view name) : dn(name) {}
    std::string_view dn;
};
// The object whose rights are asked for, the trustee.
struct Subject {
    explicit constexpr Subject(std::string_view name) : dn(name) {}
    std::string_view dn;
};

// The password that guards a backup.
struct Password {
    explicit constexpr Password(std::string_view word) : text(word) {}
    std::string_view text;
};

// A parameter that takes any list of strings: {"cn", "sn"}, a vector or an array of std::string, a
// std::span<const std::string_view>. It refers to the caller's strings, which must outlive the
// call.
class StringList {
public:
    StringList(std::initializer_list<std::string_view> strings) : strings_(strings) {}
    template <class Range>
    requires requires(const Range &range)
    {
        {
            *std::begin(range)
            } -> std::convertible_to<std::string_view>;
        std::end(range);
    }
    StringList(const Range &range)
    {
        for (const auto &string : range)
            strings_.emplace_back(string);
    }

    auto begin() const noexcept
    {
        return strings_.begin();
    }
    auto end() const noexcept
    {
        return strings_.end();
    }
    std::size_t size() const noexcept
    {
        return strings_.size();
    }
    std::string_view operator[](std::size_t index) const noexcept
    {
        return strings_[index];
    }

private:
    std::vector<std::string_view> strings_;
};

// ---- Names of numbers ---------------------------------------------------------------------------

// The type of a replica. Servers may know others: a number outside the list is passed on unchanged
// in both directions.
enum class ReplicaType : int {
    master = LDAP_RT_MASTER,
    secondary = LDAP_RT_SECONDARY,
    read_only = LDAP_RT_READONLY,
    subref = LDAP_RT_SUBREF,
    sparse_write = LDAP_RT_SPARSE_WRITE,
    sparse_read = LDAP_RT_SPARSE_READ,
};

// The server's background processes, by the number that selects them.
enum class BackgroundProcess : int {
    backlink = 1,
    janitor = 2,
    limber = 3,
    skulker = 4,
    schema_sync = 5,
    partition_purge = 6,
};

namespace detail {

inline constexpr std::array<std::string_view, LDAP_RT_COUNT> replica_types{
    "master", "secondary", "read-only", "subref", "sparse-write", "sparse-read"};
inline constexpr std::array<std::string_view, 6> background_processes{
    "backlink", "janitor", "limber", "skulker", "schema-sync", "partition-purge"};

// Names of the numbers first, first + 1, ...
template <std::size_t Count>
constexpr std::string_view name_of(const std::array<std::string_view, Count> &names, int first,
                                   int number)
{
    if (number < first || number - first >= static_cast<int>(Count))
        return "unknown";
    return names[static_cast<std::size_t>(number - first)];
}
template <class Enum, std::size_t Count>
constexpr std::optional<Enum> number_of(const std::array<std::string_view, Count> &names, int first,
                                        std::string_view name)
{
    for (std::size_t index = 0; index < Count; ++index)
        if (names[index] == name)
            return static_cast<Enum>(first + static_cast<int>(index));
    return std::nullopt;
}

} // namespace detail

// "master", "secondary", "read-only", "subref", "sparse-write", "sparse-read"; "unknown" for a
// number that has no name.
constexpr std::string_view to_string(ReplicaType type)
{
    return detail::name_of(detail::replica_types, 0, static_cast<int>(type));
}
// The type of such a name; nothing for any other word.
constexpr std::optional<ReplicaType> replica_type(std::string_view name)
{
    return detail::number_of<ReplicaType>(detail::replica_types, 0, name);
}

// "backlink", "janitor", "limber", "skulker", "schema-sync", "partition-purge"; "unknown" for a
// number that has no name.
constexpr std::string_view to_string(BackgroundProcess process)
{
    return detail::name_of(detail::background_processes, 1, static_cast<int>(process));
}
// The process of such a name; nothing for any other word.
constexpr std::optional<BackgroundProcess> background_process(std::string_view name)
{
    return detail::number_of<BackgroundProcess>(detail::background_processes, 1, name);
}

// ---- Values -------------------------------------------------------------------------------------

// What a server knows of one replica. The meaning of state and flags and the unit of the times are
// the server's.
struct ReplicaInfo {
    int root_id = 0;           // of the partition's root entry on that server
    int state = 0;             // of the replica
    int modification_time = 0; // of the replica's last modification
    int purge_time = 0;        // up to which the replica has been purged
    int local_replica_id = 0;  // the replica's number on that server
    std::string partition_dn;  // whole, however long
    ReplicaType type = ReplicaType::master;
    int flags = 0;

    friend bool operator==(const ReplicaInfo &, const ReplicaInfo &) = default;
};

// One class of a replication filter: the object class and its attributes that are replicated.
struct FilterClass {
    std::string name;
    std::vector<std::string> attributes;

    friend bool operator==(const FilterClass &, const FilterClass &) = default;
};

// The rights on one attribute, bits that the server defines.
struct AttributeRights {
    std::string attribute;
    int privileges = 0;

    friend bool operator==(const AttributeRights &, const AttributeRights &) = default;
};

// An object as a server gave it out, to be kept and put back later. All of it is needed for that
// but the state, which is for the next backup of the same object.
struct Backup {
    std::string state;                // the server's two marks, "1200+3"
    std::string data;                 // opaque: any bytes
    std::vector<std::int32_t> chunks; // the sizes of the pieces in which the data is laid out

    friend bool operator==(const Backup &, const Backup &) = default;
};

// The sizes as the C interface's chunk list, "3;512;512;17;": their number, then each.
inline std::string chunk_list(const Backup &backup)
{
    std::string list = std::to_string(backup.chunks.size()) + ";";
    for (const std::int32_t size : backup.chunks)
        list += std::to_string(size) + ";";
    return list;
}

// A replication filter as one text: every name is closed by "$", a class by a second one and the
// filter by a third, as in "inetOrgPerson$cn$sn$$group$$$". There is no escape: a name that is
// empty or holds "$" or a zero byte has no text form and gives LDAPX_PARAM_ERROR.
inline Result<std::string> format_filter(std::span<const FilterClass> classes)
{
    std::string text;
    bool every_name_fits = true;
    const auto append = [&](std::string_view name) {
        every_name_fits &= !name.empty() && name.find_first_of({"$\0", 2}) == name.npos;
        text.append(name).append("$");
    };
    for (const FilterClass &entry : classes) {
        append(entry.name);
        for (const std::string &attribute : entry.attributes)
            append(attribute);
        text.append("$");
    }
    if (!every_name_fits)
        return detail::bad_argument("format_filter", "",
                                    "a name is empty or holds a dollar sign or a zero byte");
    return text.append("$");
}

// The classes of a filter's text. Nothing may follow the filter's closing sign: the server would
// never see it. LDAPX_PARAM_ERROR for a text of any other form.
inline Result<std::vector<FilterClass>> parse_filter(std::string_view text)
{
    std::vector<FilterClass> classes;
    bool complete = true;
    // The next name and its closing sign; an empty name is the sign that closes what is open.
    const auto take = [&]() -> std::string {
        const std::size_t end = text.find('$');
        complete &= end != text.npos;
        std::string name(text.substr(0, end));
        text.remove_prefix(complete ? end + 1 : text.size());
        complete &= name.find('\0') == name.npos;
        return name;
    };
    for (std::string name = take(); complete && !name.empty(); name = take()) {
        classes.push_back({std::move(name), {}});
        for (name = take(); complete && !name.empty(); name = take())
            classes.back().attributes.push_back(std::move(name));
    }
    if (!complete)
        return detail::bad_argument("parse_filter", "", "a name is not closed by a dollar sign");
    if (!text.empty())
        return detail::bad_argument("parse_filter", "",
                                    "text follows the dollar sign that closes the filter");
    return classes;
}

// ---- The session --------------------------------------------------------------------------------

// An open, bound session of the LDAP library, seen from here. A Session owns nothing: whoever made
// the LDAP * closes it, after the last call through any Session of it. Copy it freely.
//
// Every operation is one extended request (RFC 4511, 4.12). It blocks until the response has
// arrived (the session's LDAP_OPT_TIMEOUT bounds the wait for it to begin) and may be called from
// several threads on different sessions. Common failures:
//
//   LDAPX_PARAM_ERROR       the session is a null pointer, or a string holds a zero byte, which
//                           would end it there; nothing was sent
//   LDAPX_NOT_SUPPORTED     the response has no name or another operation's: the server does not
//                           speak this operation
//   LDAPX_OPERATIONS_ERROR  the response carries no value where the operation answers with one
//   LDAPX_ENCODING_ERROR    the response value could not be decoded (the replication filter, and
//                           answers that the layer refuses: LDAPX_DECODING_ERROR)
//   LDAPX_NO_MEMORY         the library could not allocate
//   any other               from the server or from the LDAP library, unchanged
//
// Lack of memory in the C++ layer itself throws std::bad_alloc; nothing leaks when it does.
//
// Everywhere flags are option bits for the server, sent unchanged.
class Session {
public:
    explicit Session(LDAP *ld) noexcept : ld_(ld) {}

    LDAP *handle() const noexcept
    {
        return ld_;
    }

    // ---- Partitions. A partition is a subtree that is stored and replicated as a unit, known by
    // the DN of its root.

    // Makes an entry the root of a new partition, child of the one that held it.
    Result<void> split_partition(std::string_view dn, int flags = 0) const;
    // Merges a partition back into its parent.
    Result<void> merge_partitions(std::string_view dn, int flags = 0) const;
    // Aborts the operation that is running on a partition.
    Result<void> abort_partition_operation(std::string_view dn, int flags = 0) const;
    // How many entries a partition holds.
    Result<std::uint32_t> partition_entry_count(std::string_view dn) const;
    // Splits an orphan partition (one whose parent no server holds) off on a server.
    Result<void> split_orphan_partition(std::string_view name, Server server) const;
    // Removes an orphan partition from a server.
    Result<void> remove_orphan_partition(std::string_view name, Server server) const;

    // ---- Replicas. dn is the root of the partition, server the one whose copy is meant.

    // Puts a replica of this type on a server.
    Result<void> add_replica(std::string_view dn, Server server, ReplicaType type,
                             int flags = 0) const;
    // Removes a server's replica.
    Result<void> remove_replica(std::string_view dn, Server server, int flags = 0) const;
    // Gives a server's replica another type.
    Result<void> change_replica_type(std::string_view dn, Server server, ReplicaType type,
                                     int flags = 0) const;
    // What a server knows of its replica.
    Result<ReplicaInfo> replica_info(std::string_view dn, Server server) const;
    // The names of the partitions of which a server holds replicas.
    Result<std::vector<std::string>> list_replicas(Server server) const;

    // ---- Synchronisation. The servers begin when they have accepted the request; a delay is in
    // the server's own unit.

    // Makes a server receive all updates of a partition: from one server, or from any.
    Result<void> receive_all_updates(std::string_view dn, Server receiver,
                                     std::optional<Origin> origin = std::nullopt) const;
    // Makes a server send all its updates of a partition to the other replicas; without an origin
    // the server of this session.
    Result<void> send_all_updates(std::string_view dn,
                                  std::optional<Origin> origin = std::nullopt) const;
    // Makes a server synchronise a partition.
    Result<void> request_partition_sync(std::string_view dn, Server server, int delay = 0) const;
    // Makes the server synchronise the schema; it interprets the DN.
    Result<void> request_schema_sync(std::string_view dn, int delay = 0) const;

    // ---- Replication filter: which object classes, and which attributes of each, a server
    // replicates; as a list or as one text.

    Result<void> set_replication_filter(Server server, std::span<const FilterClass> classes) const;
    // The text must be one that parse_filter() takes.
    Result<void> set_replication_filter(Server server, std::string_view text) const;
    // LDAPX_DECODING_ERROR also for a filter in which a name is empty, since its text would say
    // something else. (A name with "$" in it, which no server should know, reads as two names.)
    Result<std::vector<FilterClass>> replication_filter(Server server) const;
    Result<std::string> replication_filter_text(Server server) const;

    // ---- Identity and privileges.

    // The DN under which the session is bound, whole. (The C function ldap_get_bind_dn() cuts it
    // after 770 bytes, so the layer puts the question itself, with the same failures.)
    Result<std::string> bind_dn() const;
    // The rights that the subject effectively has on an attribute of the object dn, bits that the
    // server defines.
    Result<int> effective_privileges(std::string_view dn, Subject subject,
                                     std::string_view attribute) const;
    // The same for a list of attributes, in its order. A server that does not answer with one
    // number for each gives LDAPX_DECODING_ERROR: nobody could tell which is whose.
    Result<std::vector<AttributeRights>>
    effective_privileges_list(std::string_view dn, Subject subject,
                              const StringList &attributes) const;

    // ---- Names. The server turns a name of another form into a DN.

    // From the directory's native form. A zero unit in the name would end it there: refused.
    Result<std::string> dn_from_native(std::u16string_view name) const;
    // From a DNS-style name.
    Result<std::string> dn_from_dns(std::string_view name) const;

    // ---- Background processes.

    // Starts one now instead of on its schedule; it has been accepted when this returns.
    // LDAPX_PARAM_ERROR for a number that is none of the six.
    Result<void> trigger(BackgroundProcess process) const;
    // Makes the server refresh itself.
    Result<void> refresh_server() const;

    // ---- Backup and restore of one object.

    // Takes an object out of the server. A later backup passes the state of the one before; the
    // first has none. LDAPX_ENCODING_ERROR for a state without two marks as in Backup::state, or
    // with a mark of zero, LDAPX_DECODING_ERROR for an answer with negative sizes.
    // LDAPX_NOT_SUPPORTED where there was no response of the right name for whatever reason, a
    // refusal without a name or a connection that is gone among them. The same holds for a restore.
    Result<Backup> backup_object(std::string_view dn, Password password,
                                 std::string_view state = {}) const;
    // Puts it back. The password is that of the backup.
    Result<void> restore_object(std::string_view dn, Password password, const Backup &backup) const;

private:
    LDAP *ld_;
};

// ---- Implementation -----------------------------------------------------------------------------

inline Result<void> Session::split_partition(std::string_view dn, int flags) const
{
    detail::Call call(ld_, "split_partition");
    detail::CString root = call.text("dn", dn);
    return call.run([&] { return ldap_split_partition(ld_, root, flags); });
}

inline Result<void> Session::merge_partitions(std::string_view dn, int flags) const
{
    detail::Call call(ld_, "merge_partitions");
    detail::CString root = call.text("dn", dn);
    return call.run([&] { return ldap_merge_partitions(ld_, root, flags); });
}

inline Result<void> Session::abort_partition_operation(std::string_view dn, int flags) const
{
    detail::Call call(ld_, "abort_partition_operation");
    detail::CString root = call.text("dn", dn);
    return call.run([&] { return ldap_abort_partition_operation(ld_, root, flags); });
}

inline Result<std::uint32_t> Session::partition_entry_count(std::string_view dn) const
{
    detail::Call call(ld_, "partition_entry_count");
    detail::CString root = call.text("dn", dn);
    unsigned long count = 0;
    return call.run([&] { return ldap_partition_entry_count(ld_, root, &count); }).transform([&] {
        // The answer's 32 bits are in the variable's first four bytes, whatever the byte order.
        std::uint32_t entries = 0;
        std::memcpy(&entries, &count, sizeof entries);
        return entries;
    });
}

inline Result<void> Session::split_orphan_partition(std::string_view name, Server server) const
{
    detail::Call call(ld_, "split_orphan_partition");
    detail::CString context = call.text("name", name);
    detail::CString holder = call.text("server", server.dn);
    return call.run([&] { return ldap_split_orphan_partition(ld_, holder, context); });
}

inline Result<void> Session::remove_orphan_partition(std::string_view name, Server server) const
{
    detail::Call call(ld_, "remove_orphan_partition");
    detail::CString context = call.text("name", name);
    detail::CString holder = call.text("server", server.dn);
    return call.run([&] { return ldap_remove_orphan_partition(ld_, holder, context); });
}

inline Result<void> Session::add_replica(std::string_view dn, Server server, ReplicaType type,
                                         int flags) const
{
    detail::Call call(ld_, "add_replica");
    detail::CString root = call.text("dn", dn);
    detail::CString holder = call.text("server", server.dn);
    return call.run([&] {
        return ldap_add_replica(ld_, root, holder, static_cast<LDAP_REPLICA_TYPE>(type), flags);
    });
}

inline Result<void> Session::remove_replica(std::string_view dn, Server server, int flags) const
{
    detail::Call call(ld_, "remove_replica");
    detail::CString root = call.text("dn", dn);
    detail::CString holder = call.text("server", server.dn);
    return call.run([&] { return ldap_remove_replica(ld_, root, holder, flags); });
}

inline Result<void> Session::change_replica_type(std::string_view dn, Server server,
                                                 ReplicaType type, int flags) const
{
    detail::Call call(ld_, "change_replica_type");
    detail::CString root = call.text("dn", dn);
    detail::CString holder = call.text("server", server.dn);
    return call.run([&] {
        return ldap_change_replica_type(ld_, root, holder, static_cast<LDAP_REPLICA_TYPE>(type),
                                        flags);
    });
}

inline Result<ReplicaInfo> Session::replica_info(std::string_view dn, Server server) const
{
    detail::Call call(ld_, "replica_info");
    detail::CString root = call.text("dn", dn);
    detail::CString holder = call.text("server", server.dn);
    LDAPReplicaInfo info{};
    detail::Out<detail::Block> partition;
    return call
        .run([&] { return ldap_get_replica_info_ext(ld_, root, holder, &info, partition.place()); })
        .transform([&] {
            return ReplicaInfo{info.rootID,
                               info.state,
                               info.modificationTime,
                               info.purgeTime,
                               info.localReplicaID,
                               detail::string_of(partition.get()),
                               static_cast<ReplicaType>(info.replicaType),
                               info.flags};
        });
}

inline Result<std::vector<std::string>> Session::list_replicas(Server server) const
{
    detail::Call call(ld_, "list_replicas");
    detail::CString holder = call.text("server", server.dn);
    detail::Out<detail::List> names;
    return call.run([&] { return ldap_list_replicas(ld_, holder, names.place()); }).transform([&] {
        std::vector<std::string> partitions;
        for (char **name = names.get(); name && *name; ++name)
            partitions.emplace_back(*name);
        return partitions;
    });
}

inline Result<void> Session::receive_all_updates(std::string_view dn, Server receiver,
                                                 std::optional<Origin> origin) const
{
    detail::Call call(ld_, "receive_all_updates");
    detail::CString root = call.text("dn", dn);
    detail::CString to = call.text("receiver", receiver.dn);
    detail::CString from = call.text("origin", origin ? origin->dn : "");
    return call.run([&] {
        return ldap_receive_all_updates(ld_, root, to,
                                        origin ? static_cast<char *>(from) : nullptr);
    });
}

inline Result<void> Session::send_all_updates(std::string_view dn,
                                              std::optional<Origin> origin) const
{
    detail::Call call(ld_, "send_all_updates");
    detail::CString root = call.text("dn", dn);
    detail::CString from = call.text("origin", origin ? origin->dn : "");
    return call.run([&] {
        return ldap_send_all_updates(ld_, root, origin ? static_cast<char *>(from) : nullptr);
    });
}

inline Result<void> Session::request_partition_sync(std::string_view dn, Server server,
                                                    int delay) const
{
    detail::Call call(ld_, "request_partition_sync");
    detail::CString root = call.text("dn", dn);
    detail::CString holder = call.text("server", server.dn);
    return call.run([&] { return ldap_request_partition_sync(ld_, holder, root, delay); });
}

inline Result<void> Session::request_schema_sync(std::string_view dn, int delay) const
{
    detail::Call call(ld_, "request_schema_sync");
    detail::CString root = call.text("dn", dn);
    return call.run([&] { return ldap_request_schema_sync(ld_, root, delay); });
}

inline Result<void> Session::set_replication_filter(Server server,
                                                    std::span<const FilterClass> classes) const
{
    return format_filter(classes).and_then(
        [&](const std::string &text) { return set_replication_filter(server, text); });
}

inline Result<void> Session::set_replication_filter(Server server, std::string_view text) const
{
    detail::Call call(ld_, "set_replication_filter");
    detail::CString holder = call.text("server", server.dn);
    detail::CString filter = call.text("filter", text);
    if (const auto classes = parse_filter(text); !classes)
        call.refuse("filter", classes.error().text);
    return call.run([&] { return ldap_set_replication_filter(ld_, holder, filter); });
}

inline Result<std::vector<FilterClass>> Session::replication_filter(Server server) const
{
    return replication_filter_text(server).and_then(
        [](const std::string &text) { return parse_filter(text); });
}

inline Result<std::string> Session::replication_filter_text(Server server) const
{
    detail::Call call(ld_, "replication_filter");
    detail::CString holder = call.text("server", server.dn);
    detail::Out<detail::Block> filter;
    return call.run([&] { return ldap_get_replication_filter(ld_, holder, filter.place()); })
        .and_then([&]() -> Result<std::string> {
            if (const auto classes = parse_filter(filter.get()); !classes)
                return call.undecodable(classes.error().text);
            return std::string(filter.get());
        });
}

inline Result<std::string> Session::bind_dn() const
{
    detail::Call call(ld_, "bind_dn");
    detail::Out<detail::LdapString> name;
    detail::Out<detail::Value> value;
    Result<void> done = call.run([&] {
        return ldap_extended_operation_s(ld_, LDAPX_GET_BIND_DN_REQUEST, nullptr, nullptr, nullptr,
                                         name.place(), value.place());
    });
    return std::move(done).and_then([&]() -> Result<std::string> {
        if (!name.get() || name.get() != std::string_view(LDAPX_GET_BIND_DN_RESPONSE))
            return call.failure(LDAPX_NOT_SUPPORTED);
        if (!value.get())
            return call.failure(LDAPX_OPERATIONS_ERROR);
        const detail::Element ber(ber_init(value.get()));
        if (!ber)
            return call.failure(LDAPX_NO_MEMORY);
        ber_len_t length = 0;
        berval identity{};
        if (ber_peek_tag(ber.get(), &length) != LBER_OCTETSTRING ||
            ber_scanf(ber.get(), "m", &identity) == LBER_ERROR)
            return call.failure(LDAPX_ENCODING_ERROR);
        return std::string(identity.bv_val, identity.bv_len);
    });
}

inline Result<int> Session::effective_privileges(std::string_view dn, Subject subject,
                                                 std::string_view attribute) const
{
    detail::Call call(ld_, "effective_privileges");
    detail::CString target = call.text("dn", dn);
    detail::CString trustee = call.text("subject", subject.dn);
    detail::CString name = call.text("attribute", attribute);
    int privileges = 0;
    return call
        .run([&] { return ldap_get_effective_privileges(ld_, target, trustee, name, &privileges); })
        .transform([&] { return privileges; });
}

inline Result<std::vector<AttributeRights>>
Session::effective_privileges_list(std::string_view dn, Subject subject,
                                   const StringList &attributes) const
{
    detail::Call call(ld_, "effective_privileges_list");
    detail::CString target = call.text("dn", dn);
    detail::CString trustee = call.text("subject", subject.dn);
    detail::CStrings names = call.texts("attributes", attributes);
    std::vector<int> privileges(attributes.size() + 1); // never an empty array
    int count = 0;
    return call
        .run([&] {
            return ldap_get_effective_privileges_list_ext(
                ld_, trustee, target, names, privileges.data(), static_cast<int>(attributes.size()),
                &count);
        })
        .and_then([&]() -> Result<std::vector<AttributeRights>> {
            if (count < 0 || static_cast<std::size_t>(count) != attributes.size())
                return call.undecodable("the server answered for another number of attributes");
            std::vector<AttributeRights> rights;
            for (std::size_t index = 0; index < attributes.size(); ++index)
                rights.push_back({std::string(attributes[index]), privileges[index]});
            return rights;
        });
}

inline Result<std::string> Session::dn_from_native(std::u16string_view name) const
{
    detail::Call call(ld_, "dn_from_native");
    if (name.find(u'\0') != name.npos)
        call.refuse("name", "the name holds a zero unit");
    std::vector<unsigned short> units(name.begin(), name.end());
    units.push_back(0);
    detail::Out<detail::Block> dn;
    return call.run([&] { return ldap_zil_to_ldap(ld_, units.data(), dn.place()); }).transform([&] {
        return detail::string_of(dn.get());
    });
}

inline Result<std::string> Session::dn_from_dns(std::string_view name) const
{
    detail::Call call(ld_, "dn_from_dns");
    detail::CString dns = call.text("name", name);
    detail::Out<detail::Block> dn;
    return call.run([&] { return ldap_dns_to_x500_dn(ld_, dns, dn.place()); }).transform([&] {
        return detail::string_of(dn.get());
    });
}

inline Result<void> Session::trigger(BackgroundProcess process) const
{
    detail::Call call(ld_, "trigger");
    return call.run([&] { return ldap_trigger_back_process(ld_, static_cast<int>(process)); });
}

inline Result<void> Session::refresh_server() const
{
    detail::Call call(ld_, "refresh_server");
    return call.run([&] { return ldap_refresh_server(ld_); });
}

namespace detail {

// The next number of a chunk list, and the list past it. Each number is followed by ';'.
inline std::int64_t take_number(const char *&list)
{
    const bool negative = *list == '-';
    std::int64_t number = 0;
    for (list += negative ? 1 : 0; *list != ';'; ++list)
        number = number * 10 + (*list - '0');
    ++list;
    return negative ? -number : number;
}

} // namespace detail

inline Result<Backup> Session::backup_object(std::string_view dn, Password password,
                                             std::string_view state) const
{
    detail::Call call(ld_, "backup_object");
    detail::CString object = call.text("dn", dn);
    detail::CString word = call.text("password", password.text);
    detail::CString earlier = call.text("state", state);
    // The library releases the state that it replaces with free().
    detail::Out<detail::Block> marks(
        state.empty() ? nullptr : static_cast<char *>(std::malloc(state.size() + 1)));
    if (marks.get())
        std::memcpy(marks.get(), static_cast<char *>(earlier), state.size() + 1);
    else if (!state.empty())
        detail::no_memory();
    detail::Out<detail::Block> info;
    detail::Out<detail::Block> sizes;
    int size = 0;
    Result<void> done = call.run([&] {
        return ldap_backup_object(ld_, object, word, marks.place(), info.place(), sizes.place(),
                                  &size);
    });
    return std::move(done).and_then([&]() -> Result<Backup> {
        if (!marks.get())
            detail::no_memory();
        Backup backup{marks.get(), std::string(info.get(), static_cast<std::size_t>(size)), {}};
        // The list is as long as its text and ends after the last number that it announces.
        const char *list = sizes.get();
        const std::int64_t count = detail::take_number(list);
        for (std::int64_t i = 0; i < count; ++i)
            backup.chunks.push_back(static_cast<std::int32_t>(detail::take_number(list)));
        if (count < 0 || std::any_of(backup.chunks.begin(), backup.chunks.end(),
                                     [](std::int32_t chunk) { return chunk < 0; }))
            return call.undecodable("a chunk's size is negative");
        return backup;
    });
}

inline Result<void> Session::restore_object(std::string_view dn, Password password,
                                            const Backup &backup) const
{
    detail::Call call(ld_, "restore_object");
    detail::CString object = call.text("dn", dn);
    detail::CString word = call.text("password", password.text);
    detail::CString sizes(chunk_list(backup));
    if (backup.data.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        call.refuse("backup", "the data is too large");
    return call.run([&] {
        return ldap_restore_object(ld_, object, word, const_cast<char *>(backup.data.data()), sizes,
                                   static_cast<int>(backup.data.size()));
    });
}

} // namespace greirige
