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
 *  - The synchronous functions block until the response has arrived and never change the session's
 *    result code themselves. LDAP_OPT_TIMEOUT of the session bounds the wait for the response to
 *    begin; only a limit of the socket (SO_RCVTIMEO) bounds the wait for the rest of it.
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
#    define LDAPX_INT : int /* for an enum that may hold any int, as every enum of C may */
#else
#    define LDAPX_NOEXCEPT
#    define LDAPX_INT
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

/* ---- Replicas -------------------------------------------------------------------------------
 *
 * A replica is a server's copy of a partition. In all six functions
 *   dn                      is the root of the partition,
 *   serverDN or serverName  the server object that holds the replica or is to hold it,
 *   flags                   option bits for the server, sent unchanged.
 * They are synchronous and check no argument. Common result codes: as for the partitions; the
 * functions that read an answer add
 *   LDAPX_OPERATIONS_ERROR  the response carries no value
 *   LDAPX_ENCODING_ERROR    (also) the response value could not be decoded
 */

/* The types of replica. Sent and received as the number; a value outside the list is passed on
 * unchanged in both directions. */
typedef enum LDAP_REPLICA_TYPE LDAPX_INT {
    LDAP_RT_MASTER = 0,
    LDAP_RT_SECONDARY = 1,
    LDAP_RT_READONLY = 2,
    LDAP_RT_SUBREF = 3,
    LDAP_RT_SPARSE_WRITE = 4,
    LDAP_RT_SPARSE_READ = 5,
    LDAP_RT_COUNT = 6, /* how many types there are; not a type */
} LDAP_REPLICA_TYPE;

/* What a server knows of one replica. The caller's record: nothing in it is to be released. The
 * meaning of state and flags and the unit of the times are the server's. */
typedef struct ldapreplicainfo {
    int rootID;                /* of the partition's root entry on that server */
    int state;                 /* of the replica */
    int modificationTime;      /* of the replica's last modification */
    int purgeTime;             /* up to which the replica has been purged */
    int localReplicaID;        /* the replica's number on that server */
    char namingContextDN[771]; /* the partition, NUL-terminated */
    LDAP_REPLICA_TYPE replicaType;
    int flags;
} LDAPReplicaInfo;

/* Puts a replica of the partition on a server.
 *   replicaType  the new replica's type, sent unchanged. */
LDAPX_API int ldap_add_replica(LDAP *ld, char *dn, char *serverDN, LDAP_REPLICA_TYPE replicaType,
                               int flags) LDAPX_NOEXCEPT;

/* Removes the replica of the partition from a server. */
LDAPX_API int ldap_remove_replica(LDAP *ld, char *dn, char *serverDN, int flags) LDAPX_NOEXCEPT;

/* Changes the type of the replica on a server.
 *   replicaType  the type that it gets, sent unchanged. */
LDAPX_API int ldap_change_replica_type(LDAP *ld, char *dn, char *serverName,
                                       LDAP_REPLICA_TYPE replicaType, int flags) LDAPX_NOEXCEPT;

/* Reads what a server knows of its replica of the partition.
 *   replicaInfo  receives it. The server's DN is copied into namingContextDN whole, WITHOUT a
 *                bound: a DN of more than 770 bytes runs over replicaType, flags and the end of
 *                the record. Use it with servers whose DNs are known to be shorter, or with a
 *                record at the head of a larger buffer; otherwise ldap_get_replica_info_ext().
 * When the value cannot be decoded, the integers before the place of the fault have their new
 * values, the others and namingContextDN are unchanged. On other failures the whole record is
 * unchanged. */
LDAPX_API int ldap_get_replica_info(LDAP *ld, char *dn, char *serverDN,
                                    LDAPReplicaInfo *replicaInfo) LDAPX_NOEXCEPT;

/* The same request, safe with any server.
 *   replicaInfo      receives the information, in namingContextDN at most the first 770 bytes of
 *                    the DN (a character of several bytes may be cut).
 *   namingContextDN  receives the whole DN in a new block, released with ldapx_memfree().
 * Further result code:
 *   LDAPX_NO_MEMORY  (also) no memory for the whole DN: the record is filled and
 *                    *namingContextDN is NULL
 * On other failures *namingContextDN is unchanged and the record as above. */
