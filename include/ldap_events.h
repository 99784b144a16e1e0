/* ldap_events.h - the server's events: registration, parsing, records, release.
 *
 * A monitor lives like this:
 *
 *  1. ldap_monitor_events() or ldap_monitor_events_filtered() registers for events and returns
 *     the message id of the request, which stays outstanding.
 *  2. ldap_result() on that id yields one LDAPMessage after the other.
 *  3. An IntermediateResponse (LDAP_RES_INTERMEDIATE) is one event: ldap_parse_ds_event() or
 *     ldap_parse_ds_event_IP() turns it into a type, a result and a record.
 *  4. ldap_event_free() releases the record.
 *  5. An ExtendedResponse (LDAP_RES_EXTENDED) ends the stream; ldap_parse_monitor_events_response()
 *     turns it into the server's verdict and the specifiers that it rejected.
 *
 * Conventions beyond those of ldapx.h:
 *
 *  - Every function that has a session and a result code also leaves that code in the session
 *    (LDAP_OPT_RESULT_CODE); the three exceptions say so. One session must therefore not be used
 *    on two threads at once.
 *  - Event types, states, results, verbs, flags and all other numbers in records are the server's
 *    and pass through unchanged. Fields declared unsigned take the values from 0 to 4294967295,
 *    with or without the leading zero byte that X.690 wants for the upper half.
 *  - Strings in records are NUL-terminated; an empty one is NULL. Only in a list of strings, where
 *    NULL marks the end, an empty string is an empty string.
 *  - A record belongs to the caller and is released with ldap_event_free(), and only with it: the
 *    block begins in front of the record, with a header of one ber_tag_t that holds the record's
 *    event-data tag, ((ber_tag_t *)record)[-1].
 *  - A server that breaks the protocol stops the process where this manual says "assertion": a
 *    string is expected and the next element is none. A library built with
 *    GREIRIGE_ASSERTIONS=OFF returns LDAPX_DECODING_ERROR there instead.
 *
 * Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
 */
#ifndef LDAP_EVENTS_H
#define LDAP_EVENTS_H

#include <stddef.h>

#include "ldapx.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Event-data tags ------------------------------------------------------------------------
 *
 * The BER tag (class APPLICATION, constructed) that opens the data of an event and says what kind
 * of record follows. 0x6a, 0x6b and 0x6e have no record.
 */
#define EVT_TAG_ENTRY_INFO 0x61UL            /* EVT_EntryInfo */
#define EVT_TAG_VALUE_INFO 0x62UL            /* EVT_ValueInfo */
#define EVT_TAG_GENERAL_EVENT 0x63UL         /* EVT_EventData */
#define EVT_TAG_SKULK 0x64UL                 /* no record */
#define EVT_TAG_BINDERY_OBJECT 0x65UL        /* EVT_BinderyObjectInfo */
#define EVT_TAG_SEV_INFO 0x66UL              /* EVT_SEVInfo */
#define EVT_TAG_MODULE_STATE 0x67UL          /* EVT_ModuleState */
#define EVT_TAG_NET_ADDRESS 0x68UL           /* EVT_NetAddress */
#define EVT_TAG_CONN_STATE 0x69UL            /* EVT_ChangeConnState */
#define EVT_TAG_CHANGE_SERVER_ADDR 0x6cUL    /* EVT_ChangeServerAddr */
#define EVT_TAG_CHANGE_CONFIG_PARAM 0x6dUL   /* EVT_ChangeConfigParm */
#define EVT_TAG_STATUS_LOG 0x6fUL            /* EVT_StatusLogInfo */
#define EVT_TAG_DEBUG_INFO 0x70UL            /* EVT_DebugInfo */
#define EVT_TAG_AUTH 0x71UL                  /* EVT_AuthEventData */
#define EVT_TAG_CONNECTION 0x72UL            /* EVT_ConnectionEventData */
#define EVT_TAG_SEARCH 0x73UL                /* EVT_SearchEventData */
#define EVT_TAG_SEARCH_ENTRY_RESPONSE 0x74UL /* EVT_SearchEntryResponseEventData */
#define EVT_TAG_UPDATE 0x75UL                /* EVT_UpdateEventData */
#define EVT_TAG_COMPARE 0x76UL               /* EVT_CompareEventData */
#define EVT_TAG_MODDN 0x77UL                 /* EVT_ModDNEventData */
#define EVT_TAG_ABANDON 0x78UL               /* EVT_AbandonEventData */
#define EVT_TAG_EXTOP 0x79UL                 /* EVT_ExtOpEventData */
#define EVT_TAG_SYS_EXTOP 0x7aUL             /* EVT_SysExtOpEventData */
#define EVT_TAG_RESPONSE 0x7bUL              /* EVT_ResponseEventData */
#define EVT_TAG_PASSWORD_MODIFY 0x7cUL       /* EVT_PasswordModifyEventData */
#define EVT_TAG_UNKNOWN_OP 0x7dUL            /* EVT_UnknownEventData */

