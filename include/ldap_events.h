/* ldap_events.h - server events: what a registration names.
 *
 * Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
 */
#ifndef LDAP_EVENTS_H
#define LDAP_EVENTS_H

#include "ldapx.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One event to monitor, or one that the server rejected. The numbers are the server's. */
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

#ifdef __cplusplus
}
#endif

#endif /* LDAP_EVENTS_H */