LDAPX_API int ldap_get_replica_info_ext(LDAP *ld, char *dn, char *serverDN,
                                        LDAPReplicaInfo *replicaInfo,
                                        char **namingContextDN) LDAPX_NOEXCEPT;

/* Lists the partitions of which a server holds replicas.
 *   replicaList  receives a NULL-terminated array of names, NULL when there is none; array and
 *                strings are released together with the LDAP library's ldap_value_free() or
 *                ber_memvfree(). Set it to NULL before the call: on failure it is unchanged or
 *                NULL. */
LDAPX_API int ldap_list_replicas(LDAP *ld, char *serverDN, char ***replicaList) LDAPX_NOEXCEPT;

/* ---- Synchronisation ------------------------------------------------------------------------
 *
 * Requests that make servers exchange updates now. Synchronous: they return when the server has
 * accepted the request. Result codes: as for the partitions.
 *   partitionRoot  the root of the partition concerned.
 *   delay          after which the server is to begin, in its own unit; sent unchanged.
 */

/* Makes a server receive all updates of a partition from another.
 *   partitionRoot  the partition; NULL is refused.
 *   toServerDN     the server that receives; NULL is refused.
 *   fromServerDN   the server that sends; NULL sends the word "unusedParam" in its place, which
 *                  servers take as "any".
 * Further result code:
 *   LDAPX_PARAM_ERROR  partitionRoot or toServerDN is NULL; nothing was sent */
LDAPX_API int ldap_receive_all_updates(LDAP *ld, char *partitionRoot, char *toServerDN,
                                       char *fromServerDN) LDAPX_NOEXCEPT;

/* Makes a server send all its updates of a partition to the other replicas.
 *   origServerDN  the server that sends; NULL sends an empty string in its place. */
LDAPX_API int ldap_send_all_updates(LDAP *ld, char *partitionRoot,
                                    char *origServerDN) LDAPX_NOEXCEPT;

/* Makes a server synchronise a partition.
 *   serverName  the server. */
LDAPX_API int ldap_request_partition_sync(LDAP *ld, char *serverName, char *partitionRoot,
                                          int delay) LDAPX_NOEXCEPT;
LDAPX_API int ldap_request_naming_context_sync(LDAP *ld, char *serverName, char *partitionRoot,
                                               int delay) LDAPX_NOEXCEPT;

/* Makes the server synchronise the schema.
 *   partitionDN  a DN that the server interprets. */
LDAPX_API int ldap_request_schema_sync(LDAP *ld, char *partitionDN, int delay) LDAPX_NOEXCEPT;

/* ---- Replication filter ---------------------------------------------------------------------
 *
 * Which object classes, and which attributes of each, a server replicates. A filter is one text
 * in which every name is closed by a dollar sign, a second dollar sign closes a class and a third
 * the filter:
 *   filter     = *class "$"
 *   class      = name "$" *attribute "$"
 *   attribute  = name "$"
 *   name       = one or more bytes other than "$" and NUL
 * "inetOrgPerson$cn$sn$$group$$$" holds two classes, one with two attributes and one with none;
 * "$" is the filter without classes. There is no escape for the dollar sign. What one of the two
 * functions gives, the other takes. Both are synchronous.
 *   serverDN  the server whose filter is meant.
 * Result codes:
 *   LDAP_SUCCESS            done
 *   LDAPX_PARAM_ERROR       serverDN or filter is NULL, or (set) a name is not closed by "$";
 *                           nothing was sent
 *   LDAPX_ENCODING_ERROR    the request could not be encoded
 *   LDAPX_NO_MEMORY         an element could not be allocated or flattened, or (get) the text
 *   LDAPX_NOT_SUPPORTED     the response has no name, or (set) another operation's
 *   LDAPX_OPERATIONS_ERROR  (get) the response carries no value
 *   LDAPX_DECODING_ERROR    (get) the response value is not a filter, or no reader could be made
 *                           for it
 *   any other               from the server or from the LDAP library, unchanged; and see set
 */

/* Sets a server's filter.
 *   filter  the text; what follows the filter's closing sign is not looked at.
 * When there is no memory for a working copy of the text, NOTHING IS SENT and the result is what
 * ber_printf() returned for the server's name, which is LDAP_SUCCESS with OpenLDAP. A caller for
 * whom that matters reads the filter back. */
