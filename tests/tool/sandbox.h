// A running sandbox for tests, and sessions on it.
//
//     static Sandbox &sandbox = *new Sandbox();        // one for a whole program
//     Session admin = sandbox.admin();
//     ldap_split_partition(admin.get(), dn, 0);
//     Finished found = sandbox.client("ldapsearch", {"-b", base});
//
// Its temporary directory lies in one of the fixture's own, so a test can look inside, and can
// see that nothing is left there afterwards.
#pragma once

#include "support/process.h"

#include <ldap.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace sandbox_test {

struct Unbind {
    void operator()(LDAP *ld) const
    {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
    }
};
using Session = std::unique_ptr<LDAP, Unbind>;

// A session at a URL, bound as dn (empty: anonymous). Throws when that fails.
Session connect(const std::string &url, const std::string &dn = {},
                const std::string &password = {});

// The text that a session's last failed operation brought.
std::string diagnostic(const Session &session);

// Names in the sample tree.
inline const std::string base = "dc=example,dc=com";
inline const std::string admin_dn = "cn=admin," + base;
inline const std::string people = "ou=people," + base;
inline const std::string engineering = "ou=engineering," + people;
inline const std::string sales = "ou=sales," + people;
inline const std::string server1 = "cn=server1,ou=servers," + base;
inline const std::string server2 = "cn=server2,ou=servers," + base;
inline const std::string server3 = "cn=server3,ou=servers," + base;

class Sandbox {
public:
    // Starts with these options, on a free port unless they name one, and waits until it is ready.
    explicit Sandbox(std::vector<std::string> options = {});

    const std::string &url() const
    {
        return url_;
    }
    int port() const;
    // A person with no rights beyond everybody's.
    std::string somebody() const;
    // Where its slapd listens, for whoever wants to reach it without the gateway.
    std::string slapd_url() const;

    Session admin() const
    {
        return connect(url_, admin_dn, "secret");
    }
    Session anonymous() const
    {
        return connect(url_);
    }
    // Bound as this entry; every person's password is "password".
    Session as(const std::string &dn) const
    {
        return connect(url_, dn, "password");
    }

    // Runs one of OpenLDAP's clients against it, anonymously or as the administrator.
    support::Finished client(const std::string &program, std::vector<std::string> arguments,
                             const std::string &input = {}) const;
    support::Finished client_as_admin(const std::string &program,
                                      std::vector<std::string> arguments,
                                      const std::string &input = {}) const;

    support::Child &process()
    {
        return process_;
    }
    // Asks it to end; true when it does so with nothing to complain about and nothing left behind.
    bool ends_cleanly();
    std::vector<pid_t> children() const;
    std::vector<std::filesystem::path> left_behind() const;

private:
    support::TemporaryDirectory directory_;
    support::Child process_;
    std::string url_;
};

bool is_alive(pid_t process);

// One attribute's values of every entry that is found, as "dn: value"; without attribute, the DNs.
std::vector<std::string> search(const Session &session, const std::string &below,
                                const std::string &filter, const std::string &attribute = {});

} // namespace sandbox_test