/* ---- Registration records -------------------------------------------------------------------*/

/* One event to monitor, or one that the server rejected. */
typedef struct EVT_EventSpecifier {
    int eventType;   /* INTEGER: the event type */
    int eventStatus; /* ENUMERATED: the status selector */
} EVT_EventSpecifier;

/* One event to monitor, with a filter. */
typedef struct EVT_FilteredEventSpecifier {
    int eventType;
    int eventStatus;
    char *filter; /* OCTET STRING: the filter text; not NULL */
} EVT_FilteredEventSpecifier;

/* ---- Records shared by several events -------------------------------------------------------*/

/* When a change was made and by which replica; "event" tells apart what one second holds. */
typedef struct EVT_TimeStamp {
    unsigned int seconds;
    unsigned int replicaNumber;
    unsigned int event;
} EVT_TimeStamp;

/* A network address: the record of tag 0x68 and the address trailer of any other event. */
typedef struct EVT_NetAddress {
    unsigned int type;
    unsigned int length; /* number of address bytes */
    char data[1];        /* length bytes and a NUL: the block is larger than this declaration */
} EVT_NetAddress;

/* One address of a referral list. */
typedef struct EVT_ReferralAddress {
    int type;
    int length;    /* number of address bytes */
    char *address; /* length bytes and a NUL, or NULL */
} EVT_ReferralAddress;

/* The connection on which an LDAP operation came (a part of the records below, a block of its own
 * without a header), and the record of tag 0x72. */
typedef struct EVT_ConnectionEventData {
    unsigned int connection;
    unsigned int time;
    char *inetAddr; /* the client's address as text */
} EVT_ConnectionEventData;

/* ---- Records of the directory's own events --------------------------------------------------*/

/* 0x61: an entry was created, deleted, renamed, moved. */
typedef struct EVT_EntryInfo {
    char *perpetratorDN;
    char *entryDN;
    char *className;
    unsigned int verb;
    unsigned int flags;
    EVT_TimeStamp creationTime;
    char *newDN;
} EVT_EntryInfo;

/* 0x62: a value was added or deleted. */
typedef struct EVT_ValueInfo {
    unsigned int verb; /* 0 when the server did not send it */
    char *perpetratorDN;
    char *entryDN;
    char *attributeName;
    char *syntaxOID;
    char *className;
    EVT_TimeStamp timeStamp;
    unsigned int size;
    char *value; /* size bytes and a NUL, or NULL */
} EVT_ValueInfo;

/* 0x63: any other event. */
typedef struct EVT_EventData {
    unsigned int dstime;
    unsigned int milliseconds;
    unsigned int curProcess;
    unsigned int verb;
    char *perpetratorDN;
    unsigned int intValues[4]; /* unused ones are 0 */
    char *strValues[4];        /* unused ones are NULL; the fourth is never used */
} EVT_EventData;

/* 0x65: a bindery object. */
typedef struct EVT_BinderyObjectInfo {
    char *entryDN;
    unsigned int type;
    unsigned int emuObjFlags;
    unsigned int security;
    char *name;
} EVT_BinderyObjectInfo;

/* 0x66: a server-to-server event. */
typedef struct EVT_SEVInfo {
    char *entryDN;
    unsigned int retryCount;
    char *valueDN;
    int referralCount;
    EVT_ReferralAddress *referrals; /* referralCount of them; NULL when there is no list */
} EVT_SEVInfo;

