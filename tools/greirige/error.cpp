#include "error.h"

#include <cstdio>

#include "ldapx.h"
#include "text.h"

namespace tool {

namespace {

std::string take_string(LDAP *ld, int option)
{
    char *value = nullptr;
    if (ldap_get_option(ld, option, &value) != LDAP_OPT_SUCCESS || value == nullptr)
        return {};
    std::string text = value;
    ldap_memfree(value);
    return text;
}

std::vector<std::string> take_referrals(LDAP *ld)
{
    char **urls = nullptr;
    if (ldap_get_option(ld, LDAP_OPT_REFERRAL_URLS, &urls) != LDAP_OPT_SUCCESS || urls == nullptr)
        return {};
    std::vector<std::string> all;
    for (char **url = urls; *url != nullptr; ++url)
        all.emplace_back(*url);
    ber_memvfree(reinterpret_cast<void **>(urls));
    return all;
}

constexpr const char *unreadable = "the server's answer cannot be read";

// Our words where the LDAP library's own say too little.
std::string text_of(const LdapFailure &failure)
{
    const int code = failure.code;
    switch (code) {
    case LDAP_SERVER_DOWN:
        return "the server closed the connection";
    case LDAP_LOCAL_ERROR: // libldap's code for a message that is none; SASL's failures explain it
        return failure.diagnostic.empty() ? unreadable : ldapx_err2string(code);
    case LDAP_DECODING_ERROR:
    case LDAPX_DECODING_ERROR:
    case LDAPX_ENCODING_ERROR:
        return unreadable;
    case LDAPX_NOT_SUPPORTED:
        return "the server answered another operation than the one asked for";
    case LDAPX_OPERATIONS_ERROR:
        return failure.own ? "the server's answer holds no value" : ldapx_err2string(code);
    default:
        return ldapx_err2string(code);
    }
}

std::string hint_for(const LdapFailure &failure)
{
    switch (failure.code) {
    case LDAP_NO_SUCH_OBJECT:
        return "check the spelling of the DN";
    case LDAP_INSUFFICIENT_ACCESS:
        return "-x -D DN -W binds as somebody who may";
    case LDAP_INVALID_CREDENTIALS:
        return "check the name and the password";
    case LDAP_INAPPROPRIATE_AUTH:
        return "-x binds by name and password, -Y MECHANISM by SASL";
    case LDAP_STRONG_AUTH_REQUIRED:
    case LDAP_CONFIDENTIALITY_REQUIRED:
        return "-ZZ encrypts the connection";
    case LDAP_PROTOCOL_ERROR:
    case LDAPX_NOT_SUPPORTED:
        return "supportedExtension of the server's root DSE lists the operations it offers";
    case LDAP_UNAVAILABLE_CRITICAL_EXTENSION:
        return "supportedControl of the server's root DSE lists the controls it takes";
    case LDAP_BUSY:
    case LDAP_UNAVAILABLE:
        return "try again later";
    case LDAP_TIMEOUT:
        return "-o timeout=SECONDS waits longer";
    case LDAP_SERVER_DOWN:
        return "its log may say why";
    case LDAP_REFERRAL:
        return "-H URI asks that server";
    case LDAP_LOCAL_ERROR:
    case LDAP_DECODING_ERROR:
    case LDAPX_DECODING_ERROR:
    case LDAPX_ENCODING_ERROR:
        return failure.diagnostic.empty() ? "is this a server that offers the operation?" : "";
    default:
        return {};
    }
}

} // namespace

long seconds_of(LDAP *ld, int option)
{
    timeval *timeout = nullptr;
    if (ldap_get_option(ld, option, &timeout) != LDAP_OPT_SUCCESS || timeout == nullptr)
        return -1;
    const long seconds = timeout->tv_sec;
    ldap_memfree(timeout);
    return seconds;
}

LdapFailure last_failure(LDAP *ld, int code)
{
    LdapFailure failure{
        .code = code, .own = false, .diagnostic = {}, .matched_dn = {}, .referrals = {}};
    int session_code = code;
    ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &session_code);
    failure.own = session_code == LDAP_SUCCESS;
    failure.diagnostic = take_string(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE);
    failure.matched_dn = take_string(ld, LDAP_OPT_MATCHED_DN);
    failure.referrals = take_referrals(ld);
    if (code == LDAP_TIMEOUT && failure.diagnostic.empty())
        failure.diagnostic =
            "no answer within " + counted(seconds_of(ld, LDAP_OPT_TIMEOUT), "second");
    return failure;
}

std::string describe(const LdapFailure &failure)
{
    // Negative codes are the LDAP library's, and so is the text that comes with them.
    const bool from_server = failure.code > 0;
    std::string message = text_of(failure) + " (" + std::to_string(failure.code) + ')';
    if (!failure.diagnostic.empty())
        message += from_server ? ", the server says " + in_quotes(failure.diagnostic)
                               : ": " + printable(failure.diagnostic);
    if (!failure.matched_dn.empty())
        message += ", the nearest entry that exists is " + in_quotes(failure.matched_dn);
    for (const std::string &url : failure.referrals)
        message += ", see " + printable(url);
    const std::string hint = hint_for(failure);
    if (!hint.empty())
        message += " (" + hint + ')';
    return message;
}

std::string describe(LDAP *ld, const greirige::Error &error)
{
    LdapFailure failure = last_failure(ld, error.code);
    if (error.text == ldapx_err2string(error.code)) {
        failure.diagnostic = error.diagnostic.empty() ? failure.diagnostic : error.diagnostic;
        failure.matched_dn = error.matched_dn;
        return describe(failure);
    }
    return text_of(failure) + " (" + std::to_string(error.code) + "): " + printable(error.text);
}

bool connection_is_lost(int code)
{
    return code == LDAP_SERVER_DOWN || code == LDAP_TIMEOUT || code == LDAP_CONNECT_ERROR ||
           code == LDAP_LOCAL_ERROR;
}

void complain(std::string_view message)
{
    const std::string line = "greirige: " + std::string(message) + '\n';
    // Where standard error cannot be written there is nobody to tell.
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

} // namespace tool