LDAPX_API int ldap_set_replication_filter(LDAP *ld, const char *serverDN,
                                          const char *filter) LDAPX_NOEXCEPT;

/* Reads a server's filter.
 *   filter  receives the text in a new block, released with ldapx_memfree() on success and on
 *           failure alike: after LDAPX_DECODING_ERROR it holds the classes read so far, without
 *           the filter's closing sign. Set it to NULL before the call: it is unchanged on failures
 *           before the decoding. NULL when there is no memory for the text.
 * The response's name is not compared: a filter under another name is taken. */
LDAPX_API int ldap_get_replication_filter(LDAP *ld, const char *serverDN,
                                          char **filter) LDAPX_NOEXCEPT;

/* ---- Identity and privileges ----------------------------------------------------------------
 *
 * Synchronous. Result codes common to this section and the next:
 *   LDAP_SUCCESS            done
 *   LDAPX_ENCODING_ERROR    the request could not be encoded, or the response value could not be
 *                           decoded
 *   LDAPX_NO_MEMORY         an element or a buffer could not be allocated
 *   LDAPX_NOT_SUPPORTED     the response has no name or another operation's
 *   LDAPX_OPERATIONS_ERROR  the response carries no value
 *   any other               from the server or from the LDAP library, unchanged
 */

/* Asks under which identity the session is bound. The request has no value. (RFC 4532 is the
 * standard operation of this purpose; this one answers with a bare DN.)
 *   identity  receives the DN in a new block, released with ldapx_memfree(). A DN of up to 771
 *             bytes is returned whole, a longer one as its first 770 bytes. The block always has
 *             room for the whole DN; a DN with a zero byte in it reads shorter than it is.
 * No argument is checked. On failure *identity is unchanged, but NULL when there was no memory
 * for it; the decoded response value (two blocks of the LDAP library) is leaked in that case. */
LDAPX_API int ldap_get_bind_dn(LDAP *ld, char **identity) LDAPX_NOEXCEPT;
LDAPX_API int ldap_get_context_identity_name(LDAP *ld, char **identity) LDAPX_NOEXCEPT;

/* Asks which rights one object effectively has on an attribute of another.
 *   dn          the object that the rights are over.
 *   trusteeDN   the object that has them.
 *   attrName    the attribute.
 *   privileges  receives the rights, bits that the server defines; unchanged on failure.
 * No argument is checked. */
LDAPX_API int ldap_get_effective_privileges(LDAP *ld, char *dn, char *trusteeDN, char *attrName,
                                            int *privileges) LDAPX_NOEXCEPT;

/* Asks the same for a list of attributes at once. (Mind the order: here the object that has the
 * rights comes first.)
 *   subjectDN    the object that has the rights.
 *   targetDN     the object that they are over.
 *   targetAttrs  the attributes, NULL-terminated; an empty list is sent as one.
 *   privileges   receives the rights in the server's order. It is written for as many entries as
 *                the SERVER announces, whatever was asked for: use it with servers that answer
 *                one entry per attribute; otherwise ldap_get_effective_privileges_list_ext().
 * Further result code:
 *   LDAPX_PARAM_ERROR  one of the four is NULL; nothing was sent
 * When an entry cannot be read it is 0, and the entries before it are filled. */
LDAPX_API int ldap_get_effective_privileges_list(LDAP *ld, char *subjectDN, char *targetDN,
                                                 char **targetAttrs,
                                                 int *privileges) LDAPX_NOEXCEPT;

/* The same request, safe with any server. subjectDN, targetDN and targetAttrs are as above.
 *   privileges  receives at most capacity entries.
 *   capacity    the entries that privileges has room for; 0 or more.
 *   count       receives the number of entries that the server announced, which may be less than
 *               0 or more than capacity; unchanged on failures before that number is decoded.
 * Further result codes:
 *   LDAPX_PARAM_ERROR     a pointer other than ld is NULL or capacity is negative; nothing was sent
 *   LDAPX_DECODING_ERROR  the server announced more than capacity entries; the first capacity
 *                         entries are filled */
LDAPX_API int ldap_get_effective_privileges_list_ext(LDAP *ld, char *subjectDN, char *targetDN,
                                                     char **targetAttrs, int *privileges,
                                                     int capacity, int *count) LDAPX_NOEXCEPT;

