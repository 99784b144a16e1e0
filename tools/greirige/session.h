// One session with a server: from the connection options to a bound LDAP*, and its end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ldap.h>

#include "connection.h"
#include "controls.h"

namespace tool {

class Session {
public:
    // Prepares the session and checks the options; sends nothing.
    Session(ConnectionOptions &options, bool verbose);

    // Connects, encrypts and binds, once. Throws a ConnectFailure.
    void open();

    // Before it is open: no wait for the server, as far as the options bound it, takes longer.
    void limit_waits(long seconds);

    // The session for the library's functions: connected and bound on first use.
    LDAP *ld();

    // The server, for messages: the one that answered; before that, all that would be tried.
    const std::string &server() const
    {
        return server_;
    }

    // False once the server has closed the connection.
    bool connected() const;

private:
    struct Unbind {
        void operator()(LDAP *ld) const
        {
            ldap_unbind_ext_s(ld, nullptr, nullptr);
        }
    };

    void list_servers();
    void reach();
    void start_tls();
    void bind(const Secret &password);
    int bind_simple(const Secret &password);
    int bind_sasl(const Secret &password);
    int take_bind_response(LDAPMessage *response);
    Secret given_password() const;
    void say(const std::string &what) const;
    static int on_connect(LDAP *ld, Sockbuf *buffer, LDAPURLDesc *server, sockaddr *address,
                          ldap_conncb *callback);

    ConnectionOptions &options_;
    bool verbose_;
    bool open_ = false;
    std::string server_;
    std::vector<std::string> servers_; // the same, one by one, while none has answered
    int socket_ = -1;
    const class HandshakeLimit *limit_ = nullptr; // while a connection is being made
    ldap_conncb callback_ = {};                   // libldap calls it until the session ends
    std::unique_ptr<LDAP, Unbind> ld_;
    std::unique_ptr<Controls> controls_;
};

} // namespace tool
