/* ldapx.h - LDAP extended operations for administering a partitioned, replicated directory.
 *
 * Conventions that hold for every function in this header:
 *
 *  - ld is an open, bound session of the LDAP C API (ldap_initialize, ldap_sasl_bind_s). The
 *    library keeps nothing between calls; calls on different sessions may run on different
 *    threads at the same time, calls on one session are as safe as the LDAP library makes them.
 *  - Strings are NUL-terminated UTF-8, distinguished names in the form of RFC 4514. The library
 *    reads them and keeps no pointer to them. Where a function does not say that NULL is allowed,
 *    NULL is the caller's error and is not checked.
 *  - The return value is a result code: LDAP_SUCCESS (0), a code of the server or of the LDAP
 *    library unchanged, or one of the LDAPX_ codes below. Out-parameters are never cleared on
 *    failure: initialise them before the call. ldapx_err2string() gives the text of any code.
 *  - The synchronous functions block until the response has arrived (LDAP_OPT_TIMEOUT of the
 *    session bounds the wait) and never change the session's result code themselves.
 *  - What the library allocates for the caller is released with ldapx_memfree(), unless a
 *    function names another release function.
 *
 * Every operation is one ExtendedRequest and its ExtendedResponse (RFC 4511, section 4.12) whose
 * values are BER (X.690). Administrative request values are bare element lists: the elements
 * stand back to back, with no SEQUENCE around them.
 *
 * Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
 */
#ifndef LDAPX_H
#define LDAPX_H

#include <ldap.h>

#ifdef __cplusplus
#    define LDAPX_NOEXCEPT noexcept
#else
#    define LDAPX_NOEXCEPT
#endif
#define LDAPX_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Result codes of the library's own ------------------------------------------------------
 *
 * These are the numbers of RFC 1823's API codes. OpenLDAP gives the same names negative values
 * (its LDAP_ENCODING_ERROR is -3), hence names of our own: compare a result with these, and
 * compare with OpenLDAP's negative codes only what the LDAP library itself returned.
 */
#define LDAPX_OPERATIONS_ERROR 0x01 /* the response carries no value where one is expected */
#define LDAPX_ENCODING_ERROR 0x53   /* a request could not be encoded; the partition, replica and */
                                    /* identity operations: a response value could not be decoded */
#define LDAPX_DECODING_ERROR 0x54   /* a response or event value could not be decoded */
#define LDAPX_PARAM_ERROR 0x59      /* an argument check failed; nothing was sent */
#define LDAPX_NO_MEMORY 0x5a        /* an element or a buffer could not be allocated */
#define LDAPX_NOT_SUPPORTED 0x5c    /* the response has no name, or not the expected one */

/* ---- Request and response names -------------------------------------------------------------
 *
 * The OIDs under which each operation travels. A response name must equal the expected one as a
 * whole string. Responses of the asynchronous operations are read by the ldap_parse_ functions.
 */
