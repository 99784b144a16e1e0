/* A program that uses the library: it splits a partition on a server that has answered already,
 * asks one that is not there, and prints the library's version. */

#include <ldap_events.h>
#include <ldapx.h>

#include <stdio.h>
#include <string.h>

#include <openldap.h>
#include <sys/socket.h>
#include <unistd.h>

/* Message 1, an ExtendedResponse: success, "2.16.840.1.424242.1.27.100.4". */
static const char answer[] = "\x30\x2a\x02\x01\x01\x78\x25\x0a\x01\x00\x04\x00\x04\x00"
                             "\x8a\x1c"
                             "2.16.840.1.424242.1.27.100.4";

static int fail(const char *what, int code)
{
    fprintf(stderr, "%s: %d (%s)\n", what, code, ldapx_err2string(code));
    return 1;
}

int main(void)
{
    char dn[] = "ou=sales,o=x";
    int version = LDAP_VERSION3, ends[2], rc;
    EVT_EventSpecifier event = {1, 0};
    LDAP *ld = NULL;

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 ||
        ldap_init_fd(ends[0], LDAP_PROTO_IPC, NULL, &ld) != LDAP_SUCCESS)
        return fail("no session", -1);
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (write(ends[1], answer, sizeof answer - 1) != sizeof answer - 1)
        return fail("no answer", -1);
    rc = ldap_split_partition(ld, dn, event.eventStatus);
    if (rc != LDAP_SUCCESS)
        return fail("ldap_split_partition", rc);
    ldap_unbind_ext(ld, NULL, NULL);
    close(ends[1]);

    if (ldap_initialize(&ld, "ldapi://%2fnot%2fthere") != LDAP_SUCCESS)
        return fail("no second session", -1);
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    rc = ldap_split_partition(ld, dn, 0);
    if (rc != LDAP_SERVER_DOWN)
        return fail("ldap_split_partition without a server", rc);
    ldap_unbind_ext(ld, NULL, NULL);

    printf("greirige %s\n", ldapx_version());
    return 0;
}
