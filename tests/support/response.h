// Responses as an application collects them, for the functions that parse messages.
//
//     Collected response({.name = LDAPX_LBURP_END_RESPONSE});
//     EXPECT_EQ(ldap_parse_lburp_end_response(response.ld(), response.message(), ...), 0);
#pragma once

#include <stdexcept>
#include <string>

#include "support/ber.h"
#include "support/peer.h"

namespace support {

class Collected {
public:
    explicit Collected(const Response &response) : id_(request())
    {
        peer_.respond(response);
        message_ = peer_.result(id_);
    }
    // Any other message, by the tag and the content of its protocol operation.
    Collected(unsigned long tag, const std::string &content) : id_(request())
    {
        peer_.send(sequence(integer(id_), element(tag, content)));
        message_ = peer_.result(id_);
    }

    LDAP *ld() const
    {
        return peer_.ld();
    }
    LDAPMessage *message() const
    {
        return message_.get();
    }
    // The message now belongs to somebody else.
    LDAPMessage *release()
    {
        return message_.release();
    }
    int session_code() const
    {
        return peer_.session_code();
    }

private:
    int request()
    {
        int id = 0;
        const int rc = ldap_extended_operation(peer_.ld(), "1.2.3", nullptr, nullptr, nullptr, &id);
        if (rc != LDAP_SUCCESS)
            throw std::runtime_error("the request was not sent");
        return id;
    }

    Peer peer_;
    int id_;
    Message message_;
};

} // namespace support
