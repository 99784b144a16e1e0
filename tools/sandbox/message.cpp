#include "message.h"

namespace sandbox {

namespace {

// What stands inside the element that bytes begin with, as far as it is here.
ber::Reader inside(std::string_view bytes)
{
    ber::Header header;
    if (!ber::read_header(bytes, header))
        throw ber::Malformed("an element is cut short");
    return ber::Reader(bytes.substr(header.header_size));
}

std::string in_quotes(std::string_view name)
{
    return " \"" + std::string(name) + "\"";
}

std::string describe_bind(ber::Reader request)
{
    request.integer();
    const std::string name = in_quotes(request.octets());
    if (request.next_tag() != LDAP_AUTH_SASL)
        return "bind" + name;
    return "bind SASL " + request.enter(LDAP_AUTH_SASL).text();
}

} // namespace

std::optional<MessageHead> read_head(std::string_view bytes, std::size_t limit)
{
    ber::Header envelope;
    if (!bytes.empty() && static_cast<ber::Tag>(bytes[0]) != ber::sequence_tag)
        throw ber::Malformed("not an LDAP message");
    if (!ber::read_header(bytes, envelope))
        return {};
    if (envelope.size() > limit)
        throw ber::Malformed("message of " + std::to_string(envelope.size()) +
                             " bytes, more than the limit of " + std::to_string(limit));

    // The message id and the operation's tag stand at the front: a few bytes suffice, and a
    // message that ends before them has none.
    const std::string_view here = bytes.substr(envelope.header_size, envelope.content_size);
    const bool complete = here.size() == envelope.content_size;
    ber::Header id;
    if (!ber::read_header(here, id) || here.size() <= id.size()) {
        if (complete || id.content_size > 4)
            throw ber::Malformed("message without an operation");
        return {};
    }
    ber::Reader reader(here);
    const std::int32_t number = reader.integer();
    if (number < 0)
        throw ber::Malformed("negative message id");
    return MessageHead{number, reader.next_tag(), envelope.size()};
}

Message read_message(std::string_view bytes)
{
    ber::Reader stream(bytes);
    ber::Reader envelope = stream.enter(ber::sequence_tag);
    Message found;
    found.id = envelope.integer();
    found.operation = envelope.element();
    if (!envelope.at_end())
        found.controls = envelope.octets(LDAP_TAG_CONTROLS);
    return found;
}

Result read_result(ber::Reader &operation)
{
    Result result;
    result.code = operation.integer(ber::enumerated_tag);
    result.matched_dn = operation.text();
    result.diagnostic = operation.text();
    return result;
}

std::string result_elements(const Result &result)
{
    return ber::enumerated(result.code) + ber::octets(result.matched_dn) +
           ber::octets(result.diagnostic);
}

std::string message(std::int32_t id, std::string_view operation, std::string_view controls)
{
    return ber::sequence(ber::integer(id), operation,
                         controls.empty() ? std::string()
                                          : ber::element(LDAP_TAG_CONTROLS, controls));
}

std::string extended_response(const Result &result, std::string_view name,
                              const std::optional<std::string> &value)
{
    return ber::constructed(LDAP_RES_EXTENDED, result_elements(result),
                            name.empty() ? std::string() : ber::octets(name, LDAP_TAG_EXOP_RES_OID),
                            value ? ber::octets(*value, LDAP_TAG_EXOP_RES_VALUE) : std::string());
}

std::string extended_request(std::string_view name, const std::optional<std::string> &value)
{
    return ber::constructed(LDAP_REQ_EXTENDED, ber::octets(name, LDAP_TAG_EXOP_REQ_OID),
                            value ? ber::octets(*value, LDAP_TAG_EXOP_REQ_VALUE) : std::string());
}

std::string intermediate_response(std::string_view name, std::string_view value)
{
    return ber::constructed(LDAP_RES_INTERMEDIATE, ber::octets(name, LDAP_TAG_IM_RES_OID),
                            ber::octets(value, LDAP_TAG_IM_RES_VALUE));
}

std::string notice_of_disconnection(const Result &result)
{
    return message(0, extended_response(result, LDAP_NOTICE_OF_DISCONNECTION));
}

std::optional<ber::Tag> response_to(ber::Tag request)
{
    switch (request) {
    case LDAP_REQ_BIND:
        return LDAP_RES_BIND;
    case LDAP_REQ_SEARCH:
        return LDAP_RES_SEARCH_RESULT;
    case LDAP_REQ_MODIFY:
        return LDAP_RES_MODIFY;
    case LDAP_REQ_ADD:
        return LDAP_RES_ADD;
    case LDAP_REQ_DELETE:
        return LDAP_RES_DELETE;
    case LDAP_REQ_MODDN:
        return LDAP_RES_MODDN;
    case LDAP_REQ_COMPARE:
        return LDAP_RES_COMPARE;
    case LDAP_REQ_EXTENDED:
        return LDAP_RES_EXTENDED;
    default:
        return {};
    }
}

bool more_follow(ber::Tag response)
{
    return response == LDAP_RES_SEARCH_ENTRY || response == LDAP_RES_SEARCH_REFERENCE ||
           response == LDAP_RES_INTERMEDIATE;
}

std::string describe_request(std::string_view first_bytes)
{
    try {
        ber::Reader envelope = inside(first_bytes);
        envelope.integer();
        const ber::Tag operation = envelope.next_tag();
        ber::Reader request = inside(envelope.rest());
        switch (operation) {
        case LDAP_REQ_BIND:
            return describe_bind(request);
        case LDAP_REQ_SEARCH:
            return "search" + in_quotes(request.octets());
        case LDAP_REQ_MODIFY:
            return "modify" + in_quotes(request.octets());
        case LDAP_REQ_ADD:
            return "add" + in_quotes(request.octets());
        case LDAP_REQ_DELETE:
            return "delete" + in_quotes(envelope.octets(operation));
        case LDAP_REQ_MODDN:
            return "rename" + in_quotes(request.octets());
        case LDAP_REQ_COMPARE:
            return "compare" + in_quotes(request.octets());
        default:
            return "extended " + request.text(LDAP_TAG_EXOP_REQ_OID);
        }
    } catch (const ber::Malformed &) {
        return "unreadable request";
    }
}

} // namespace sandbox
