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

// libldap itself ends the process over a response name without characters: such messages are left
// out, with some others that could be one.
inline bool may_have_empty_name(const std::string &message)
{
    for (std::size_t i = 0; i + 1 < message.size(); ++i) {
        const auto tag = static_cast<unsigned char>(message[i]);
        if (tag != 0x8a && tag != 0x80)
            continue;
        const auto length = static_cast<unsigned char>(message[i + 1]);
        const std::size_t width = length >= 0x80 ? length - 0x80U : 0;
        if (length == 0 || (width > 0 && message.substr(i + 2, width).find_first_not_of('\0') ==
                                             std::string::npos))
            return true;
        // A name that begins with a zero byte has no characters either.
        if (i + 2 + width < message.size() && message[i + 2 + width] == '\0')
            return true;
    }
    return false;
}

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