/* 0x67: a module was loaded or unloaded. */
typedef struct EVT_ModuleState {
    char *connectionDN;
    unsigned int flags;
    char *sourceModule;
    char name[32];
    char description[128];
} EVT_ModuleState;

/* 0x69: a connection changed its state. */
typedef struct EVT_ChangeConnState {
    char *connectionDN;
    unsigned int oldFlags;
    unsigned int newFlags;
    char *sourceModule;
} EVT_ChangeConnState;

/* 0x6c: the server's address changed. */
typedef struct EVT_ChangeServerAddr {
    unsigned int flags;
    int proto;
    int addrFamily;
    int addrSize;
    char *addr; /* addrSize bytes and a NUL, or NULL */
    char *pstkname;
    char *sourceModule;
} EVT_ChangeServerAddr;

/* 0x6d: a configuration parameter changed. */
typedef struct EVT_ChangeConfigParm {
    int type; /* which member of value is set: */
    char *name;
    union {
        int integer;   /* 5 */
        int boolean;   /* 2 */
        char *utf8Str; /* 3 */
        struct {
            int size;
            char *data; /* size bytes and a NUL, or NULL */
        } binary;       /* 1 */
    } value;            /* 0: none */
} EVT_ChangeConfigParm;

/* 0x6f: a line of the status log. */
typedef struct EVT_StatusLogInfo {
    unsigned int logTime;
    char *moduleName;
    char *messageLevel;
    char *messageEvent;
    char *messageCode;
    char *messageDesc;
    char *statusDoc;
} EVT_StatusLogInfo;

/* A network address in a debug event; data is length bytes and a NUL, or NULL. */
typedef struct DB_netAddress {
    unsigned int type;
    unsigned int length;
    char *data;
} DB_netAddress;

/* Any bytes in a debug event; data is size bytes and a NUL, or NULL. */
typedef struct DB_binary {
    unsigned int size;
    char *data;
} DB_binary;

/* count time stamps in a debug event. */
typedef struct DB_timeStampVector {
    unsigned int count;
    EVT_TimeStamp *timeStamps;
} DB_timeStampVector;

typedef union DB_value {
    int integer;
    char *utf8Str;
    EVT_TimeStamp timeStamp;
    DB_netAddress netAddress;
    DB_binary binary;
    DB_timeStampVector timeStampVector;
} DB_value;

/* One argument of a debug message. */
typedef struct DB_Parameter {
    int type; /* which member of value is set: 1 and 4 integer, 2 utf8Str, 3 binary, */
              /* 5 netAddress, 6 timeStamp, 7 timeStampVector */
    DB_value value;
} DB_Parameter;

/* 0x70: a debug message and its arguments. */
typedef struct EVT_DebugInfo {
    unsigned int dsTime;
    unsigned int milliseconds;
    char *perpetratorDN;
    char *formatString;
    int verb;
    int paramCount;
    DB_Parameter *parameters; /* paramCount of them; NULL when there are none */
} EVT_DebugInfo;

/* ---- Records of LDAP operations -------------------------------------------------------------
 *
 * connectionData is NULL when the server did not send it. controlOID, attrs and referral are
 * NULL-terminated lists, NULL when absent. resultCode is the operation's LDAP result code.
 */

/* 0x71: a bind. */
typedef struct EVT_AuthEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    char *bindDN;
    unsigned int bindType;
    char *authMechanism; /* also NULL when there was no memory for it */
    char **controlOID;
    int resultCode;
} EVT_AuthEventData;

/* 0x73: a search. */
typedef struct EVT_SearchEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    char *bindDN;
    char *base;
    unsigned int scope;
    char *filter;
    char **attrs;
    char **controlOID;
    int resultCode;
} EVT_SearchEventData;

/* 0x74: an entry that a search returned. */
typedef struct EVT_SearchEntryResponseEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    char *entryDN;
    char *className;
    char **attrs;
    int resultCode;
} EVT_SearchEntryResponseEventData;

/* 0x75: an add, a delete or a modify. */
typedef struct EVT_UpdateEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    unsigned int operation;
    char *bindDN;
    char *entryDN;
    char *className;
    char **controlOID;
    int resultCode;
} EVT_UpdateEventData;

