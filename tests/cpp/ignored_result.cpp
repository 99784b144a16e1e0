// Compiled by a test in two ways: with the results used it compiles without a warning, with them
// dropped it does not.

#include "greirige.hpp"

int main()
{
    const greirige::Session session(nullptr);
#ifdef RESULT_IS_USED
    return session.refresh_server().has_value() && session.bind_dn().has_value() ? 0 : 1;
#else
    session.refresh_server();
    session.bind_dn();
#endif
}
