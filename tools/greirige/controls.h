// -e: the controls that go with the bind and with every operation.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ldap.h>

#include "connection.h"

namespace tool {

struct FreeControl {
    void operator()(LDAPControl *control) const
    {
        ldap_control_free(control);
    }
};
using Control = std::unique_ptr<LDAPControl, FreeControl>;

class Controls {
public:
    // Throws a UsageError for an extension that does not exist or has the wrong parameter.
    Controls(const ConnectionOptions &options, LDAP *ld);

    // NULL-terminated for libldap; NULL when there are none, so that its defaults hold.
    LDAPControl **for_bind();
    LDAPControl **for_operations();

private:
    void add(const std::string &argument, const ConnectionOptions &options, LDAP *ld);

    std::vector<Control> all_;
    std::vector<LDAPControl *> bind_;
    std::vector<LDAPControl *> operations_;
};

} // namespace tool
