// Partitions: split, merge, abort, entry count, orphan partitions.

#include "frame.h"

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
