#include "entry_images.h"

#include "dn.h"

namespace sandbox {

namespace {

bool is_image(std::string_view control)
{
    return control == LDAP_CONTROL_PRE_READ || control == LDAP_CONTROL_POST_READ;
}

bool ask_for_images(std::string_view controls)
{
    ber::Reader list(controls);
    while (!list.at_end())
        if (is_image(list.enter(ber::sequence_tag).octets()))
            return true;
    return false;
}

std::string image_control(std::string_view name, std::string_view attributes)
{
    return ber::sequence(ber::octets(name), ber::octets(ber::sequence(attributes)));
}

// What a modify request names, and what naming changes when an entry is renamed.
std::string changing_attributes(const ber::Element &request)
{
    std::string names;
    ber::Reader body(request.content);
    if (request.tag == LDAP_REQ_MODIFY) {
        body.octets();
        ber::Reader changes = body.enter(ber::sequence_tag);
        while (!changes.at_end()) {
            ber::Reader change = changes.enter(ber::sequence_tag);
            change.integer(ber::enumerated_tag);
            names += ber::octets(change.enter(ber::sequence_tag).octets());
        }
    } else if (request.tag == LDAP_REQ_MODDN) {
        for (const std::string &dn : {body.text(), body.text()})
            for (const std::string &name : naming_attributes(dn))
                names += ber::octets(name);
    }
    return names;
}

} // namespace

bool is_change(ber::Tag request)
{
    return request == LDAP_REQ_ADD || request == LDAP_REQ_DELETE || request == LDAP_REQ_MODIFY ||
           request == LDAP_REQ_MODDN;
}

std::string image_controls(const ber::Element &request, std::string_view controls, bool values)
{
    try {
        if (!is_change(request.tag) || ask_for_images(controls))
            return {};
        std::string attributes =
            ber::octets("structuralObjectClass") + ber::octets("createTimestamp");
        if (values)
            attributes += changing_attributes(request);
        std::string wanted;
        if (request.tag != LDAP_REQ_ADD)
            wanted += image_control(LDAP_CONTROL_PRE_READ, attributes);
        if (request.tag != LDAP_REQ_DELETE)
            wanted += image_control(LDAP_CONTROL_POST_READ, attributes);
        return wanted;
    } catch (const ber::Malformed &) {
        return {}; // slapd says what is wrong with it
    }
}

EntryImages read_images(std::string_view controls)
{
    EntryImages images;
    ber::Reader list(controls);
    while (!list.at_end()) {
        ber::Reader control = list.enter(ber::sequence_tag);
        const std::string_view name = control.octets();
        if (!is_image(name))
            continue;
        if (control.next_tag() == ber::boolean_tag)
            control.boolean();
        ber::Reader value(control.octets());
        (name == LDAP_CONTROL_PRE_READ ? images.before : images.after) =
            read_entry(ber::Reader(value.element().content));
    }
    return images;
}

std::string without_images(std::string_view controls)
{
    std::string others;
    ber::Reader list(controls);
    while (!list.at_end()) {
        const ber::Element control = list.element(ber::sequence_tag);
        if (!is_image(ber::Reader(control.content).octets()))
            others.append(control.whole);
    }
    return others;
}

} // namespace sandbox