/* Makes the server refresh itself. The request has no value; a response value is not read. */
LDAPX_API int ldap_refresh_server(LDAP *ld) LDAPX_NOEXCEPT;

/* ---- Name conversion ------------------------------------------------------------------------
 *
 * The server turns a name of another form into a DN. Synchronous; no argument is checked. Result
 * codes: as for identity and privileges.
 *   ldapName  receives the DN, however long, in a new block, released with ldapx_memfree(). On
 *             failure it is unchanged, but NULL when there was no memory for it; the decoded
 *             response value (two blocks of the LDAP library) is leaked in that case.
 */

/* Converts a name in the directory's native form.
 *   dn  16-bit units in the host's byte order, ended by a zero unit. They are sent with the high
 *       byte first, the zero unit included. */
LDAPX_API int ldap_zil_to_ldap(LDAP *ld, unsigned short *dn, char **ldapName) LDAPX_NOEXCEPT;

/* Converts a DNS-style name.
 *   dn  the name, sent as it is. */
LDAPX_API int ldap_dns_to_x500_dn(LDAP *ld, char *dn, char **ldapName) LDAPX_NOEXCEPT;

/* ---- Background processes -------------------------------------------------------------------
 *
 * Start one of the server's background processes now instead of on its schedule. Synchronous:
 * they return when the server has accepted the request, which has no value; a response value is
 * not read. Result codes:
 *   LDAP_SUCCESS         the server accepted
 *   LDAPX_NOT_SUPPORTED  the response has no name or another operation's
 *   any other            from the server or from the LDAP library, unchanged
 */

/* Starts the process of a number.
 *   processID  1 backlink, 2 janitor, 3 limber, 4 skulker, 5 schema synchronisation, 6 partition
 *              purge.
 * Further result code:
 *   LDAPX_PARAM_ERROR  any other number; nothing was sent */
LDAPX_API int ldap_trigger_back_process(LDAP *ld, int processID) LDAPX_NOEXCEPT;

/* The same processes by name. */
LDAPX_API int wrapper_ldap_trigger_backlink(LDAP *ld) LDAPX_NOEXCEPT;
LDAPX_API int wrapper_ldap_trigger_janitor(LDAP *ld) LDAPX_NOEXCEPT;
LDAPX_API int wrapper_ldap_trigger_limber(LDAP *ld) LDAPX_NOEXCEPT;
LDAPX_API int wrapper_ldap_trigger_skulker(LDAP *ld) LDAPX_NOEXCEPT;
LDAPX_API int wrapper_ldap_trigger_schema_sync(LDAP *ld) LDAPX_NOEXCEPT;
LDAPX_API int wrapper_ldap_trigger_partition_purge(LDAP *ld) LDAPX_NOEXCEPT;

/* ---- Bulk update (LBURP, RFC 4373) ----------------------------------------------------------
 *
 * A bulk update streams numbered batches of updates to one server:
 *   1. ldap_lburp_start_request(), then ldap_parse_lburp_start_response() on its response, which
 *      tells the transaction size that the server announces;
 *   2. for each batch ldap_lburp_operation_request(), and ldap_parse_lburp_operation_response()
 *      on its response, which lists the operations that failed; several batches may be under way
 *      at a time;
 *   3. ldap_lburp_end_request(), then ldap_parse_lburp_end_response() on its response.
 *
 * The requests are asynchronous: each returns as soon as it is sent, with its message id. Collect
 * the response with ldap_result() for that id and hand the message to the parse function. The
 * library keeps no state between the calls: it does not know that a bulk update is open, checks
 * no order and no sequence number, and does not compare a batch with the transaction size.
 *
 * The requests and the parse functions also store what they return as the session's result code
 * (LDAP_OPT_RESULT_CODE), with the one exception of a request whose element cannot be made. No
 * argument is checked, except as the encoders say.
 *
 * Result codes of the requests:
 *   LDAP_SUCCESS            sent; *msgID is its message id
 *   LDAPX_ENCODING_ERROR    the request could not be encoded
 *   LDAPX_NO_MEMORY         an element could not be allocated (the session's result code is then
 *                           untouched) or flattened
 *   any other               from ldap_extended_operation(), unchanged
 *
 * Result codes of the parse functions:
 *   LDAP_SUCCESS            the response was read; what the server answered is in *resultCode
 *   LDAPX_DECODING_ERROR    the response value cannot be decoded
 *   LDAPX_NO_MEMORY         a decoder or a buffer could not be allocated
 *   LDAPX_NOT_SUPPORTED     the response has no name or another operation's. Servers that refuse
 *                           an operation often leave the name out: look at *resultCode
 *   any other               from ldap_parse_result() or ldap_parse_extended_result(), unchanged;
 *                           these are OpenLDAP's negative codes
 *
 * Parameters common to the parse functions:
 *   resultCode  receives the server's result code for the request as a whole.
 *   errorMsg    receives the server's message for it, a string or NULL; release it with
 *               ldap_memfree() on success and on failure alike.
 *   freeIt      nonzero: release the message. When ldap_parse_result() or
 *               ldap_parse_extended_result() fails (a negative code) it stays the caller's all
 *               the same.
 * An empty string as response name ends the process inside OpenLDAP's ldap_parse_extended_result.
 */