#define LDAPX_ZIL_TO_LDAP_REQUEST "2.16.840.1.424242.1.27.100.1"
#define LDAPX_ZIL_TO_LDAP_RESPONSE "2.16.840.1.424242.1.27.100.2"
#define LDAPX_SPLIT_PARTITION_REQUEST "2.16.840.1.424242.1.27.100.3"
#define LDAPX_SPLIT_PARTITION_RESPONSE "2.16.840.1.424242.1.27.100.4"
#define LDAPX_MERGE_PARTITIONS_REQUEST "2.16.840.1.424242.1.27.100.5"
#define LDAPX_MERGE_PARTITIONS_RESPONSE "2.16.840.1.424242.1.27.100.6"
#define LDAPX_ADD_REPLICA_REQUEST "2.16.840.1.424242.1.27.100.7"
#define LDAPX_ADD_REPLICA_RESPONSE "2.16.840.1.424242.1.27.100.8"
#define LDAPX_REFRESH_SERVER_REQUEST "2.16.840.1.424242.1.27.100.9"
#define LDAPX_REFRESH_SERVER_RESPONSE "2.16.840.1.424242.1.27.100.10"
#define LDAPX_REMOVE_REPLICA_REQUEST "2.16.840.1.424242.1.27.100.11"
#define LDAPX_REMOVE_REPLICA_RESPONSE "2.16.840.1.424242.1.27.100.12"
#define LDAPX_PARTITION_ENTRY_COUNT_REQUEST "2.16.840.1.424242.1.27.100.13"
#define LDAPX_PARTITION_ENTRY_COUNT_RESPONSE "2.16.840.1.424242.1.27.100.14"
#define LDAPX_CHANGE_REPLICA_TYPE_REQUEST "2.16.840.1.424242.1.27.100.15"
#define LDAPX_CHANGE_REPLICA_TYPE_RESPONSE "2.16.840.1.424242.1.27.100.16"
#define LDAPX_GET_REPLICA_INFO_REQUEST "2.16.840.1.424242.1.27.100.17"
#define LDAPX_GET_REPLICA_INFO_RESPONSE "2.16.840.1.424242.1.27.100.18"
#define LDAPX_LIST_REPLICAS_REQUEST "2.16.840.1.424242.1.27.100.19"
#define LDAPX_LIST_REPLICAS_RESPONSE "2.16.840.1.424242.1.27.100.20"
#define LDAPX_RECEIVE_ALL_UPDATES_REQUEST "2.16.840.1.424242.1.27.100.21"
#define LDAPX_RECEIVE_ALL_UPDATES_RESPONSE "2.16.840.1.424242.1.27.100.22"
#define LDAPX_SEND_ALL_UPDATES_REQUEST "2.16.840.1.424242.1.27.100.23"
#define LDAPX_SEND_ALL_UPDATES_RESPONSE "2.16.840.1.424242.1.27.100.24"
#define LDAPX_REQUEST_PARTITION_SYNC_REQUEST "2.16.840.1.424242.1.27.100.25"
#define LDAPX_REQUEST_PARTITION_SYNC_RESPONSE "2.16.840.1.424242.1.27.100.26"
#define LDAPX_REQUEST_SCHEMA_SYNC_REQUEST "2.16.840.1.424242.1.27.100.27"
#define LDAPX_REQUEST_SCHEMA_SYNC_RESPONSE "2.16.840.1.424242.1.27.100.28"
#define LDAPX_ABORT_PARTITION_OPERATION_REQUEST "2.16.840.1.424242.1.27.100.29"
#define LDAPX_ABORT_PARTITION_OPERATION_RESPONSE "2.16.840.1.424242.1.27.100.30"
#define LDAPX_GET_BIND_DN_REQUEST "2.16.840.1.424242.1.27.100.31"
#define LDAPX_GET_BIND_DN_RESPONSE "2.16.840.1.424242.1.27.100.32"
#define LDAPX_GET_EFFECTIVE_PRIVILEGES_REQUEST "2.16.840.1.424242.1.27.100.33"
#define LDAPX_GET_EFFECTIVE_PRIVILEGES_RESPONSE "2.16.840.1.424242.1.27.100.34"
#define LDAPX_SET_REPLICATION_FILTER_REQUEST "2.16.840.1.424242.1.27.100.35"
#define LDAPX_SET_REPLICATION_FILTER_RESPONSE "2.16.840.1.424242.1.27.100.36"
#define LDAPX_GET_REPLICATION_FILTER_REQUEST "2.16.840.1.424242.1.27.100.37"
#define LDAPX_GET_REPLICATION_FILTER_RESPONSE "2.16.840.1.424242.1.27.100.38"
#define LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST "2.16.840.1.424242.1.27.100.39"
#define LDAPX_SPLIT_ORPHAN_PARTITION_RESPONSE "2.16.840.1.424242.1.27.100.40"
#define LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST "2.16.840.1.424242.1.27.100.41"
#define LDAPX_REMOVE_ORPHAN_PARTITION_RESPONSE "2.16.840.1.424242.1.27.100.42"
#define LDAPX_TRIGGER_BACKLINK_REQUEST "2.16.840.1.424242.1.27.100.43"
#define LDAPX_TRIGGER_BACKLINK_RESPONSE "2.16.840.1.424242.1.27.100.44"
#define LDAPX_TRIGGER_JANITOR_REQUEST "2.16.840.1.424242.1.27.100.47" /* 45 and 46 are unused */
#define LDAPX_TRIGGER_JANITOR_RESPONSE "2.16.840.1.424242.1.27.100.48"
#define LDAPX_TRIGGER_LIMBER_REQUEST "2.16.840.1.424242.1.27.100.49"
#define LDAPX_TRIGGER_LIMBER_RESPONSE "2.16.840.1.424242.1.27.100.50"
#define LDAPX_TRIGGER_SKULKER_REQUEST "2.16.840.1.424242.1.27.100.51"
#define LDAPX_TRIGGER_SKULKER_RESPONSE "2.16.840.1.424242.1.27.100.52"
#define LDAPX_TRIGGER_SCHEMA_SYNC_REQUEST "2.16.840.1.424242.1.27.100.53"
#define LDAPX_TRIGGER_SCHEMA_SYNC_RESPONSE "2.16.840.1.424242.1.27.100.54"
#define LDAPX_TRIGGER_PARTITION_PURGE_REQUEST "2.16.840.1.424242.1.27.100.55"
#define LDAPX_TRIGGER_PARTITION_PURGE_RESPONSE "2.16.840.1.424242.1.27.100.56"
/* Both registrations are closed by the same response; nothing in it tells which was sent. */
#define LDAPX_MONITOR_EVENTS_REQUEST "2.16.840.1.424242.1.27.100.79"
#define LDAPX_MONITOR_EVENTS_RESPONSE "2.16.840.1.424242.1.27.100.80"
#define LDAPX_MONITOR_EVENTS_FILTERED_REQUEST "2.16.840.1.424242.1.27.100.84"
#define LDAPX_EVENT_NOTIFICATION "2.16.840.1.424242.1.27.100.81" /* IntermediateResponse */
#define LDAPX_BACKUP_OBJECT_REQUEST "2.16.840.1.424242.1.27.100.96"
#define LDAPX_BACKUP_OBJECT_RESPONSE "2.16.840.1.424242.1.27.100.97"
#define LDAPX_RESTORE_OBJECT_REQUEST "2.16.840.1.424242.1.27.100.98"
#define LDAPX_RESTORE_OBJECT_RESPONSE "2.16.840.1.424242.1.27.100.99"
#define LDAPX_DNS_TO_X500_DN_REQUEST "2.16.840.1.424242.1.27.100.101"
#define LDAPX_DNS_TO_X500_DN_RESPONSE "2.16.840.1.424242.1.27.100.102"
#define LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST "2.16.840.1.424242.1.27.100.103"
#define LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE "2.16.840.1.424242.1.27.100.104"
#define LDAPX_LBURP_START_REQUEST "2.16.840.1.424242.1.142.100.1"
#define LDAPX_LBURP_START_RESPONSE "2.16.840.1.424242.1.142.100.2"
#define LDAPX_LBURP_END_REQUEST "2.16.840.1.424242.1.142.100.4"
#define LDAPX_LBURP_END_RESPONSE "2.16.840.1.424242.1.142.100.5"
#define LDAPX_LBURP_OPERATION_REQUEST "2.16.840.1.424242.1.142.100.6"
#define LDAPX_LBURP_OPERATION_RESPONSE "2.16.840.1.424242.1.142.100.7"
/* The update style that a start request names, its only element. */
#define LDAPX_LBURP_INCREMENTAL_UPDATE "2.16.840.1.424242.1.142.1.4.2"

