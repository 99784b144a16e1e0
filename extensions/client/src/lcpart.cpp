// Partitions (split, merge, abort, entry count, orphan partitions), their replicas, and the
// requests that make servers exchange updates.

#include "frame.h"

#include <cstddef>
#include <cstring>

using namespace greirige;

namespace {

// Split, merge and abort send the same value, INTEGER flags and OCTET STRING dn.
int partition_operation(LDAP *ld, char *dn, int flags, const char *requestName,
                        const char *responseName) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "is", flags, dn);
    exchange(call, ld, requestName, responseName);
    return end(call);
}

// OCTET STRING serverDN, OCTET STRING contextName.
int orphan_operation(LDAP *ld, char *serverDN, char *contextName, const char *requestName,
                     const char *responseName) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "ss", serverDN, contextName);
    exchange(call, ld, requestName, responseName);
    return end(call);
}

// INTEGER flags, INTEGER replicaType, OCTET STRING serverDN, OCTET STRING dn: on the wire the
// integers come first, and the server before the partition.
int typed_replica_operation(LDAP *ld, char *dn, char *serverDN, LDAP_REPLICA_TYPE replicaType,
                            int flags, const char *requestName, const char *responseName) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "iiss", flags, replicaType, serverDN, dn);
    exchange(call, ld, requestName, responseName);
    return end(call);
}

// Asks for a replica's information and reads it into the record, all but the partition's DN.
// That is returned, to be released with ldap_memfree after the response reader; NULL on failure.
char *read_replica_info(CallFrame &call, LDAP *ld, char *dn, char *serverDN,
                        LDAPReplicaInfo *info) noexcept
{
    char *partDN = nullptr;
    encode(call, "ss", serverDN, dn);
    exchange(call, ld, LDAPX_GET_REPLICA_INFO_REQUEST, LDAPX_GET_REPLICA_INFO_RESPONSE);
    open_value(call);
    decode(call, "iiiiiaii", &info->rootID, &info->state, &info->modificationTime, &info->purgeTime,
           &info->localReplicaID, &partDN, &info->replicaType, &info->flags);
    return partDN;
}

int end_replica_info(CallFrame &call, char *partDN) noexcept
{
    close_value(call);
    if (partDN != nullptr)
        ldap_memfree(partDN);
    return end(call);
}

} // namespace

int ldap_split_partition(LDAP *ld, char *dn, int flags) noexcept
{
    return partition_operation(ld, dn, flags, LDAPX_SPLIT_PARTITION_REQUEST,
                               LDAPX_SPLIT_PARTITION_RESPONSE);
}

int ldap_merge_partitions(LDAP *ld, char *dn, int flags) noexcept
{
    return partition_operation(ld, dn, flags, LDAPX_MERGE_PARTITIONS_REQUEST,
                               LDAPX_MERGE_PARTITIONS_RESPONSE);
}

int ldap_abort_partition_operation(LDAP *ld, char *dn, int flags) noexcept
{
    return partition_operation(ld, dn, flags, LDAPX_ABORT_PARTITION_OPERATION_REQUEST,
                               LDAPX_ABORT_PARTITION_OPERATION_RESPONSE);
}

int ldap_partition_entry_count(LDAP *ld, char *dn, unsigned long *count) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "s", dn);
    exchange(call, ld, LDAPX_PARTITION_ENTRY_COUNT_REQUEST, LDAPX_PARTITION_ENTRY_COUNT_RESPONSE);
    open_value(call);
    // "i" stores 32 bits, so only the first four bytes of *count are written. Callers set the
    // variable to 0 and rely on the rest being left alone; do not widen through a temporary.
    expect(call, LBER_INTEGER);
    decode(call, "i", count);
    return end(call);
}

int ldap_split_orphan_partition(LDAP *ld, char *serverDN, char *contextName) noexcept
{
    return orphan_operation(ld, serverDN, contextName, LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST,
                            LDAPX_SPLIT_ORPHAN_PARTITION_RESPONSE);
}

int ldap_remove_orphan_partition(LDAP *ld, char *serverDN, char *contextName) noexcept
{
    return orphan_operation(ld, serverDN, contextName, LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST,
                            LDAPX_REMOVE_ORPHAN_PARTITION_RESPONSE);
}

int ldap_add_replica(LDAP *ld, char *dn, char *serverDN, LDAP_REPLICA_TYPE replicaType,
                     int flags) noexcept
{
    return typed_replica_operation(ld, dn, serverDN, replicaType, flags, LDAPX_ADD_REPLICA_REQUEST,
                                   LDAPX_ADD_REPLICA_RESPONSE);
}

int ldap_remove_replica(LDAP *ld, char *dn, char *serverDN, int flags) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "iss", flags, serverDN, dn);
    exchange(call, ld, LDAPX_REMOVE_REPLICA_REQUEST, LDAPX_REMOVE_REPLICA_RESPONSE);
    return end(call);
}