/* One operation of a batch. The library only reads the record and what it points to. */
typedef struct LBURPUpdateOperationList {
    int operation; /* LDAP_REQ_ADD, LDAP_REQ_DELETE, LDAP_REQ_MODIFY or LDAP_REQ_MODDN */
    char *dn;      /* the entry */
    /* One pointer wide: the four members overlay one another. A rename therefore can say no more
     * than the new RDN; see ldap_lburp_operation_request(). */
    union {
        LDAPMod **attrs; /* add and modify: NULL-terminated, not NULL */
        char *newRDN;    /* rename */
        int deleteOldRDN;
        char *newSuperior;
    } value;
    LDAPControl **ServerControls; /* sent with this operation: NULL-terminated, or NULL */
    LDAPControl **ClientControls; /* never read */
} LBURPUpdateOperationList;

/* One failed operation of a batch. */
typedef struct LBURPUpdateResult {
    int packageID;  /* the number by which the server names the operation */
    int resultCode; /* its LDAP result code */
    char *errorMsg; /* the server's message for it, or NULL */
} LBURPUpdateResult;

/* Asks the server to begin a bulk update in the style LDAPX_LBURP_INCREMENTAL_UPDATE, the only
 * one. The value is always SEQUENCE { OCTET STRING style }.
 *   msgID  receives the message id of the request. */
LDAPX_API int ldap_lburp_start_request(LDAP *ld, int *msgID) LDAPX_NOEXCEPT;

/* Reads the response to ldap_lburp_start_request().
 *   lburpStartMessage  the message that ldap_result() returned.
 *   tranSize           receives the transaction size that the server announces, the number of
 *                      operations that it wants in a batch. Unchanged on failure, and on success
 *                      when the response carries no value.
 * Any response name will do for a response whose value, SEQUENCE { INTEGER, ... }, can be read;
 * without a value the name must be LDAPX_LBURP_START_RESPONSE. */
LDAPX_API int ldap_parse_lburp_start_response(LDAP *ld, LDAPMessage *lburpStartMessage,
                                              int *resultCode, char **errorMsg, int *tranSize,
                                              int freeIt) LDAPX_NOEXCEPT;

/* Asks the server to end the bulk update. The value is SEQUENCE { INTEGER sequenceNumber } in
 * DER (X.690, section 10); the other requests leave their length forms to the LDAP library.
 *   sequenceNumber  sent as it is: neither its range nor its place in the order is checked.
 *   msgID           receives the message id of the request. */
LDAPX_API int ldap_lburp_end_request(LDAP *ld, int sequenceNumber, int *msgID) LDAPX_NOEXCEPT;

/* Reads the response to ldap_lburp_end_request(). A response value is not looked at.
 *   lburpEndMessage  the message that ldap_result() returned. */
LDAPX_API int ldap_parse_lburp_end_response(LDAP *ld, LDAPMessage *lburpEndMessage, int *resultCode,
                                            char **errorMsg, int freeIt) LDAPX_NOEXCEPT;