/* 0x76: a compare. */
typedef struct EVT_CompareEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    char *bindDN;
    char *compareDN;
    char *assertionType;
    char *assertionValue;
    char *className;
    int resultCode;
} EVT_CompareEventData;

/* 0x77: a rename. */
typedef struct EVT_ModDNEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    char *bindDN;
    char *oldRDN;
    char *newRDN;
    char *className;
    char **controlOID;
    int resultCode;
} EVT_ModDNEventData;

/* 0x78: an abandon. */
typedef struct EVT_AbandonEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    unsigned int operation;
    char *bindDN;
    int resultCode;
} EVT_AbandonEventData;

/* 0x79: an extended operation. */
typedef struct EVT_ExtOpEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    unsigned int operation;
    char *extensionOID;
    char *bindDN;
    int resultCode;
} EVT_ExtOpEventData;

/* 0x7a: an extended operation of the system. */
typedef struct EVT_SysExtOpEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    unsigned int operation;
    char *extensionOID;
    char *bindDN;
    char *value1;
    char *value2;
    char *value3;
    char *value4;
    int resultCode;
} EVT_SysExtOpEventData;

/* 0x7b: the response to an operation. */
typedef struct EVT_ResponseEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    unsigned int operation;
    int resultCode;
    char *matchedDN;
    char **referral;
} EVT_ResponseEventData;

/* 0x7c: a password was changed. */
typedef struct EVT_PasswordModifyEventData {
    EVT_ConnectionEventData *connectionData;
    unsigned int msgID;
    unsigned int time;
    char *bindDN;
    char *entryDN;
    int passwordModifyType;
    int resultCode;
} EVT_PasswordModifyEventData;

/* 0x7d: an operation that the server does not know. */
typedef struct EVT_UnknownEventData {
    unsigned int time;
    char *inetAddr;
} EVT_UnknownEventData;

/* ---- Registration ---------------------------------------------------------------------------*/

/* Asks the server to report events. Sends the request and returns; the server answers with one
 * IntermediateResponse for each event and ends with one ExtendedResponse.
 *   eventCount  number of specifiers. A negative number is sent as it is, with an empty list.
 *   events      the specifiers, not kept.
 *   msgID       receives the message id of the request.
 * Request value: SEQUENCE { INTEGER eventCount, SET { SEQUENCE { INTEGER eventType,
 * ENUMERATED eventStatus } ... } }.
 * Result codes:
 *   LDAP_SUCCESS            the request is on its way
 *   LDAPX_PARAM_ERROR       eventCount is 0 or events is NULL; nothing was sent
 *   LDAPX_ENCODING_ERROR    the request could not be encoded; nothing was sent
 *   LDAPX_NO_MEMORY         an element could not be allocated or flattened; nothing was sent
 *   any other               from the LDAP library, unchanged
 * The session's result code is not touched by LDAPX_PARAM_ERROR and by the LDAPX_NO_MEMORY of the
 * first element. On failure *msgID is unchanged, or what ldap_extended_operation() left there. */
LDAPX_API int ldap_monitor_events(LDAP *ld, int eventCount, EVT_EventSpecifier *events,
                                  int *msgID) LDAPX_NOEXCEPT;

/* The same with a filter text in each specifier, a third element: OCTET STRING filter. eventCount,
 * msgID and the result codes are as above.
 *   events      each filter must not be NULL; this is not checked. */
LDAPX_API int ldap_monitor_events_filtered(LDAP *ld, int eventCount,
                                           EVT_FilteredEventSpecifier *events,
                                           int *msgID) LDAPX_NOEXCEPT;

