#include "session.h"

#include <cerrno>
#include <vector>

#include <sys/socket.h>

#include "error.h"
#include "library_options.h"
#include "sasl.h"
#include "signals.h"
#include "terminal.h"
#include "text.h"
#include "trace.h"

namespace tool {

namespace {

// So that nothing hangs for ever where neither ldap.conf nor -o sets a limit.
constexpr int default_network_timeout = 15; // to connect and to encrypt, in seconds
constexpr int default_timeout = 60;         // for the answer to an operation

constexpr ber_len_t largest_answer = 256UL * 1024 * 1024;

void set_default_timeout(int option, int seconds)
{
    timeval *set = nullptr;
    ldap_get_option(nullptr, option, &set);
    if (set == nullptr) {
        const timeval timeout{.tv_sec = seconds, .tv_usec = 0};
        ldap_set_option(nullptr, option, &timeout);
    }
    ldap_memfree(set);
}

[[noreturn]] void fail(const std::string &message, bool final = false)
{
    leave_if_interrupted();
    throw ConnectFailure(message, final);
}

std::string with_hint(const std::string &text, const std::string &hint)
{
    return hint.empty() ? text : text + " (" + hint + ')';
}

// The server has refused a bind for what it knows of the client, and not for what ails itself.
bool judges_the_client(int code)
{
    return code == LDAP_AUTH_METHOD_NOT_SUPPORTED || code == LDAP_STRONG_AUTH_REQUIRED ||
           code == LDAP_CONFIDENTIALITY_REQUIRED || code == LDAP_NO_SUCH_OBJECT ||
           code == LDAP_INVALID_DN_SYNTAX || code == LDAP_INAPPROPRIATE_AUTH ||
           code == LDAP_INVALID_CREDENTIALS || code == LDAP_INSUFFICIENT_ACCESS;
}

const Cause handshake_timeout{"the TLS handshake is not answered",
                              "-o nettimeout=SECONDS waits longer"};

// A URI that has a DN of dc components but no host stands for the servers that DNS lists for that
// domain (RFC 2782).
std::string servers_of_domain(const std::string &uri, const LDAPURLDesc &url)
{
    char *domain = nullptr;
    if (ldap_dn2domain(url.lud_dn, &domain) != 0 || domain == nullptr)
        throw UsageError("-H " + in_quotes(uri) +
                         ": the DN does not name a domain (dc=example,dc=com)");
    char *hosts = nullptr;
    const int code = ldap_domain2hostlist(domain, &hosts);
    const std::string name = domain;
    ldap_memfree(domain);
    if (code != LDAP_SUCCESS || hosts == nullptr)
        fail("cannot reach " + uri + ": DNS lists no LDAP server for the domain " +
             in_quotes(name));
    std::string list = hosts;
    ldap_memfree(hosts);
    std::string uris;
    for (std::size_t at = 0; at < list.size();) {
        const std::size_t end = std::min(list.find(' ', at), list.size());
        uris += (uris.empty() ? "" : " ") + std::string(url.lud_scheme) + "://" +
                list.substr(at, end - at);
        at = end + 1;
    }
    return uris;
}

std::string uri_of(const LDAPURLDesc &url)
{
    const std::string scheme = url.lud_scheme;
    std::string host = url.lud_host != nullptr ? url.lud_host : "";
    if (scheme == "ldapi") {
        std::string escaped;
        for (const char c : host)
            escaped += c == '/' ? "%2F" : std::string(1, c);
        return scheme + "://" + escaped;
    }
    if (host.find(':') != std::string::npos)
        host = '[' + host + ']';
    const int standard_port = scheme == "ldaps" ? LDAPS_PORT : LDAP_PORT;
    const bool show_port = url.lud_port != 0 && url.lud_port != standard_port;
    return scheme + "://" + host + (show_port ? ':' + std::to_string(url.lud_port) : "");
}

using Url = std::unique_ptr<LDAPURLDesc, decltype(&ldap_free_urldesc)>;

// The URIs of a list, parted by blanks or commas.
std::vector<std::pair<std::string, Url>> parse_uris(const std::string &uris)
{
    std::vector<std::pair<std::string, Url>> parsed;
    for (std::size_t at = 0; (at = uris.find_first_not_of(" ,", at)) != std::string::npos;) {
        const std::size_t end = std::min(uris.find_first_of(" ,", at), uris.size());
        const std::string uri = uris.substr(at, end - at);
        LDAPURLDesc *url = nullptr;
        if (ldap_url_parse(uri.c_str(), &url) != LDAP_URL_SUCCESS)
            throw UsageError("-H " + in_quotes(uri) +
                             ": not an LDAP URI (an example: ldap://localhost:389)");
        parsed.emplace_back(uri, Url(url, ldap_free_urldesc));
        at = end;
    }
    return parsed;
}

bool names_a_domain(const LDAPURLDesc &url)
{
    return (url.lud_host == nullptr || *url.lud_host == '\0') && url.lud_dn != nullptr &&
           *url.lud_dn != '\0';
}

std::string resolve_domains(const std::string &uris)
{
    std::string resolved;
    for (const auto &[uri, url] : parse_uris(uris))
        resolved += (resolved.empty() ? "" : " ") +
                    (names_a_domain(*url) ? servers_of_domain(uri, *url) : uri);
    return resolved;
}

int socket_of(Sockbuf *buffer)
{
    ber_socket_t file = -1;
    ber_sockbuf_ctrl(buffer, LBER_SB_OPT_GET_FD, &file);
    return file;
}

// libldap heeds its time limit only between messages: a server that stops in the middle of one
// would keep a read waiting for ever. With a limit on the socket the read gives up now and then,
// and libldap looks at the clock. And a length that no answer has must not be allocated.
void guard_against_stalls(Sockbuf *buffer, int file)
{
    const timeval patience{.tv_sec = 1, .tv_usec = 0};
    setsockopt(file, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(file, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    ber_len_t largest = largest_answer;
    ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &largest);
}

void on_disconnect(LDAP *, Sockbuf *, ldap_conncb *)
{
    end_reads_on_signal(-1); // the number may soon name something else
}

} // namespace

Session::Session(ConnectionOptions &options, bool verbose) : options_(options), verbose_(verbose)
{
    set_default_timeout(LDAP_OPT_NETWORK_TIMEOUT, default_network_timeout);
    set_default_timeout(LDAP_OPT_TIMEOUT, default_timeout);
    apply_library_options(options);

    if (options.uri && parse_uris(*options.uri).empty())
        throw UsageError("-H: the URI is empty (an example: ldap://localhost:389)");
    LDAP *ld = nullptr;
    const std::string uris = options.uri.value_or("");
    if (const int code = ldap_initialize(&ld, uris.empty() ? nullptr : uris.c_str()); code != 0)
        throw UsageError("-H " + in_quotes(uris) + ": " + ldap_err2string(code));
    ld_.reset(ld);
    const int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    // A referral is shown, not followed: the other server would be asked without a bind.
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    apply_session_options(options, ld);
    if (!options.security_properties.empty() &&
        ldap_set_option(ld, LDAP_OPT_X_SASL_SECPROPS, options.security_properties.c_str()) != 0)
        throw UsageError("-O " + in_quotes(options.security_properties) +
                         ": not security properties as in ldap.conf(5)");
    if (options.sasl_no_canonical)
        ldap_set_option(ld, LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
    controls_ = std::make_unique<Controls>(options, ld);
    callback_ = {.lc_add = on_connect, .lc_del = on_disconnect, .lc_arg = this};
    ldap_set_option(ld, LDAP_OPT_CONNECT_CB, &callback_);

    list_servers();
}

void Session::list_servers()
{
    char *all = nullptr;
    ldap_get_option(ld_.get(), LDAP_OPT_URI, &all);
    const std::string uris = options_.uri.value_or(all != nullptr ? all : "ldap://localhost");
    ldap_memfree(all);
    servers_.clear();
    server_.clear();
    for (const auto &[uri, url] : parse_uris(uris)) {
        servers_.push_back(printable(names_a_domain(*url) ? uri : uri_of(*url)));
        server_ += (server_.empty() ? "" : " ") + servers_.back();
    }
}

LDAP *Session::ld()
{
    open();
    return ld_.get();
}

bool Session::connected() const
{
    char byte = 0;
    const ssize_t got = recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
}

void Session::open()
{
    if (open_)
        return;
    open_ = true;
    Secret secret = given_password();
    reach();
    end_reads_on_signal(socket_);
    if (options_.start_tls > 0)
        start_tls();
    if (options_.ask_password)
        secret = read_password("Enter LDAP Password: ");
    bind(secret);
    if (options_.keep_answers) {
        if (!secret.empty())
            options_.password = std::move(secret);
        options_.ask_password = false;
        options_.password_file.clear();
    }
    ldap_set_option(ld_.get(), LDAP_OPT_SERVER_CONTROLS, controls_->for_operations());
}

void Session::limit_waits(long seconds)
{
    const timeval limit{.tv_sec = seconds, .tv_usec = 0};
    for (const int option : {LDAP_OPT_NETWORK_TIMEOUT, LDAP_OPT_TIMEOUT}) {
        const long set = seconds_of(ld_.get(), option);
        if (set < 0 || set > seconds)
            ldap_set_option(ld_.get(), option, &limit);
    }
}

int Session::on_connect(LDAP *, Sockbuf *buffer, LDAPURLDesc *server, sockaddr *,
                        ldap_conncb *callback)
{
    auto &session = *static_cast<Session *>(callback->lc_arg);
    session.server_ = printable(uri_of(*server));
    session.socket_ = socket_of(buffer);
    guard_against_stalls(buffer, session.socket_);
    if (session.limit_ != nullptr)
        session.limit_->begin(session.socket_);
    return LDAP_SUCCESS;
}

void Session::reach()
{
    if (options_.uri) {
        const std::string uris = resolve_domains(*options_.uri);
        ldap_set_option(ld_.get(), LDAP_OPT_URI, uris.c_str());
        options_.uri = uris;
        list_servers();
    }
    const LibraryTrace trace;
    const HandshakeLimit limit(seconds_of(ld_.get(), LDAP_OPT_NETWORK_TIMEOUT));
    limit_ = &limit;
    const int code = ldap_connect(ld_.get());
    limit_ = nullptr;
    if (code == LDAP_SUCCESS) {
        say("connected to " + server_);
        return;
    }
    std::vector<Cause> causes = connection_causes(LibraryTrace::lines());
    if (limit.exceeded() && !causes.empty())
        causes.back() = handshake_timeout;
    if (causes.empty())
        fail("cannot reach " + server_ + ": " + describe(last_failure(ld_.get(), code)));
    if (causes.size() == 1)
        fail("cannot reach " + server_ + ": " + with_hint(causes[0].text, causes[0].hint));
    std::string message = "cannot reach any server: ";
    for (std::size_t at = 0; at < causes.size(); ++at)
        message += (at == 0 ? "" : "; ") + (at < servers_.size() ? servers_[at] + ": " : "") +
                   causes[at].text;
    fail(with_hint(message, "-H chooses others"));
}

void Session::start_tls()
{
    int code = ldap_extended_operation_s(ld_.get(), LDAP_EXOP_START_TLS, nullptr, nullptr, nullptr,
                                         nullptr, nullptr);
    const bool refused = code > 0;
    std::string why;
    if (code != LDAP_SUCCESS) {
        why = describe(last_failure(ld_.get(), code));
    } else {
        const LibraryTrace trace;
        const HandshakeLimit limit(seconds_of(ld_.get(), LDAP_OPT_NETWORK_TIMEOUT));
        limit.begin(socket_);
        code = ldap_install_tls(ld_.get());
        const Cause cause = limit.exceeded() ? handshake_timeout : tls_cause(LibraryTrace::lines());
        why = cause.text.empty() ? describe(last_failure(ld_.get(), code))
                                 : with_hint(cause.text, cause.hint);
    }
    if (code == LDAP_SUCCESS) {
        say("encrypted with StartTLS");
        return;
    }
    const std::string message = "cannot encrypt the connection to " + server_ + ": " + why;
    // A server that refuses StartTLS leaves the connection as it was, and one -Z goes on with it.
    if (!refused || options_.start_tls > 1)
        fail(message);
    leave_if_interrupted();
    complain("warning: " + message + "; going on without encryption");
}

Secret Session::given_password() const
{
    if (!options_.password_file.empty())
        return read_password_file(options_.password_file);
    return options_.password ? Secret(options_.password->text()) : Secret();
}

void Session::bind(const Secret &password)
{
    const int code = options_.simple ? bind_simple(password) : bind_sasl(password);
    const std::string who = options_.bind_dn ? " as " + in_quotes(*options_.bind_dn)
                            : !options_.authentication_id.empty()
                                ? " as " + in_quotes(options_.authentication_id)
                                : "";
    if (code == LDAP_SUCCESS) {
        say("bound" + who);
        return;
    }
    leave_if_interrupted();
    std::string why = describe(last_failure(ld_.get(), code));
    if (options_.simple && options_.bind_dn && password.empty() && !connection_is_lost(code))
        why += "; no password was given: -W asks for one";
    if (!options_.simple && !connection_is_lost(code))
        why += "; this was a SASL bind: -x binds by name and password";
    fail("cannot bind to " + server_ + who + ": " + why, judges_the_client(code));
}

int Session::bind_simple(const Secret &password)
{
    // Without -D libldap takes the BINDDN of ldap.conf, if there is a password.
    const char *dn = options_.bind_dn ? options_.bind_dn->c_str() : nullptr;
    berval credentials = password.value();
    int id = 0;
    const int code = ldap_sasl_bind(ld_.get(), dn, LDAP_SASL_SIMPLE, &credentials,
                                    controls_->for_bind(), nullptr, &id);
    if (code != LDAP_SUCCESS)
        return code;
    LDAPMessage *response = nullptr;
    const int received = ldap_result(ld_.get(), id, LDAP_MSG_ALL, nullptr, &response);
    if (received == 0)
        return LDAP_TIMEOUT;
    if (received < 0) {
        int error = LDAP_SERVER_DOWN;
        ldap_get_option(ld_.get(), LDAP_OPT_RESULT_CODE, &error);
        return error;
    }
    return take_bind_response(response);
}

int Session::bind_sasl(const Secret &password)
{
    SaslAnswers answers(options_, password, ld_.get());
    const char *dn = options_.bind_dn ? options_.bind_dn->c_str() : nullptr;
    const char *chosen = nullptr;
    LDAPMessage *response = nullptr;
    int id = 0;
    for (;;) {
        const int code = ldap_sasl_interactive_bind(
            ld_.get(), dn, answers.mechanism(), controls_->for_bind(), nullptr, answers.flags(),
            SaslAnswers::interact, &answers, response, &chosen, &id);
        if (code != LDAP_SASL_BIND_IN_PROGRESS) {
            if (code == LDAP_SUCCESS && options_.keep_answers)
                answers.keep_in(options_);
            if (response != nullptr && code == LDAP_SUCCESS)
                return take_bind_response(response);
            ldap_msgfree(response);
            answers.rethrow();
            return code;
        }
        ldap_msgfree(response);
        response = nullptr;
        const int received = ldap_result(ld_.get(), id, LDAP_MSG_ALL, nullptr, &response);
        if (received <= 0) {
            int error = LDAP_TIMEOUT;
            if (received < 0)
                ldap_get_option(ld_.get(), LDAP_OPT_RESULT_CODE, &error);
            return error;
        }
    }
}

// The result of the bind, and what its controls say about the password.
int Session::take_bind_response(LDAPMessage *response)
{
    int code = LDAP_SUCCESS;
    LDAPControl **controls = nullptr;
    const int parsed =
        ldap_parse_result(ld_.get(), response, &code, nullptr, nullptr, nullptr, &controls, 1);
    if (parsed != LDAP_SUCCESS)
        return parsed;
    if (LDAPControl *policy =
            ldap_control_find(LDAP_CONTROL_PASSWORDPOLICYRESPONSE, controls, nullptr)) {
        ber_int_t expires = -1;
        ber_int_t grace = -1;
        LDAPPasswordPolicyError error = PP_noError;
        if (ldap_parse_passwordpolicy_control(ld_.get(), policy, &expires, &grace, &error) ==
            LDAP_SUCCESS) {
            if (expires >= 0)
                complain("warning: the password expires in " + counted(expires, "second"));
            if (grace >= 0)
                complain("warning: the password has expired, " + counted(grace, "bind") +
                         " with it are left");
            if (error != PP_noError)
                complain(std::string("warning: ") + ldap_passwordpolicy_err2txt(error));
        }
    }
    if (LDAPControl *identity = ldap_control_find(LDAP_CONTROL_AUTHZID_RESPONSE, controls, nullptr))
        say("the authorization identity is " +
            in_quotes({identity->ldctl_value.bv_val, identity->ldctl_value.bv_len}));
    ldap_controls_free(controls);
    return code;
}

void Session::say(const std::string &what) const
{
    if (verbose_)
        complain(what);
}

} // namespace tool