/* Sends a batch of updates. The value is SEQUENCE { INTEGER sequenceNumber, operations ... }, the
 * operations as the encoders below write them, with no SEQUENCE OF around them.
 *   sequenceNumber  the number of the batch, sent as it is.
 *   op              NULL-terminated array of pointers to records; may be empty, not NULL.
 *                   Everything stays the caller's.
 *   msgID           receives the message id of the request.
 * A rename (LDAP_REQ_MODDN) sends the new RDN twice, the second time in the place of the new
 * superior, and delete-old-RDN as TRUE unless the low 32 bits of the pointer newRDN are zero: the
 * record has room for nothing else. Encode a rename that needs values of its own with
 * LBURPEncodeModRDN().
 * Further result codes, both with nothing sent:
 *   LDAPX_NOT_SUPPORTED     a record's operation is none of the four
 *   LDAPX_ENCODING_ERROR    (also) an encoder failed */
LDAPX_API int ldap_lburp_operation_request(LDAP *ld, int sequenceNumber,
                                           LBURPUpdateOperationList **op,
                                           int *msgID) LDAPX_NOEXCEPT;

/* The encoders that ldap_lburp_operation_request() uses; they may be used alone. Each appends one
 * element to ber: SEQUENCE { the operation's request as in RFC 4511, [0] controls OPTIONAL }.
 *   ld        only checked, by those that check it.
 *   dn        the entry.
 *   attrs     NULL-terminated; not NULL. Of mod_op only LDAP_MOD_BVALUES counts, which says
 *             whether mod_bvalues or mod_values holds the values.
 *   mods      NULL-terminated; not NULL. mod_op less LDAP_MOD_BVALUES is sent as it is.
 *   newrdn    the new RDN.
 *   newSuperior
 *             the new parent, or NULL to leave the entry where it is. Sent as a plain OCTET
 *             STRING; RFC 4511 has a [0] tag there.
 *   deleteoldrdn
 *             nonzero: the values of the old RDN leave the entry.
 *   controls  NULL-terminated, or NULL for no controls element; an empty array gives an empty
 *             one. A criticality of 0 and a value whose bv_val is NULL are left out.
 *   ber       an element of ber_alloc_t(), with or without LBER_USE_DER.
 * Result codes:
 *   LDAP_SUCCESS            appended
 *   LDAPX_ENCODING_ERROR    a write failed, and ber HAS BEEN RELEASED with ber_free(ber, 1): do
 *                           not use or release it again
 * None stores the session's result code. A failed check ends the process: LBURPEncodeAdd() wants
 * ld and dn not NULL, LBURPEncodeDelete() ber, ld and dn; the other two check nothing. */
LDAPX_API int LBURPEncodeAdd(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **controls,
                             BerElement *ber) LDAPX_NOEXCEPT;
LDAPX_API int LBURPEncodeDelete(LDAP *ld, const char *dn, LDAPControl **controls,
                                BerElement *ber) LDAPX_NOEXCEPT;
LDAPX_API int LBURPEncodeMod(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **controls,
                             BerElement *ber) LDAPX_NOEXCEPT;
LDAPX_API int LBURPEncodeModRDN(LDAP *ld, const char *dn, const char *newrdn,
                                const char *newSuperior, int deleteoldrdn, LDAPControl **controls,
                                BerElement *ber) LDAPX_NOEXCEPT;

/* Reads the response to ldap_lburp_operation_request(): the operations of the batch that failed.
 * None means that all succeeded.
 *   lburpMessage      the message that ldap_result() returned.
 *   failedOpsCount    receives how many failed; 0 on failure.
 *   failedOperations  receives an array of as many records, NULL on failure and when the response
 *                     carries no value. Release each errorMsg and then the array with
 *                     ldapx_memfree(). The array holds one record more than counted; that one is
 *                     not initialised.
 * The value is read as SEQUENCE { INTEGER packageID, SEQUENCE { resultCode, matchedDN, message } }
 * over and over until it ends; it may end after a packageID, and the element begun there is not
 * counted. failedOpsCount and failedOperations may be NULL only for a response without a value.
 * When an element after the first cannot be read (LDAPX_DECODING_ERROR, LDAPX_NO_MEMORY) the
 * array is released, but the errorMsg strings of the elements before it are lost.
 * LDAP_OTHER from the LDAP library's parse functions comes back as LDAP_SUCCESS with nothing
 * failed; *resultCode tells. */
LDAPX_API int ldap_parse_lburp_operation_response(LDAP *ld, LDAPMessage *lburpMessage,
                                                  int *resultCode, char **errorMsg,
                                                  int *failedOpsCount,
                                                  LBURPUpdateResult **failedOperations,
                                                  int freeIt) LDAPX_NOEXCEPT;

