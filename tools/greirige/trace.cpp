#include "trace.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <ldap.h>

#include "text.h"

namespace tool {

namespace {

constexpr int trace_calls_and_errors = 1;

std::vector<std::string> collected;

extern "C" void collect(const char *line)
{
    std::string_view text = line;
    while (text.ends_with('\n'))
        text.remove_suffix(1);
    collected.emplace_back(text);
}

void set_level(int level)
{
    ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level);
    ber_set_option(nullptr, LBER_OPT_DEBUG_LEVEL, &level);
}

// The text between two marks; empty when they are not there.
std::string_view between(std::string_view line, std::string_view begin, std::string_view end)
{
    const std::size_t at = line.find(begin);
    if (at == std::string_view::npos)
        return {};
    line.remove_prefix(at + begin.size());
    const std::size_t stop = line.rfind(end);
    return stop == std::string_view::npos ? line : line.substr(0, stop);
}

std::string after(std::string_view line, std::string_view mark)
{
    const std::size_t at = line.find(mark);
    return at == std::string_view::npos ? std::string()
                                        : std::string(line.substr(at + mark.size()));
}

int number_at_start(const std::string &text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::string in_a_sentence(std::string_view text)
{
    std::string words(text);
    while (words.ends_with('.'))
        words.pop_back();
    if (words.size() > 1 && std::islower(static_cast<unsigned char>(words[1])))
        words[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(words[0])));
    return words;
}

// The trace keeps silent about why a local socket cannot be reached; trying again costs nothing.
int errno_of_socket(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    path.copy(address.sun_path, path.size());
    const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool reached =
        connect(file, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    const int error = reached ? ETIMEDOUT : errno;
    close(file);
    return error;
}

constexpr const char *choose_another = "-H chooses another";

Cause cause_of_errno(int number)
{
    switch (number) {
    case ECONNREFUSED:
        return {"connection refused", "is the server running? -H chooses another"};
    case ENOENT:
        return {"no such socket", "is the server running? -H chooses another"};
    case ETIMEDOUT:
        return {"no answer", "-o nettimeout=SECONDS waits longer, -H chooses another"};
    default:
        return {in_a_sentence(std::strerror(number)), choose_another};
    }
}

std::string trusted_issuers()
{
    char *file = nullptr;
    if (ldap_get_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, &file) != LDAP_OPT_SUCCESS ||
        file == nullptr)
        return "no file of trusted issuers is set";
    std::string text = "the trusted issuers are those of " + printable(file);
    ldap_memfree(file);
    return text;
}

// The verification result of GnuTLS, whose bits the trace shows as they are.
constexpr unsigned long revoked = 1UL << 5;
constexpr unsigned long unknown_issuer = 1UL << 6;
constexpr unsigned long not_an_issuer = 1UL << 7;
constexpr unsigned long weak = 1UL << 8;
constexpr unsigned long not_yet_valid = 1UL << 9;
constexpr unsigned long expired = 1UL << 10;

Cause cause_of_certificate(unsigned long status)
{
    if (status & revoked)
        return {"the server's certificate has been revoked", {}};
    if (status & expired)
        return {"the server's certificate has expired", "check this machine's clock as well"};
    if (status & not_yet_valid)
        return {"the server's certificate is not valid yet", "check this machine's clock as well"};
    if (status & unknown_issuer)
        return {"the server's certificate comes from an unknown issuer: " + trusted_issuers(),
                "-o tls_cacert=FILE names another file"};
    if (status & not_an_issuer)
        return {"the server's certificate was signed by one that may not sign", {}};
    if (status & weak)
        return {"the server's certificate is signed with an insecure algorithm", {}};
    return {"the server's certificate is not trusted", {}};
}

// One line of the trace about TLS, without its "TLS: ".
Cause cause_of_tls_line(std::string_view line)
{
    if (line.starts_with("peer cert untrusted or revoked (0x"))
        return cause_of_certificate(
            std::strtoul(std::string(between(line, "(", ")")).c_str(), nullptr, 16));
    if (line.starts_with("peer certificate is expired"))
        return cause_of_certificate(expired);
    if (line.starts_with("peer certificate not yet active"))
        return cause_of_certificate(not_yet_valid);
    if (line.starts_with("hostname (")) {
        const std::string_view wanted = between(line, "hostname (", ") does not match");
        const std::string_view found = between(line, "in certificate (", ")");
        return {"the server's certificate is for " + in_quotes(found) + ", not for " +
                    in_quotes(wanted),
                "-H with the name in the certificate reaches it"};
    }
    if (line.starts_with("opening `"))
        return {"cannot open " + in_quotes(between(line, "`", "' failed")) + ": " +
                    in_a_sentence(after(line, "failed: ")),
                "tls_key and tls_cert name the client's own key and certificate"};
    if (line.starts_with("could not use ")) {
        const std::string_view thing = between(line, "could not use ", " `");
        std::string_view file = between(line, " `", "`");
        if (file.find('\'') != std::string_view::npos)
            file = file.substr(0, file.rfind('\''));
        std::string reason = in_a_sentence(between(line, "': ", " ("));
        return {"cannot use the " + std::string(thing) + ' ' + in_quotes(file) +
                    (reason.empty() ? "" : ": " + reason),
                "-o tls_cacert=FILE, tls_cert=FILE and tls_key=FILE name others"};
    }
    if (line.find("does not match") != std::string_view::npos || line.starts_with("could not ") ||
        line.starts_with("unable to ") || line.starts_with("only one of "))
        return {in_a_sentence(line), {}};
    if (line.starts_with("can't connect: ") &&
        line.find("unknown error code") == std::string_view::npos)
        return {"the TLS handshake failed: " + in_a_sentence(after(line, "can't connect: ")),
                "does this port speak TLS?"};
    return {};
}

// One server's part of the trace.
Cause cause_of_attempt(std::vector<std::string>::const_iterator line,
                       std::vector<std::string>::const_iterator end)
{
    Cause cause{"no answer", "-o nettimeout=SECONDS waits longer, -H chooses another"};
    const auto first = line;
    for (; line != end; ++line) {
        const std::string_view text = *line;
        const bool of_socket =
            text.starts_with("connect errno: ") || text.starts_with("ldap_is_socket_ready: error");
        const int number = of_socket ? number_at_start(after(text, "errno: ")) : 0;
        if (text.find("getaddrinfo failed: ") != std::string_view::npos)
            cause = {"the name cannot be resolved: " +
                         in_a_sentence(after(text, "getaddrinfo failed: ")),
                     "check the name; -H chooses another"};
        else if (number != 0 && number != EINPROGRESS)
            cause = cause_of_errno(number);
        else if (text.starts_with("ldap_connect_to_path: Trying "))
            cause = cause_of_errno(errno_of_socket(after(text, "Trying ")));
    }
    const Cause tls = tls_cause({first, end});
    return tls.text.empty() ? cause : tls;
}

} // namespace

LibraryTrace::LibraryTrace()
{
    collected.clear();
    ber_set_option(nullptr, LBER_OPT_LOG_PRINT_FN, reinterpret_cast<void *>(collect));
    set_level(trace_calls_and_errors);
}

LibraryTrace::~LibraryTrace()
{
    set_level(0);
}

const std::vector<std::string> &LibraryTrace::lines()
{
    return collected;
}

Cause tls_cause(const std::vector<std::string> &trace)
{
    for (const std::string &line : trace) {
        if (!line.starts_with("TLS: "))
            continue;
        Cause cause = cause_of_tls_line(std::string_view(line).substr(5));
        if (!cause.text.empty())
            return cause;
    }
    return {};
}

std::vector<Cause> connection_causes(const std::vector<std::string> &trace)
{
    std::vector<Cause> causes;
    const auto starts_attempt = [](const std::string &line) {
        return line == "ldap_int_open_connection";
    };
    auto begin = std::find_if(trace.begin(), trace.end(), starts_attempt);
    while (begin != trace.end()) {
        const auto end = std::find_if(begin + 1, trace.end(), starts_attempt);
        causes.push_back(cause_of_attempt(begin + 1, end));
        begin = end;
    }
    return causes;
}

} // namespace tool