/* ---- General --------------------------------------------------------------------------------*/

/* The library's version, "major.minor.patch" (semantic versioning). Static; not released. */
LDAPX_API const char *ldapx_version(void) LDAPX_NOEXCEPT;

/* The text of a result code: of one of the codes above, of an LDAP result code (RFC 4511, 4.1.9)
 * or of one of the LDAP library's negative codes. Static; never NULL; not released. */
LDAPX_API const char *ldapx_err2string(int code) LDAPX_NOEXCEPT;

/* Releases a buffer that the library allocated for the caller.
 *   mem  the buffer, or NULL, which is ignored. */
LDAPX_API void ldapx_memfree(void *mem) LDAPX_NOEXCEPT;

/* ---- Partitions -----------------------------------------------------------------------------
 *
 * A partition (naming context) is a subtree that is stored and replicated as a unit. All six
 * functions are synchronous and check no argument. Result codes common to them:
 *   LDAP_SUCCESS            the server did it
 *   LDAPX_ENCODING_ERROR    the request could not be encoded
 *   LDAPX_NO_MEMORY         an element could not be allocated or flattened
 *   LDAPX_NOT_SUPPORTED     the response has no name or another operation's; the server does not
 *                           speak this operation
 *   any other               from the server (LDAP_INSUFFICIENT_ACCESS, LDAP_NO_SUCH_OBJECT, ...)
 *                           or from the LDAP library, unchanged
 * Each operation has a second name in the vocabulary of naming contexts that does exactly the
 * same.
 */

