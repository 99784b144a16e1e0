/* list_replicas - the partitions of which a server holds replicas, and the replicas' types.
 *
 *   list_replicas SERVER-DN
 *
 * LDAPURI and LDAPBINDDN in the environment name the server and who binds (ldap.conf(5)),
 * BIND_PASSWORD his password; START_TLS, set to anything, encrypts an ldap:// session or fails.
 * Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 no session.
 */
#include <ldapx.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

static void complain(LDAP *ld, const char *what, int code)
{
    char *detail = NULL;
    if (ld)
        ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &detail);
    fprintf(stderr, "list_replicas: %s: %s (%d)%s%s\n", what, ldapx_err2string(code), code,
            detail && *detail ? ": " : "", detail ? detail : "");
    ldap_memfree(detail);
}

static LDAP *session_from_environment(void)
{
    LDAP *ld = NULL;
    int code = ldap_initialize(&ld, NULL);
    if (code != LDAP_SUCCESS) {
        complain(NULL, "cannot connect", code);
        return NULL;
    }
    const int version = LDAP_VERSION3;
    const struct timeval connecting = {15, 0};
    const struct timeval answering = {60, 0};
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &connecting);
    ldap_set_option(ld, LDAP_OPT_TIMEOUT, &answering);

    const char *step = "cannot encrypt";
    if (getenv("START_TLS"))
        code = ldap_start_tls_s(ld, NULL, NULL);
    if (code == LDAP_SUCCESS) {
        /* Without a name libldap takes LDAPBINDDN where there is a password. */
        char *word = getenv("BIND_PASSWORD");
        struct berval credentials = {word ? strlen(word) : 0, word};
        step = "cannot bind";
        code = ldap_sasl_bind_s(ld, NULL, LDAP_SASL_SIMPLE, &credentials, NULL, NULL, NULL);
    }
    if (code != LDAP_SUCCESS) {
        complain(ld, step, code);
        ldap_unbind_ext_s(ld, NULL, NULL);
        return NULL;
    }
    return ld;
}

static const char *type_name(LDAP_REPLICA_TYPE type)
{
    static const char *const names[LDAP_RT_COUNT] = {"master", "secondary",    "read-only",
                                                     "subref", "sparse-write", "sparse-read"};
    return (unsigned)type < LDAP_RT_COUNT ? names[type] : "unknown";
}

static int list_replicas(LDAP *ld, char *server)
{
    char **partitions = NULL; /* stays NULL when the operation fails */
    int code = ldap_list_replicas(ld, server, &partitions);
    for (char **partition = partitions; partition && *partition && code == LDAP_SUCCESS;
         ++partition) {
        LDAPReplicaInfo info;
        char *dn = NULL;
        code = ldap_get_replica_info_ext(ld, *partition, server, &info, &dn);
        if (code == LDAP_SUCCESS)
            printf("%s\t%s\n", type_name(info.replicaType), dn);
        ldapx_memfree(dn);
    }
    ber_memvfree((void **)partitions);
    if (code != LDAP_SUCCESS)
        complain(ld, server, code);
    return code;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: list_replicas SERVER-DN\n");
        return 2;
    }
    LDAP *ld = session_from_environment();
    if (!ld)
        return 3;
    const int code = list_replicas(ld, argv[1]);
    ldap_unbind_ext_s(ld, NULL, NULL);
    return code == LDAP_SUCCESS ? 0 : 1;
}
