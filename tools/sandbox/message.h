// LDAP messages (RFC 4511, section 4.1): finding where one begins and ends in a stream of bytes,
// and building the ones that the gateway sends itself.
#pragma once

#include "ber.h"

#include <ldap.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

// What is needed of a message to know where it goes.
struct MessageHead {
    std::int32_t id = 0;
    ber::Tag operation = 0;
    std::size_t size = 0; // of the whole message
};

// Reads the head of the message that bytes begin with. Nothing when there are not enough bytes
// yet; ber::Malformed when no message can begin so, or when it is larger than the limit.
std::optional<MessageHead> read_head(std::string_view bytes, std::size_t limit);

// A message that is here as a whole. Its parts point into the bytes that it was read from.
struct Message {
    std::int32_t id = 0;
    ber::Element operation;
    std::string_view controls; // the content of the [0] element, empty when there is none
};
Message read_message(std::string_view bytes);

// An LDAPResult (RFC 4511, section 4.1.9).
struct Result {
    int code = LDAP_SUCCESS;
    std::string diagnostic;
    std::string matched_dn;

    bool ok() const
    {
        return code == LDAP_SUCCESS;
    }
};
Result read_result(ber::Reader &operation);
std::string result_elements(const Result &result);

// One whole message of the given protocol operation.
std::string message(std::int32_t id, std::string_view operation, std::string_view controls = {});

// An ExtendedResponse, an ExtendedRequest, an IntermediateResponse; name and value when given.
std::string extended_response(const Result &result, std::string_view name = {},
                              const std::optional<std::string> &value = {});
std::string extended_request(std::string_view name, const std::optional<std::string> &value = {});
std::string intermediate_response(std::string_view name, std::string_view value);

// The last message of a connection that the server ends (RFC 4511, section 4.4.1).
std::string notice_of_disconnection(const Result &result);

// The tag of the response that ends a request; nothing for a request that has none.
std::optional<ber::Tag> response_to(ber::Tag request);
// True for entries, references and intermediate responses, which more responses follow.
bool more_follow(ber::Tag response);

// A request in a few words for people: its operation and the name that it is about. The first bytes
// of the message suffice.
std::string describe_request(std::string_view first_bytes);

} // namespace sandbox
