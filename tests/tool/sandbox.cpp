#include "sandbox.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

using support::Finished;

namespace sandbox_test {

namespace {

std::vector<std::string> command(std::vector<std::string> options)
{
    if (std::find(options.begin(), options.end(), "--port") == options.end())
        options.insert(options.begin(), {"--port", "0"});
    options.insert(options.begin(), SANDBOX_PROGRAM);
    return options;
}

std::string address_in(const std::string &line)
{
    const std::string announced = "listening on ";
    if (line.rfind(announced, 0) != 0)
        throw std::runtime_error("the sandbox begins with: " + line);
    return line.substr(announced.size());
}

} // namespace

Session connect(const std::string &url, const std::string &dn, const std::string &password)
{
    LDAP *ld = nullptr;
    if (const int code = ldap_initialize(&ld, url.c_str()); code != LDAP_SUCCESS)
        throw std::runtime_error(url + ": " + ldap_err2string(code));
    Session session(ld);
    const int version = LDAP_VERSION3;
    const timeval patience{20, 0};
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_TIMEOUT, &patience);
    std::string secret = password;
    berval credentials{secret.size(), secret.data()};
    const int code =
        ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
    if (code != LDAP_SUCCESS)
        throw std::runtime_error("bind as \"" + dn + "\": " + ldap_err2string(code));
    return session;
}

std::string diagnostic(const Session &session)
{
    char *text = nullptr;
    ldap_get_option(session.get(), LDAP_OPT_DIAGNOSTIC_MESSAGE, &text);
    const std::unique_ptr<char, void (*)(void *)> owner(text, ldap_memfree);
    return text != nullptr ? text : "";
}

Sandbox::Sandbox(std::vector<std::string> options)
    : process_(command(std::move(options)), {.environment = {{"TMPDIR", directory_.path()}}}),
      url_(address_in(process_.read_line(std::chrono::seconds(30))))
{
}

int Sandbox::port() const
{
    return std::stoi(url_.substr(url_.rfind(':') + 1));
}

std::string Sandbox::somebody() const
{
    return search(anonymous(), base, "(employeeNumber=10020)").at(0);
}

std::string Sandbox::slapd_url() const
{
    std::string escaped;
    for (const char c : (left_behind().at(0) / "ldapi").string())
        escaped += c == '/' ? std::string("%2F") : std::string(1, c);
    return "ldapi://" + escaped;
}

Finished Sandbox::client(const std::string &program, std::vector<std::string> arguments,
                         const std::string &input) const
{
    arguments.insert(arguments.begin(), {"/usr/bin/" + program, "-x", "-H", url_});
    return support::run(arguments, {.stdin_text = input});
}

Finished Sandbox::client_as_admin(const std::string &program, std::vector<std::string> arguments,
                                  const std::string &input) const
{
    arguments.insert(arguments.begin(), {"-D", admin_dn, "-w", "secret"});
    return client(program, std::move(arguments), input);
}

bool Sandbox::ends_cleanly()
{
    process_.signal(SIGTERM);
    const Finished finished = process_.wait();
    std::cerr << finished.err;
    return finished.status == 0 && finished.err.empty() && left_behind().empty();
}

std::vector<pid_t> Sandbox::children() const
{
    std::vector<pid_t> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line))
            continue;
        // "pid (name) state ppid ...": the name may hold anything, so begin behind it.
        std::istringstream fields(line.substr(line.rfind(')') + 1));
        char state = 0;
        pid_t parent = 0;
        if (fields >> state >> parent && parent == process_.pid())
            found.push_back(std::stoi(line));
    }
    return found;
}

std::vector<std::filesystem::path> Sandbox::left_behind() const
{
    std::vector<std::filesystem::path> found;
    for (const auto &entry : std::filesystem::directory_iterator(directory_.path()))
        found.push_back(entry.path());
    return found;
}

bool is_alive(pid_t process)
{
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    // A zombie has ended, though nobody has asked how.
    return std::getline(stat, line) && line.at(line.rfind(')') + 2) != 'Z';
}

std::vector<std::string> search(const Session &session, const std::string &below,
                                const std::string &filter, const std::string &attribute)
{
    std::string name = attribute.empty() ? LDAP_NO_ATTRS : attribute;
    char *attributes[] = {name.data(), nullptr};
    LDAPMessage *all = nullptr;
    const int code =
        ldap_search_ext_s(session.get(), below.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
                          attributes, 0, nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &all);
    const std::unique_ptr<LDAPMessage, int (*)(LDAPMessage *)> owner(all, ldap_msgfree);
    if (code != LDAP_SUCCESS)
        throw std::runtime_error("search " + filter + ": " + ldap_err2string(code));
    std::vector<std::string> found;
    for (LDAPMessage *entry = ldap_first_entry(session.get(), all); entry != nullptr;
         entry = ldap_next_entry(session.get(), entry)) {
        char *dn = ldap_get_dn(session.get(), entry);
        berval **values = ldap_get_values_len(session.get(), entry, name.c_str());
        if (attribute.empty())
            found.emplace_back(dn);
        for (berval **value = values; value != nullptr && *value != nullptr; ++value)
            found.push_back(std::string(dn) + ": " +
                            std::string((*value)->bv_val, (*value)->bv_len));
        ldap_value_free_len(values);
        ldap_memfree(dn);
    }
    return found;
}

} // namespace sandbox_test