/* Splits a partition: the entry dn becomes the root of a new partition, child of the one that
 * held it.
 *   dn     the entry, sent as an OCTET STRING; an empty string is sent as it is.
 *   flags  option bits for the server, sent unchanged as an INTEGER. */
LDAPX_API int ldap_split_partition(LDAP *ld, char *dn, int flags) LDAPX_NOEXCEPT;
LDAPX_API int ldap_create_naming_context(LDAP *ld, char *dn, int flags) LDAPX_NOEXCEPT;

/* Merges the partition whose root is dn back into its parent partition.
 *   dn     the root of the partition that disappears.
 *   flags  option bits for the server, sent unchanged. */
LDAPX_API int ldap_merge_partitions(LDAP *ld, char *dn, int flags) LDAPX_NOEXCEPT;
LDAPX_API int ldap_merge_naming_contexts(LDAP *ld, char *dn, int flags) LDAPX_NOEXCEPT;

/* Aborts the operation that is running on the partition whose root is dn.
 *   dn     the partition's root.
 *   flags  option bits for the server, sent unchanged. */
LDAPX_API int ldap_abort_partition_operation(LDAP *ld, char *dn, int flags) LDAPX_NOEXCEPT;
LDAPX_API int ldap_abort_naming_context_operation(LDAP *ld, char *dn, int flags) LDAPX_NOEXCEPT;

/* Asks how many entries the partition whose root is dn holds.
 *   dn     the partition's root.
 *   count  receives the number. Set it to 0 before the call: the 32 bits of the answer are
 *          stored in the variable's first four bytes and its other bytes keep their value.
 * Further result codes:
 *   LDAPX_OPERATIONS_ERROR  the response carries no value
 *   LDAPX_ENCODING_ERROR    (also) the response value is not an INTEGER
 * On failure *count is unchanged. */
LDAPX_API int ldap_partition_entry_count(LDAP *ld, char *dn, unsigned long *count) LDAPX_NOEXCEPT;
LDAPX_API int ldap_naming_context_entry_count(LDAP *ld, char *dn,
                                              unsigned long *count) LDAPX_NOEXCEPT;

/* Splits an orphan partition (one whose parent partition no server holds) off on a server.
 *   serverDN     the server object on which the orphan partition lives.
 *   contextName  the name of the orphan partition. */
LDAPX_API int ldap_split_orphan_partition(LDAP *ld, char *serverDN,
                                          char *contextName) LDAPX_NOEXCEPT;
LDAPX_API int ldap_create_orphan_naming_context(LDAP *ld, char *serverDN,
                                                char *contextName) LDAPX_NOEXCEPT;

/* Removes an orphan partition from a server.
 *   serverDN     the server object on which the orphan partition lives.
 *   contextName  the name of the orphan partition. */
LDAPX_API int ldap_remove_orphan_partition(LDAP *ld, char *serverDN,
                                           char *contextName) LDAPX_NOEXCEPT;
LDAPX_API int ldap_remove_orphan_naming_context(LDAP *ld, char *serverDN,
                                                char *contextName) LDAPX_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LDAPX_H */