/* Reads the response that ends the stream of events, of either kind of registration.
 *   eventMessage   the ExtendedResponse from ldap_result().
 *   resultCode     receives the server's result code of the registration; it is reported, never
 *                  inspected. Not NULL.
 *   errorMsg       receives the server's diagnostic message, released with ldap_memfree(), or
 *                  NULL. The parameter may be NULL.
 *   badEventCount  receives the number of rejected specifiers, 0 when there are none.
 *   badEvents      receives the rejected specifiers, one block released with ldapx_memfree(), or
 *                  NULL. When either of the two parameters is NULL the list is not looked at.
 *   freeIt         not 0: the LDAP library releases eventMessage.
 * Response value: SEQUENCE { INTEGER count, SET { SEQUENCE { INTEGER, ENUMERATED } ... } }. With
 * no response name, no value, no count or no SET there is no list, and that is success.
 * Result codes:
 *   LDAP_SUCCESS            the response was read; *resultCode says whether the server agreed
 *   LDAPX_PARAM_ERROR       resultCode is NULL; nothing but the session was touched
 *   LDAPX_DECODING_ERROR    the response is another operation's; its list is shorter than its
 *                           count says or cannot be read
 *   LDAPX_NO_MEMORY         no memory for the list
 *   any other               from the LDAP library, unchanged
 * On failure *badEvents is NULL and *badEventCount 0.
 * The response name that the LDAP library allocates (30 bytes) is not released, on any path. */
LDAPX_API int ldap_parse_monitor_events_response(LDAP *ld, LDAPMessage *eventMessage,
                                                 int *resultCode, char **errorMsg,
                                                 int *badEventCount, EVT_EventSpecifier **badEvents,
                                                 int freeIt) LDAPX_NOEXCEPT;

/* ---- Parsing --------------------------------------------------------------------------------*/

/* Turns one event message into the event's type, its result and its record.
 *   eventMessage  the IntermediateResponse from ldap_result(). A response name without characters
 *                 makes the LDAP library itself stop the process.
 *   eventType     receives the event's type. Not NULL.
 *   eventResult   receives the event's result. Not NULL.
 *   eventData     receives the record, to be cast to the type that belongs to its tag, released
 *                 with ldap_event_free(). NULL for an event without a record: a skulk event and
 *                 one whose tag is unknown. The parameter may be NULL: then the event's data is
 *                 not read at all, nor is an address trailer.
 *   freeIt        not 0: the LDAP library releases eventMessage.
 * Response value: SEQUENCE { INTEGER eventType, INTEGER eventResult, the event's data under its
 * tag }, and optionally the address trailer, INTEGER and OCTET STRING. Elements are read one after
 * the other; the lengths of the SEQUENCE and of the event's data bound nothing.
 * Result codes:
 *   LDAP_SUCCESS            the event was read, or its tag is unknown
 *   LDAPX_PARAM_ERROR       eventType or eventResult is NULL; nothing but the session was touched
 *   LDAPX_DECODING_ERROR    the response is another operation's; its value is not that of an
 *                           event; the event's data or the trailer cannot be read
 *   LDAPX_NO_MEMORY         no memory for the record or something in it; the response has no value
 *   any other               from the LDAP library, unchanged
 * On failure *eventData is NULL, *eventType and *eventResult hold what was read of them.
 * An address trailer is checked and passed over. */
LDAPX_API int ldap_parse_ds_event(LDAP *ld, LDAPMessage *eventMessage, int *eventType,
                                  int *eventResult, void **eventData, int freeIt) LDAPX_NOEXCEPT;

/* The same, and hands out the address trailer. eventMessage, eventType, eventResult, eventData,
 * freeIt and the result codes are as above.
 *   pIP  receives the trailer as an EVT_NetAddress, released with ldap_event_free(). Set *pIP to
 *        NULL before the call: it is written only when the event carries a trailer, and is NULL
 *        when the trailer cannot be read. With pIP NULL the trailer is checked and passed over. */
LDAPX_API int ldap_parse_ds_event_IP(LDAP *ld, LDAPMessage *eventMessage, int *eventType,
                                     int *eventResult, void **eventData, int freeIt,
                                     void **pIP) LDAPX_NOEXCEPT;

/* ---- Release --------------------------------------------------------------------------------*/

/* Releases an event record (from *eventData or *pIP) and everything in it.
 *   eventData  the record. NULL is the caller's error and is not checked: the block that is
 *              released begins in front of the record.
 * The address of the first element of an EVT_SEVInfo's referral list is not released; see
 * freeReferralList(). */
LDAPX_API void ldap_event_free(void *eventData) LDAPX_NOEXCEPT;

/* Releases a referral list.
 *   count     number of elements.
 *   replicas  the list, or NULL, which is ignored.
 * The address of the first element is never released; a caller that must not lose that memory
 * releases it with ldapx_memfree() before this call. */
