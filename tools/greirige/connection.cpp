#include "connection.h"

#include <CLI/CLI.hpp>

#include "error.h"

namespace tool {

void add_connection_options(CLI::App &app, ConnectionOptions &options)
{
    const auto value = [&](const char *names, auto &variable, const char *type, const char *help) {
        return app.add_option(names, variable, help)->type_name(type)->allow_extra_args(false);
    };
    const auto flag = [&](const char *names, auto &variable, const char *help) {
        return app.add_flag(names, variable, help);
    };

    app.option_defaults()->group("Connection");
    value("-H,--uri", options.uri, "URI", "Server: ldap://host:port, ldaps://..., ldapi://...");
    flag("-Z,--starttls", options.start_tls, "Encrypt with StartTLS; -ZZ insists on it");
    value("-o,--option", options.library_options, "OPT[=VALUE]",
          "nettimeout=SECONDS, timeout=SECONDS, or any option of ldap.conf(5)");
    value("-e,--extension", options.extensions, "[!]EXT[=VALUE]",
          "Send a control (authzid, manageDSAit, ..., or its OID); ! makes it critical");

    app.option_defaults()->group("Authentication");
    flag("-x,--simple", options.simple, "Bind by name and password instead of SASL");
    value("-D,--bind-dn", options.bind_dn, "DN", "Bind under this name");
    app.add_option("-w,--password", "Password (better: -W or -y)")
        ->type_name("PASSWORD")
        ->allow_extra_args(false);
    flag("-W,--ask-password", options.ask_password, "Ask for the password on the terminal");
    value("-y,--password-file", options.password_file, "FILE",
          "The complete contents of FILE are the password");
    value("-Y,--mechanism", options.mechanism, "MECH", "SASL mechanism");
    value("-U,--authentication-id", options.authentication_id, "ID",
          "SASL authentication identity");
    value("-R,--realm", options.realm, "REALM", "SASL realm");
    value("-X,--authorization-id", options.authorization_id, "ID",
          "SASL authorization identity, dn:DN or u:USER");
    value("-O,--security", options.security_properties, "PROPS", "SASL security properties");
    flag("-Q,--sasl-quiet", options.sasl_quiet, "SASL: never ask");
    flag("-I,--sasl-interactive", options.sasl_interactive, "SASL: always ask");
    flag("-N,--no-canonical", options.sasl_no_canonical,
         "SASL: do not canonicalise the host name by reverse DNS");
    app.option_defaults()->group("Options");
}

void check_connection_options(const ConnectionOptions &options)
{
    const int sources = (options.password ? 1 : 0) + (options.ask_password ? 1 : 0) +
                        (options.password_file.empty() ? 0 : 1);
    if (sources > 1)
        throw UsageError("-w, -W and -y each give the password: choose one");
    const bool sasl = !options.mechanism.empty() || !options.authentication_id.empty() ||
                      !options.realm.empty() || !options.authorization_id.empty() ||
                      !options.security_properties.empty() || options.sasl_quiet ||
                      options.sasl_interactive || options.sasl_no_canonical;
    if (options.simple && sasl)
        throw UsageError(
            "-x binds without SASL: -Y, -U, -R, -X, -O, -Q, -I and -N do not go with it");
    if (options.sasl_quiet && options.sasl_interactive)
        throw UsageError("-Q never asks and -I always asks: choose one");
}

} // namespace tool