int ldap_change_replica_type(LDAP *ld, char *dn, char *serverName, LDAP_REPLICA_TYPE replicaType,
                             int flags) noexcept
{
    return typed_replica_operation(ld, dn, serverName, replicaType, flags,
                                   LDAPX_CHANGE_REPLICA_TYPE_REQUEST,
                                   LDAPX_CHANGE_REPLICA_TYPE_RESPONSE);
}

int ldap_get_replica_info(LDAP *ld, char *dn, char *serverDN, LDAPReplicaInfo *replicaInfo) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    char *partDN = read_replica_info(call, ld, dn, serverDN, replicaInfo);
    if (partDN != nullptr) {
        // Unbounded, as published: callers lay the record over a larger buffer and read longer
        // DNs from there. Through a volatile pointer, because a build with _FORTIFY_SOURCE would
        // otherwise end the process at the field's 771st byte.
        char *volatile field = replicaInfo->namingContextDN;
        std::memcpy(field, partDN, std::strlen(partDN) + 1);
    }
    return end_replica_info(call, partDN);
}

int ldap_get_replica_info_ext(LDAP *ld, char *dn, char *serverDN, LDAPReplicaInfo *replicaInfo,
                              char **namingContextDN) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    char *partDN = read_replica_info(call, ld, dn, serverDN, replicaInfo);
    if (partDN != nullptr) {
        const std::size_t length = std::strlen(partDN);
        const std::size_t room = sizeof replicaInfo->namingContextDN - 1;
        const std::size_t kept = length < room ? length : room;
        *namingContextDN = duplicate(partDN, length);
        if (*namingContextDN == nullptr)
            call.err = LDAPX_NO_MEMORY;
        std::memcpy(replicaInfo->namingContextDN, partDN, kept);
        replicaInfo->namingContextDN[kept] = '\0';
    }
    return end_replica_info(call, partDN);
}

int ldap_list_replicas(LDAP *ld, char *serverDN, char ***replicaList) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "s", serverDN);
    exchange(call, ld, LDAPX_LIST_REPLICAS_REQUEST, LDAPX_LIST_REPLICAS_RESPONSE);
    open_value(call);
    decode(call, "v", replicaList);
    return end(call);
}

int ldap_receive_all_updates(LDAP *ld, char *partitionRoot, char *toServerDN,
                             char *fromServerDN) noexcept
{
    if (partitionRoot == nullptr || toServerDN == nullptr)
        return LDAPX_PARAM_ERROR;

    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    // Servers want three strings and know this word for an absent one; for a send request they
    // know the empty string instead.
    encode(call, "sss", partitionRoot, toServerDN,
           fromServerDN != nullptr ? fromServerDN : "unusedParam");
    exchange(call, ld, LDAPX_RECEIVE_ALL_UPDATES_REQUEST, LDAPX_RECEIVE_ALL_UPDATES_RESPONSE);
    return end(call);
}

int ldap_send_all_updates(LDAP *ld, char *partitionRoot, char *origServerDN) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "ss", partitionRoot, origServerDN != nullptr ? origServerDN : "");
    exchange(call, ld, LDAPX_SEND_ALL_UPDATES_REQUEST, LDAPX_SEND_ALL_UPDATES_RESPONSE);
    return end(call);
}

int ldap_request_partition_sync(LDAP *ld, char *serverName, char *partitionRoot, int delay) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "ssi", serverName, partitionRoot, delay);
    exchange(call, ld, LDAPX_REQUEST_PARTITION_SYNC_REQUEST, LDAPX_REQUEST_PARTITION_SYNC_RESPONSE);
    return end(call);
}

int ldap_request_schema_sync(LDAP *ld, char *partitionDN, int delay) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "si", partitionDN, delay);
    exchange(call, ld, LDAPX_REQUEST_SCHEMA_SYNC_REQUEST, LDAPX_REQUEST_SCHEMA_SYNC_RESPONSE);
    return end(call);
}

// The same operations in the vocabulary of naming contexts.

int ldap_create_naming_context(LDAP *ld, char *dn, int flags) noexcept
{
    return ldap_split_partition(ld, dn, flags);
}

int ldap_merge_naming_contexts(LDAP *ld, char *dn, int flags) noexcept
{
    return ldap_merge_partitions(ld, dn, flags);
}

int ldap_abort_naming_context_operation(LDAP *ld, char *dn, int flags) noexcept
{
    return ldap_abort_partition_operation(ld, dn, flags);
}

int ldap_naming_context_entry_count(LDAP *ld, char *dn, unsigned long *count) noexcept
{
    return ldap_partition_entry_count(ld, dn, count);
}

int ldap_create_orphan_naming_context(LDAP *ld, char *serverDN, char *contextName) noexcept
{
    return ldap_split_orphan_partition(ld, serverDN, contextName);
}

int ldap_remove_orphan_naming_context(LDAP *ld, char *serverDN, char *contextName) noexcept
{
    return ldap_remove_orphan_partition(ld, serverDN, contextName);
}

int ldap_request_naming_context_sync(LDAP *ld, char *serverName, char *partitionRoot,
                                     int delay) noexcept
{
    return ldap_request_partition_sync(ld, serverName, partitionRoot, delay);
}
