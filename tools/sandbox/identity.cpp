#include "identity.h"

#include "ldapx.h"

namespace sandbox {

void offer_bind_identity(Operations &operations)
{
    operations.add({LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE, "bind identity",
                    [](const std::shared_ptr<Call> &call) {
                        call->expect_no_value();
                        call->answer({}, ber::octets(call->identity()));
                    }});
}

} // namespace sandbox