LDAPX_API void freeReferralList(int count, EVT_ReferralAddress *replicas) LDAPX_NOEXCEPT;

/* Releases a list of strings.
 *   stringSequence  the list, or NULL, which is ignored. */
LDAPX_API void freeStringSequence(char **stringSequence) LDAPX_NOEXCEPT;

/* Releases a connection block.
 *   connData  the block, or NULL, which is ignored. */
LDAPX_API void freeConnectionData(EVT_ConnectionEventData *connData) LDAPX_NOEXCEPT;

/* Makes an event record.
 *   size  size of the record in bytes.
 *   tag   its event-data tag, which ldap_event_free() goes by.
 * Returns the record, its bytes not initialised, or NULL when there is no memory. */
LDAPX_API void *allocEventData(size_t size, ber_tag_t tag) LDAPX_NOEXCEPT;

/* ---- Decoders -------------------------------------------------------------------------------
 *
 * ldap_parse_ds_event() does all of this; the decoders are for programs that take a message apart
 * themselves.
 *
 *   ld           receives the result code (LDAP_OPT_RESULT_CODE), nothing else.
 *   responseBer  stands just inside the event's data, right after its tag and length. Afterwards
 *                it stands behind the last element that was read; after a failure, at or inside
 *                the element that could not be read.
 *   eventData    receives the new record, released with ldap_event_free(). Not NULL.
 *   pIP          receives the address trailer, as in ldap_parse_ds_event_IP(). The trailer is
 *                whatever follows the last field and begins with an INTEGER.
 * Result codes:
 *   LDAP_SUCCESS            the record is complete
 *   LDAPX_DECODING_ERROR    an element is missing, cut or not what is expected
 *   LDAPX_NO_MEMORY         no memory for the record or something in it
 * On failure *eventData is NULL. Assertion: where a string is expected and the next element is
 * none, "expectedTag == tag".
 *
 * The fields follow one another directly. "n" is an INTEGER (its tag is not checked), "s" an OCTET
 * STRING (04), "{" any element that is stepped into; an element that is stepped into does not
 * bound what is read from it. "connection block" is SEQUENCE (30) { n connection, n time,
 * s inetAddr }, NULL when the next element is none. "strings" is any element that is stepped into,
 * holding { s } ..., NULL when nothing is left.
 */

/* s perpetratorDN, s entryDN, s className, { n n n } creationTime, n verb, n flags, s newDN.
 * newDN takes the place of one element: any other element that stands there is passed over, an
 * address trailer's INTEGER too. */
LDAPX_API int parseEntryEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                  void **pIP) LDAPX_NOEXCEPT;

/* s perpetratorDN, s entryDN, s attributeName, s syntaxOID, s className, { n n n } timeStamp,
 * optional s value, optional n (02) verb. An empty value is left unread, and with it all that
 * follows. Without verb the INTEGER of an address trailer is taken for it. */
LDAPX_API int parseValueEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                  void **pIP) LDAPX_NOEXCEPT;

/* n dstime, n milliseconds, n verb, n curProcess, s (85) perpetratorDN, optional list (86) of
 * INTEGER, optional list (a7) of OCTET STRING. The lists end with the first element of another
 * tag: a list of integers that is not followed by strings takes an address trailer's INTEGER too.
 * More than four integers or more than three strings: LDAPX_DECODING_ERROR. */
LDAPX_API int parseGeneralEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                    void **pIP) LDAPX_NOEXCEPT;

/* Reads nothing: *eventData is NULL and the result LDAP_SUCCESS. */
LDAPX_API int parseSkulkEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                  void **pIP) LDAPX_NOEXCEPT;

/* s entryDN, n type, n emuObjFlags, n security, s name. */
LDAPX_API int parseBinderyEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                    void **pIP) LDAPX_NOEXCEPT;

/* s entryDN, n retryCount, s valueDN, optional referral list (see parseReferralList). */
LDAPX_API int parseSEVEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                void **pIP) LDAPX_NOEXCEPT;

/* s connectionDN, n flags, s name (1 to 31 bytes), s description (0 to 127 bytes),
 * s sourceModule. A name or description of another tag or length: LDAPX_DECODING_ERROR. */
LDAPX_API int parseModuleStateEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                        void **pIP) LDAPX_NOEXCEPT;

