#include "library_options.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <string_view>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

enum class Kind { text, number, seconds, yes_or_no, word, protocol };

struct Word {
    const char *name;
    int value;
};

struct LibraryOption {
    const char *name;
    Kind kind;
    int option;
    bool of_session = false; // libldap takes it only for a session, not for the whole program
    std::vector<Word> words = {};
};

const std::vector<LibraryOption> &known_options()
{
    static const std::vector<Word> require{{"never", LDAP_OPT_X_TLS_NEVER},
                                           {"allow", LDAP_OPT_X_TLS_ALLOW},
                                           {"try", LDAP_OPT_X_TLS_TRY},
                                           {"demand", LDAP_OPT_X_TLS_DEMAND},
                                           {"hard", LDAP_OPT_X_TLS_HARD}};
    static const std::vector<LibraryOption> options{
        {"nettimeout", Kind::seconds, LDAP_OPT_NETWORK_TIMEOUT},
        {"network_timeout", Kind::seconds, LDAP_OPT_NETWORK_TIMEOUT},
        {"timeout", Kind::seconds, LDAP_OPT_TIMEOUT},
        {"uri", Kind::text, LDAP_OPT_URI},
        {"host", Kind::text, LDAP_OPT_HOST_NAME},
        {"base", Kind::text, LDAP_OPT_DEFBASE},
        {"deref",
         Kind::word,
         LDAP_OPT_DEREF,
         false,
         {{"never", LDAP_DEREF_NEVER},
          {"searching", LDAP_DEREF_SEARCHING},
          {"finding", LDAP_DEREF_FINDING},
          {"always", LDAP_DEREF_ALWAYS}}},
        {"referrals", Kind::yes_or_no, LDAP_OPT_REFERRALS},
        {"sizelimit", Kind::number, LDAP_OPT_SIZELIMIT},
        {"timelimit", Kind::number, LDAP_OPT_TIMELIMIT},
        {"version", Kind::number, LDAP_OPT_PROTOCOL_VERSION},
        {"keepalive_idle", Kind::number, LDAP_OPT_X_KEEPALIVE_IDLE},
        {"keepalive_probes", Kind::number, LDAP_OPT_X_KEEPALIVE_PROBES},
        {"keepalive_interval", Kind::number, LDAP_OPT_X_KEEPALIVE_INTERVAL},
        {"socket_bind_addresses", Kind::text, LDAP_OPT_SOCKET_BIND_ADDRESSES},
        {"tls_cacert", Kind::text, LDAP_OPT_X_TLS_CACERTFILE},
        {"tls_cacertdir", Kind::text, LDAP_OPT_X_TLS_CACERTDIR},
        {"tls_cert", Kind::text, LDAP_OPT_X_TLS_CERTFILE},
        {"tls_key", Kind::text, LDAP_OPT_X_TLS_KEYFILE},
        {"tls_ecname", Kind::text, LDAP_OPT_X_TLS_ECNAME},
        {"tls_cipher_suite", Kind::text, LDAP_OPT_X_TLS_CIPHER_SUITE},
        {"tls_protocol_min", Kind::protocol, LDAP_OPT_X_TLS_PROTOCOL_MIN},
        {"tls_randfile", Kind::text, LDAP_OPT_X_TLS_RANDOM_FILE},
        {"tls_reqcert", Kind::word, LDAP_OPT_X_TLS_REQUIRE_CERT, false, require},
        {"tls_reqsan", Kind::word, LDAP_OPT_X_TLS_REQUIRE_SAN, false, require},
        {"tls_crlcheck",
         Kind::word,
         LDAP_OPT_X_TLS_CRLCHECK,
         false,
         {{"none", LDAP_OPT_X_TLS_CRL_NONE},
          {"peer", LDAP_OPT_X_TLS_CRL_PEER},
          {"all", LDAP_OPT_X_TLS_CRL_ALL}}},
        {"tls_crlfile", Kind::text, LDAP_OPT_X_TLS_CRLFILE},
        {"sasl_secprops", Kind::text, LDAP_OPT_X_SASL_SECPROPS, true},
        {"sasl_nocanon", Kind::yes_or_no, LDAP_OPT_X_SASL_NOCANON, true},
        {"sasl_cbinding",
         Kind::word,
         LDAP_OPT_X_SASL_CBINDING,
         true,
         {{"none", LDAP_OPT_X_SASL_CBINDING_NONE},
          {"tls-unique", LDAP_OPT_X_SASL_CBINDING_TLS_UNIQUE},
          {"tls-endpoint", LDAP_OPT_X_SASL_CBINDING_TLS_ENDPOINT}}},
    };
    return options;
}

struct Given {
    std::string name; // lower case, with underscores
    std::string value;
    bool has_value = false;
    const LibraryOption *known = nullptr;
};

Given parse(const std::string &argument)
{
    Given given;
    const std::size_t equals = argument.find('=');
    given.has_value = equals != std::string::npos;
    given.name = argument.substr(0, equals);
    if (given.has_value)
        given.value = argument.substr(equals + 1);
    for (char &c : given.name)
        c = c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const LibraryOption &option : known_options())
        if (given.name == option.name)
            given.known = &option;
    return given;
}

