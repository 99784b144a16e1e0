#include "updates.h"

#include <deque>

#include "ber.h"

namespace support {

struct Changes::Arrays {
    std::vector<Change> list;
    std::deque<std::vector<berval>> values;
    std::deque<std::vector<berval *>> value_pointers;
    std::deque<std::vector<char *>> string_pointers;
    std::vector<LDAPMod> mods;
    std::vector<LDAPMod *> pointers;
};

Changes::Changes(std::vector<Change> list) : arrays_(std::make_unique<Arrays>())
{
    Arrays &arrays = *arrays_;
    arrays.list = std::move(list);
    for (Change &change : arrays.list) {
        auto &values = arrays.values.emplace_back();
        auto &value_pointers = arrays.value_pointers.emplace_back();
        auto &string_pointers = arrays.string_pointers.emplace_back();
        for (std::string &value : change.values) {
            values.push_back({value.size(), value.data()});
            string_pointers.push_back(value.data());
        }
        for (berval &value : values)
            value_pointers.push_back(&value);
        value_pointers.push_back(nullptr);
        string_pointers.push_back(nullptr);

        LDAPMod mod{};
        mod.mod_op = change.op;
        mod.mod_type = change.type.data();
        if ((change.op & LDAP_MOD_BVALUES) != 0)
            mod.mod_bvalues = value_pointers.data();
        else
            mod.mod_values = string_pointers.data();
        arrays.mods.push_back(mod);
    }
    for (LDAPMod &mod : arrays.mods)
        arrays.pointers.push_back(&mod);
    arrays.pointers.push_back(nullptr);
}

Changes::~Changes() = default;

LDAPMod **Changes::get()
{
    return arrays_->pointers.data();
}

const std::vector<Change> &Changes::list() const
{
    return arrays_->list;
}

struct Controls::Arrays {
    ControlList list;
    std::vector<LDAPControl> controls;
    std::vector<LDAPControl *> pointers;
};

Controls::Controls(ControlList list) : arrays_(std::make_unique<Arrays>())
{
    Arrays &arrays = *arrays_;
    arrays.list = std::move(list);
    if (!arrays.list)
        return;
    for (Control &control : *arrays.list) {
        LDAPControl made{};
        made.ldctl_oid = control.oid.data();
        made.ldctl_iscritical = control.critical;
        if (control.value)
            made.ldctl_value = {control.value->size(), control.value->data()};
        arrays.controls.push_back(made);
    }
    for (LDAPControl &control : arrays.controls)
        arrays.pointers.push_back(&control);
    arrays.pointers.push_back(nullptr);
}

Controls::~Controls() = default;

LDAPControl **Controls::get()
{
    return arrays_->list ? arrays_->pointers.data() : nullptr;
}

const ControlList &Controls::list() const
{
    return arrays_->list;
}

std::string Batch::attribute(const Change &change) const
{
    std::string values;
    for (const std::string &value : change.values)
        values += octets(value);
    return element(0x30, concat(octets(change.type), element(0x31, values, width)), width);
}

std::string Batch::operation(const std::string &request, const ControlList &controls) const
{
    std::string list;
    if (controls) {
        std::string each;
        for (const Control &control : *controls)
            each += element(0x30,
                            concat(octets(control.oid),
                                   control.critical != 0 ? boolean(true) : std::string(),
                                   control.value ? octets(*control.value) : std::string()),
                            width);
        list = element(0xa0, each, width);
    }
    return element(0x30, concat(request, list), width);
}

std::string Batch::add(const std::string &dn, const std::vector<Change> &attributes,
                       const ControlList &controls) const
{
    std::string list;
    for (const Change &change : attributes)
        list += attribute(change);
    return operation(element(0x68, concat(octets(dn), element(0x30, list, width)), width),
                     controls);
}

std::string Batch::modify(const std::string &dn, const std::vector<Change> &changes,
                          const ControlList &controls) const
{
    std::string list;
    for (const Change &change : changes)
        list += element(0x30, concat(enumerated(change.op & ~0x80), attribute(change)), width);
    return operation(element(0x66, concat(octets(dn), element(0x30, list, width)), width),
                     controls);
}

std::string Batch::remove(const std::string &dn, const ControlList &controls) const
{
    return operation(octets(dn, 0x4a), controls);
}

std::string Batch::rename(const std::string &dn, const std::string &new_rdn, bool delete_old,
                          const std::optional<std::string> &new_superior,
                          const ControlList &controls) const
{
    return operation(element(0x6c,
                             concat(octets(dn), octets(new_rdn), boolean(delete_old),
                                    new_superior ? octets(*new_superior) : std::string()),
                             width),
                     controls);
}

std::string Batch::request(int sequence_number, const std::string &operations) const
{
    return element(0x30, concat(integer(sequence_number), operations), width);
}

} // namespace support