/* s connectionDN, n oldFlags, n newFlags, s sourceModule. */
LDAPX_API int parseConnectionStateData(LDAP *ld, BerElement *responseBer, void **eventData,
                                       void **pIP) LDAPX_NOEXCEPT;

/* n flags, n proto, n addrFamily, s addr, s pstkname, s sourceModule. The assertion for addr is
 * "((ber_tag_t) 0x04UL) == tag". */
LDAPX_API int parseChangeServerAddressData(LDAP *ld, BerElement *responseBer, void **eventData,
                                           void **pIP) LDAPX_NOEXCEPT;

/* n type, s name, value. Type 5: n (81) integer. Type 2: n (82) boolean. Type 1: (83) binary.
 * Type 3: (84) utf8Str. Type 0: (85), which is left unread, so that no trailer is found. Any other
 * pair of type and tag: LDAPX_DECODING_ERROR. */
LDAPX_API int parseChangeConfigParamData(LDAP *ld, BerElement *responseBer, void **eventData,
                                         void **pIP) LDAPX_NOEXCEPT;

/* n logTime, s moduleName, s messageLevel, s messageEvent, s messageCode, s messageDesc,
 * s statusDoc. */
LDAPX_API int parseStatusLogEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                      void **pIP) LDAPX_NOEXCEPT;

/* n dsTime, n milliseconds, s perpetratorDN, s formatString, n verb, n paramCount, and when
 * paramCount is above 0: { paramCount parameters }. A parameter's tag is 0x80 and its type:
 * n (81) integer, (82) utf8Str, (83) binary, n (84) integer, (85) { n type, s data } netAddress
 * (empty data is left unread), (86) { n n n } timeStamp, (87) { n count, { { n n n } ... } }
 * timeStampVector. Any other tag: LDAPX_DECODING_ERROR. */
LDAPX_API int parseDebugEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                  void **pIP) LDAPX_NOEXCEPT;

/* n type, s data; no trailer. An empty address is left unread, so that no trailer is found after
 * it. Data of another tag: LDAPX_DECODING_ERROR. */
LDAPX_API int parseNetAddrEventData(LDAP *ld, BerElement *responseBer,
                                    void **eventData) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, s bindDN, n bindType, s authMechanism, n resultCode, optional
 * (80) strings controlOID. An authMechanism that cannot be stored is passed over and stays NULL. */
LDAPX_API int parseAuthEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                 void **pIP) LDAPX_NOEXCEPT;

/* n connection, n time, s inetAddr. */
LDAPX_API int parseConnectionEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                       void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, s bindDN, s base, n scope, s filter, n resultCode, strings
 * attrs, optional (80) strings controlOID. A filter that cannot be stored gives
 * LDAPX_DECODING_ERROR, not LDAPX_NO_MEMORY. */
LDAPX_API int parseSearchEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                   void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, s entryDN, s className, n resultCode, strings attrs. */
LDAPX_API int parseSearchEntryResponseEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                                void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, n operation, s bindDN, s entryDN, s className, n resultCode,
 * optional (80) strings controlOID.
 *   eventType  the event's type; not used. */
LDAPX_API int parseUpdateEventData(LDAP *ld, BerElement *responseBer, int eventType,
                                   void **eventData, void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, s bindDN, s compareDN, s assertionType, s assertionValue,
 * s className, n resultCode. */
LDAPX_API int parseCompareEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                    void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, s bindDN, s oldRDN, s newRDN, s className, n resultCode,
 * optional (80) strings controlOID. */
LDAPX_API int parseModDNEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                  void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, n operation, s bindDN, n resultCode. */
LDAPX_API int parseAbandonEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                    void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, n operation, s extensionOID, s bindDN, n resultCode. */
LDAPX_API int parseExtOpEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                  void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, n operation, s extensionOID, s bindDN, s value1, s value2,
 * s value3, s value4, n resultCode. */
LDAPX_API int parseSysExtOpEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                     void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, n operation, n resultCode, s matchedDN, optional (81)
 * strings referral. */
LDAPX_API int parseResponseEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                     void **pIP) LDAPX_NOEXCEPT;

