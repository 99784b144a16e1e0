// What a SASL mechanism wants to know during a bind, answered from the options or by asking.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include <ldap.h>

#include "connection.h"

struct sasl_interact;

namespace tool {

class SaslAnswers {
public:
    // The options' values; where there are none, those of ldap.conf, which the session knows.
    SaslAnswers(const ConnectionOptions &options, const Secret &password, LDAP *ld);

    const char *mechanism() const; // NULL: the best that the server offers
    unsigned flags() const;
    // For ldap_sasl_interactive_bind; its last argument but one is the SaslAnswers.
    static int interact(LDAP *ld, unsigned flags, void *answers, void *questions);
    // What a question to the person threw, once the bind that asked it is over.
    void rethrow() const;
    // Once the bind is over: moves what was typed to the options, which never ask again then.
    void keep_in(ConnectionOptions &options);

private:
    int answer(unsigned flags, struct sasl_interact &question);

    std::string mechanism_;
    std::string realm_;
    std::string authentication_id_;
    std::string authorization_id_;
    const Secret &password_;
    unsigned flags_;
    std::exception_ptr thrown_;
    struct Typed {
        unsigned long question;
        Secret answer;
    };
    std::vector<Typed> typed_; // the mechanism keeps pointers to them until the bind is over
};

} // namespace tool
