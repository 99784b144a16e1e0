// The server's background processes, started on demand.

#include "frame.h"

using namespace greirige;

int ldap_trigger_back_process(LDAP *ld, int processID) noexcept
{
    switch (processID) {
    case 1:
        return wrapper_ldap_trigger_backlink(ld);
    case 2:
        return wrapper_ldap_trigger_janitor(ld);
    case 3:
        return wrapper_ldap_trigger_limber(ld);
    case 4:
        return wrapper_ldap_trigger_skulker(ld);
    case 5:
        return wrapper_ldap_trigger_schema_sync(ld);
    case 6:
        return wrapper_ldap_trigger_partition_purge(ld);
    default:
        return LDAPX_PARAM_ERROR;
    }
}

int wrapper_ldap_trigger_backlink(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_TRIGGER_BACKLINK_REQUEST, LDAPX_TRIGGER_BACKLINK_RESPONSE);
}

int wrapper_ldap_trigger_janitor(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_TRIGGER_JANITOR_REQUEST, LDAPX_TRIGGER_JANITOR_RESPONSE);
}

int wrapper_ldap_trigger_limber(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_TRIGGER_LIMBER_REQUEST, LDAPX_TRIGGER_LIMBER_RESPONSE);
}

int wrapper_ldap_trigger_skulker(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_TRIGGER_SKULKER_REQUEST, LDAPX_TRIGGER_SKULKER_RESPONSE);
}

int wrapper_ldap_trigger_schema_sync(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_TRIGGER_SCHEMA_SYNC_REQUEST, LDAPX_TRIGGER_SCHEMA_SYNC_RESPONSE);
}

int wrapper_ldap_trigger_partition_purge(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_TRIGGER_PARTITION_PURGE_REQUEST,
                        LDAPX_TRIGGER_PARTITION_PURGE_RESPONSE);
}