/* connection block, n msgID, n time, s bindDN, s entryDN, n passwordModifyType, n resultCode. */
LDAPX_API int parsePasswordModifyData(LDAP *ld, BerElement *responseBer, void **eventData,
                                      void **pIP) LDAPX_NOEXCEPT;

/* n time, s inetAddr. */
LDAPX_API int parseUnknownOp(LDAP *ld, BerElement *responseBer, void **eventData,
                             void **pIP) LDAPX_NOEXCEPT;

/* ---- Readers --------------------------------------------------------------------------------
 *
 * What the decoders are made of. They have no session and touch no result code, ber_get_IP()
 * apart. No pointer may be NULL where none is named as allowed.
 *
 *   responseBer or ber  stands at the element (X.690). Afterwards it stands behind what was read;
 *                       after a failure, at or inside the element that could not be read.
 * Result codes:
 *   LDAP_SUCCESS          read, or found to be absent where that is allowed
 *   LDAPX_DECODING_ERROR  an element is missing, cut or not what is expected
 *   LDAPX_NO_MEMORY       no memory for what was read
 */

/* Reads the address trailer when the next element is an INTEGER (02), as parseNetAddrEventData()
 * does.
 *   pIP  receives the trailer as in ldap_parse_ds_event_IP(); NULL is allowed.
 * Returns the session's result code: the trailer's when there is one, else whatever the session
 * holds. */
LDAPX_API int ber_get_IP(LDAP *ld, BerElement *responseBer, void **pIP) LDAPX_NOEXCEPT;

/* Reads a string of any bytes.
 *   pString      receives a new block, the bytes and a NUL, released with ldapx_memfree(); NULL
 *                for an empty string and on failure.
 *   size         receives the number of bytes, 0 for an empty string and on failure.
 *   expectedTag  the tag that the element must have; 0 means OCTET STRING (04).
 * Assertion: "expectedTag == tag". */
LDAPX_API int parseOctetString(BerElement *responseBer, char **pString, ber_len_t *size,
                               ber_tag_t expectedTag) LDAPX_NOEXCEPT;

/* The same without the size: pString and expectedTag as above. */
LDAPX_API int parseLDAPString(BerElement *responseBer, char **pString,
                              ber_tag_t expectedTag) LDAPX_NOEXCEPT;

/* Reads a referral list: SEQUENCE (30) { INTEGER count, { { INTEGER type, OCTET STRING address }
 * ... } }. When the next element is no SEQUENCE there is no list, and that is success.
 *   count  receives the number of elements, 0 when there is no list.
 *   pList  receives the list, released with freeReferralList(); NULL when there is none.
 * On failure both keep what was read, for the caller to release. A count that cannot fit in what
 * is left of responseBer gives LDAPX_DECODING_ERROR; a negative one gives LDAPX_NO_MEMORY.
 * Assertion: "expectedTag == tag" for an address. */
LDAPX_API int parseReferralList(BerElement *responseBer, int *count,
                                EVT_ReferralAddress **pList) LDAPX_NOEXCEPT;

/* Reads a list of strings: an element of any tag holding { OCTET STRING } ...
 *   stringSequence  receives the list, NULL-terminated, released with freeStringSequence(). Set it
 *                   to NULL before the call: when nothing is left to read, or no whole element, it
 *                   is not touched. The first of these two is success.
 * When a string cannot be read (a NUL may only be its last byte) the result is
 * LDAPX_DECODING_ERROR and *stringSequence NULL; no memory for the string itself is reported that
 * way too. When the list cannot be made longer the result is LDAPX_NO_MEMORY and *stringSequence
 * still names the list, which has been released: it must not be used. */
LDAPX_API int parseStringSequence(BerElement *ber, char ***stringSequence) LDAPX_NOEXCEPT;

/* Reads a connection block, SEQUENCE (30) { INTEGER connection, INTEGER time, OCTET STRING
 * inetAddr }. When the next element is no SEQUENCE there is none, and that is success.
 *   connData  receives the block, released with freeConnectionData(); NULL when there is none. On
 *             failure it keeps what was read, for the caller to release.
 * Assertion: "expectedTag == tag" for inetAddr. */
LDAPX_API int parseConnectionData(BerElement *responseBer,
                                  EVT_ConnectionEventData **connData) LDAPX_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LDAP_EVENTS_H */