/* ---- Object backup and restore --------------------------------------------------------------
 *
 * One object is taken out of the server as an opaque block of bytes and put back later. The
 * caller keeps four things together: the object data with its size, the chunk list and, for the
 * next backup of the same object, the object state.
 *
 *   object state  decimal mts, '+', decimal revision: "1200+3". The server's two marks of the
 *                 object's state, neither of them 0.
 *   chunk list    decimal count, then the size of each chunk, each number followed by ';':
 *                 "3;512;512;17;", and "0;" for none.
 *   object data   any bytes, zero bytes too.
 *
 * Both functions are synchronous. Unlike the other synchronous operations they store what they
 * return as the session's result code (LDAP_OPT_RESULT_CODE), except where a code below says
 * otherwise, and a response without the right name gives LDAPX_NOT_SUPPORTED even when the server
 * refused the operation with a code of its own.
 */

/* Takes an object out of the server.
 *   dn           the object; required.
 *   passwd       the password that guards the copy, or NULL for the empty string.
 *   objectState  in: *objectState is NULL for a first backup, or the state that an earlier backup
 *                returned, in a block of malloc(). It is cut at its first '+' while it is read
 *                and so reads as its mts alone after any failure: keep a copy.
 *                out: on success the old string has been released with free() and *objectState
 *                is the new state, or NULL when there was no memory for it.
 *   objectInfo   receives the object data, *size bytes. Where the server announces more bytes
 *                than it sends, the rest is zero.
 *   chunckSize   receives the chunk list, NOT NUL-terminated and exactly as long as its text:
 *                the last ';' is the one after the last of count + 1 numbers. Copy it into a
 *                block one byte larger and terminate it before ldap_restore_object().
 *   size         receives the length of the object data.
 * Release *objectState, *objectInfo and *chunckSize with ldapx_memfree(). On failure *size may
 * have been written, and *objectInfo is the caller's to release if it was set; initialise it to
 * NULL.
 * Result codes:
 *   LDAP_SUCCESS            done
 *   LDAPX_OPERATIONS_ERROR  the response carries no value
 *   LDAPX_ENCODING_ERROR    the object state has no mts or no revision, or one of them is 0 (the
 *                           session's result code is untouched); the request could not be encoded
 *   LDAPX_DECODING_ERROR    the response value cannot be decoded, or announces more chunks than
 *                           it can hold
 *   LDAPX_PARAM_ERROR       dn is NULL (the session's result code is untouched)
 *   LDAPX_NO_MEMORY         the request element (the session's result code is untouched), a
 *                           reader or a buffer could not be allocated, or the size is negative;
 *                           in the middle of the chunk list the part already built is lost
 *   LDAPX_NOT_SUPPORTED     the response has no name or another operation's, or there was none
 *   any other               from the server, unchanged */
LDAPX_API int ldap_backup_object(LDAP *ld, const char *dn, const char *passwd, char **objectState,
                                 char **objectInfo, char **chunckSize, int *size) LDAPX_NOEXCEPT;

/* Puts an object back.
 *   dn          the object; required.
 *   passwd      the password under which it was taken, or NULL for the empty string.
 *   objectInfo  the object data; required.
 *   chunckSize  the chunk list, NUL-terminated and writable: it is cut in place at each ';'. The
 *               first number is sent as the count, every further one as a chunk; the two are not
 *               compared. NULL or no number at all: count 0 and no chunk.
 *   size        how many bytes of objectInfo to send.
 * Result codes:
 *   LDAP_SUCCESS            done
 *   LDAPX_ENCODING_ERROR    the request could not be encoded, or size is negative
 *   LDAPX_PARAM_ERROR       dn or objectInfo is NULL (the session's result code is untouched)
 *   LDAPX_NO_MEMORY         the request element (the session's result code is untouched) or a
 *                           buffer of size bytes could not be allocated
 *   LDAPX_NOT_SUPPORTED     the response has no name or another operation's, or there was none
 *   any other               from the server, unchanged. When the request cannot be flattened for
 *                           lack of memory the result is a nonzero number of the LDAP library's
 *                           encoder and no result code proper */
LDAPX_API int ldap_restore_object(LDAP *ld, const char *dn, const char *passwd, char *objectInfo,
                                  char *chunckSize, int size) LDAPX_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LDAPX_H */
