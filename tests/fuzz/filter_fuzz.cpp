// A replication filter as text: the input is the text. The library and the C++ layer take exactly
// the texts that have the form, send what an independent reader of the form says, and give the
// text back when the server answers with what it was sent.

#include "fuzz.h"

#include "greirige.hpp"
#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

using Classes = std::vector<greirige::FilterClass>;

//   filter = { class "$" { attribute "$" } "$" } "$"
struct Form {
    Classes classes;
    std::size_t length = 0; // of the filter; text may follow
};

// Nothing where the text does not begin with a filter.
std::optional<Form> form_of(const std::string &text)
{
    Form form;
    std::size_t at = 0;
    const auto name = [&] {
        const std::size_t sign = text.find('$', at);
        if (sign == std::string::npos)
            return std::string();
        std::string found = text.substr(at, sign - at);
        at = sign + 1;
        return found;
    };
    const auto closes = [&] {
        return at < text.size() && text[at] == '$';
    };
    while (!closes()) {
        std::string class_name = name();
        if (class_name.empty())
            return std::nullopt;
        form.classes.push_back({std::move(class_name), {}});
        while (!closes()) {
            std::string attribute = name();
            if (attribute.empty())
                return std::nullopt;
            form.classes.back().attributes.push_back(std::move(attribute));
        }
        ++at;
    }
    form.length = at + 1;
    return form;
}

std::string on_wire(const Classes &classes, unsigned width)
{
    std::string all;
    for (const auto &[class_name, attributes] : classes) {
        std::string names;
        for (const std::string &attribute : attributes)
            names += octets(attribute);
        all += element(0x30, concat(octets(class_name), element(0x30, names, width)), width);
    }
    return element(0x30, all, width);
}

void set(const std::string &text, const std::optional<Form> &form)
{
    Peer peer;
    peer.respond({.name = LDAPX_SET_REPLICATION_FILTER_RESPONSE});
    const int code = ldap_set_replication_filter(peer.ld(), "cn=srv", text.c_str());
    fuzz::require(code == (form ? LDAP_SUCCESS : LDAPX_PARAM_ERROR), "the result of a text");
    fuzz::require(form.has_value() != peer.quiet(), "a request only for a filter");
    if (form)
        fuzz::require(peer.take_request().value ==
                          concat(octets("cn=srv"), on_wire(form->classes, 4)),
                      "the filter that is sent");
}

void get(const std::string &text, const Form &form)
{
    Peer peer;
    peer.respond(
        {.name = LDAPX_GET_REPLICATION_FILTER_RESPONSE, .value = on_wire(form.classes, 0)});
    char *read = nullptr;
    const int code = ldap_get_replication_filter(peer.ld(), "cn=srv", &read);
    fuzz::require(code == LDAP_SUCCESS && read == text.substr(0, form.length),
                  "the filter that comes back");
    ldapx_memfree(read);
}

// The layer refuses what stands behind a filter, and so zero bytes too.
void parse_with_layer(const std::string &text, const std::optional<Form> &form)
{
    const auto parsed = greirige::parse_filter(text);
    const bool good = form && form->length == text.size();
    fuzz::require(parsed.has_value() == good, "what the layer takes");
    if (!good)
        return;
    fuzz::require(*parsed == form->classes, "what the layer reads");
    const auto formatted = greirige::format_filter(*parsed);
    fuzz::require(formatted && *formatted == text, "what the layer writes");
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    return {"$",
            "inetOrgPerson$cn$sn$$group$$$",
            "inetOrgPerson$cn$sn$$group$$$ and more",
            "a$$$",
            "a$b",
            "a",
            "$$",
            std::string(300, 'x') + "$y$$$"};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string whole = fuzz::Input(data, size).rest();
    const std::string text = whole.c_str(); // for the C interface it ends at a zero byte
    const std::optional<Form> form = form_of(text);
    set(text, form);
    if (form)
        get(text, *form);
    parse_with_layer(whole, whole == text ? form : std::nullopt);
    return 0;
}