bool same_word(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

[[noreturn]] void refuse(const Given &given, const std::string &wanted)
{
    throw UsageError("-o " + given.name + ": " +
                     (given.has_value ? in_quotes(given.value) + " is not " : "needs ") + wanted);
}

int number_in(const Given &given, const std::string &wanted)
{
    int number = 0;
    const char *end = given.value.data() + given.value.size();
    const auto [stop, error] = std::from_chars(given.value.data(), end, number);
    if (error != std::errc{} || stop != end || number < 0)
        refuse(given, wanted);
    return number;
}

bool set_seconds(const Given &given, LDAP *ld)
{
    timeval timeout{.tv_sec = -1, .tv_usec = 0}; // "none": libldap waits for ever
    if (same_word(given.value, "max"))
        timeout.tv_sec = INT_MAX;
    else if (!same_word(given.value, "none"))
        timeout.tv_sec = number_in(given, "a number of seconds, \"none\" or \"max\"");
    if (timeout.tv_sec == 0)
        timeout.tv_sec = -1;
    return ldap_set_option(ld, given.known->option, &timeout) == LDAP_OPT_SUCCESS;
}

bool set_yes_or_no(const Given &given, LDAP *ld)
{
    const auto is_one_of = [&](std::initializer_list<const char *> words) {
        return std::any_of(words.begin(), words.end(),
                           [&](const char *word) { return same_word(given.value, word); });
    };
    const bool yes = is_one_of({"on", "yes", "true"});
    if (!yes && !is_one_of({"off", "no", "false"}))
        refuse(given, "\"on\" or \"off\"");
    return ldap_set_option(ld, given.known->option, yes ? LDAP_OPT_ON : LDAP_OPT_OFF) ==
           LDAP_OPT_SUCCESS;
}

bool set_word(const Given &given, LDAP *ld)
{
    std::string wanted = "one of";
    for (const Word &word : given.known->words) {
        if (same_word(given.value, word.name))
            return ldap_set_option(ld, given.known->option, &word.value) == LDAP_OPT_SUCCESS;
        wanted += std::string(" ") + word.name;
    }
    refuse(given, wanted);
}

bool set_protocol(const Given &given, LDAP *ld)
{
    // "3.3" is TLS 1.2, as in ldap.conf.
    const std::string wanted = "a protocol version such as 3.3";
    Given major = given;
    Given minor = given;
    const std::size_t dot = given.value.find('.');
    major.value = given.value.substr(0, dot);
    minor.value = dot == std::string::npos ? "0" : given.value.substr(dot + 1);
    const int version = LDAP_OPT_X_TLS_PROTOCOL(number_in(major, wanted), number_in(minor, wanted));
    return ldap_set_option(ld, given.known->option, &version) == LDAP_OPT_SUCCESS;
}

bool set(const Given &given, LDAP *ld)
{
    switch (given.known->kind) {
    case Kind::text:
        return ldap_set_option(ld, given.known->option, given.value.c_str()) == LDAP_OPT_SUCCESS;
    case Kind::number: {
        const int number = number_in(given, "a number");
        return ldap_set_option(ld, given.known->option, &number) == LDAP_OPT_SUCCESS;
    }
    case Kind::seconds:
        return set_seconds(given, ld);
    case Kind::yes_or_no:
        return set_yes_or_no(given, ld);
    case Kind::word:
        return set_word(given, ld);
    case Kind::protocol:
        return set_protocol(given, ld);
    }
    return false;
}

// The options that have a letter of their own here.
std::string *field_of(ConnectionOptions &options, const std::string &name)
{
    if (name == "binddn")
        return options.bind_dn ? nullptr : &options.bind_dn.emplace();
    if (name == "sasl_mech")
        return &options.mechanism;
    if (name == "sasl_realm")
        return &options.realm;
    if (name == "sasl_authcid")
        return &options.authentication_id;
    if (name == "sasl_authzid")
        return &options.authorization_id;
    return nullptr;
}

bool has_letter(const std::string &name)
{
    ConnectionOptions none;
    return field_of(none, name) != nullptr;
}

void apply(const Given &given, LDAP *ld)
{
    if (!set(given, ld))
        throw UsageError("-o " + given.name + ": the LDAP library does not take " +
                         in_quotes(given.value));
}

} // namespace

void apply_library_options(ConnectionOptions &options)
{
    for (const std::string &argument : options.library_options) {
        const Given given = parse(argument);
        if (given.known == nullptr && !has_letter(given.name))
            throw UsageError("-o " + in_quotes(argument) +
                             ": no such option (nettimeout, timeout, and those of ldap.conf(5))");
        if (!given.has_value || given.value.empty())
            refuse({given.name, {}, false, given.known}, "a value: -o " + given.name + "=VALUE");
        if (given.known == nullptr) {
            // The letter wins over the option.
            if (std::string *field = field_of(options, given.name);
                field != nullptr && field->empty())
                *field = given.value;
        } else if (!given.known->of_session) {
            apply(given, nullptr);
        }
    }
}

void apply_session_options(const ConnectionOptions &options, LDAP *ld)
{
    for (const std::string &argument : options.library_options) {
        const Given given = parse(argument);
        if (given.known != nullptr && given.known->of_session)
            apply(given, ld);
    }
}

} // namespace tool
