// The encoders of bulk updates: the input is a list of updates with any names, values and controls.
// A reader that does not know liblber finds all of it again in what they have written.

#include "fuzz.h"

#include <optional>

#include "support/ber.h"
#include "support/updates.h"

using namespace support;

namespace {

enum class Kind { add, modify, remove, rename };
constexpr std::size_t kinds = 4;

struct Update {
    Kind kind = Kind::add;
    std::string dn;
    std::vector<Change> changes{};
    std::string new_rdn{};
    std::optional<std::string> new_superior = std::nullopt;
    bool delete_old = false;
    ControlList controls = std::nullopt;
};

LDAP *session()
{
    static LDAP *ld = [] {
        LDAP *made = nullptr;
        fuzz::require(ldap_create(&made) == LDAP_SUCCESS);
        return made;
    }();
    return ld;
}

// ---- Making updates of an input -----------------------------------------------------------------

// What the C interface takes as a string ends at a zero byte.
std::string c_string(fuzz::Input &input)
{
    return input.text().c_str();
}

Change make_change(fuzz::Input &input, bool with_operation)
{
    const unsigned char shape = input.byte();
    Change change{c_string(input)};
    change.op = (with_operation ? shape & 0x0f : 0) | (shape & LDAP_MOD_BVALUES);
    for (std::size_t left = input.below(4); left > 0; --left)
        change.values.push_back((shape & LDAP_MOD_BVALUES) != 0 ? input.text() : c_string(input));
    return change;
}

Update make_update(fuzz::Input &input)
{
    const unsigned char shape = input.byte();
    Update update{static_cast<Kind>(shape % kinds), c_string(input)};
    if (update.kind == Kind::rename) {
        update.new_rdn = c_string(input);
        update.delete_old = (shape & 0x10) != 0;
        if ((shape & 0x20) != 0)
            update.new_superior = c_string(input);
    } else if (update.kind != Kind::remove) {
        for (std::size_t left = input.below(4); left > 0; --left)
            update.changes.push_back(make_change(input, update.kind == Kind::modify));
    }
    if ((shape & 0x40) != 0) {
        update.controls.emplace();
        for (std::size_t left = input.below(3); left > 0; --left) {
            Control control{c_string(input)};
            control.critical = static_cast<char>(input.below(2));
            if (input.below(2) != 0)
                control.value = input.text();
            update.controls->push_back(std::move(control));
        }
    }
    return update;
}

// ---- Writing them with the library --------------------------------------------------------------

int encode(const Update &update, BerElement *ber)
{
    Changes changes(update.changes);
    Controls controls(update.controls);
    switch (update.kind) {
    case Kind::add:
        return LBURPEncodeAdd(session(), update.dn.c_str(), changes.get(), controls.get(), ber);
    case Kind::modify:
        return LBURPEncodeMod(session(), update.dn.c_str(), changes.get(), controls.get(), ber);
    case Kind::remove:
        return LBURPEncodeDelete(session(), update.dn.c_str(), controls.get(), ber);
    case Kind::rename:
        break;
    }
    return LBURPEncodeModRDN(session(), update.dn.c_str(), update.new_rdn.c_str(),
                             update.new_superior ? update.new_superior->c_str() : nullptr,
                             update.delete_old ? 1 : 0, controls.get(), ber);
}

// ---- Reading them again -------------------------------------------------------------------------

bool boolean_of(const std::string &content)
{
    fuzz::require(content == std::string(1, '\0') || content == "\xff", "a BOOLEAN");
    return content != std::string(1, '\0');
}

void expect_attribute(Reader &in, const Change &change)
{
    const std::string whole = in.take(0x30);
    Reader attribute(whole);
    fuzz::require(attribute.take(0x04) == change.type, "an attribute's type");
    const std::string set = attribute.take(0x31);
    Reader values(set);
    for (const std::string &value : change.values)
        fuzz::require(values.take(0x04) == value, "a value");
    fuzz::require(values.at_end() && attribute.at_end(), "nothing else in an attribute");
}

void expect_changes(Reader &in, const Update &update)
{
    const std::string whole = in.take(0x30);
    Reader list(whole);
    for (const Change &change : update.changes) {
        if (update.kind == Kind::add) {
            expect_attribute(list, change);
            continue;
        }
        const std::string each = list.take(0x30);
        Reader modification(each);
        fuzz::require(modification.take_integer(0x0a) == (change.op & ~LDAP_MOD_BVALUES),
                      "a modification's operation");
        expect_attribute(modification, change);
        fuzz::require(modification.at_end(), "nothing else in a modification");
    }
    fuzz::require(list.at_end(), "nothing else in the list of changes");
}

void expect_request(Reader &in, const Update &update)
{
    constexpr unsigned char tags[kinds] = {0x68, 0x66, 0x4a, 0x6c};
    const std::string whole = in.take(tags[static_cast<std::size_t>(update.kind)]);
    if (update.kind == Kind::remove) {
        fuzz::require(whole == update.dn, "the DN of a removal");
        return;
    }
    Reader request(whole);
    fuzz::require(request.take(0x04) == update.dn, "the DN");
    if (update.kind == Kind::rename) {
        fuzz::require(request.take(0x04) == update.new_rdn, "the new RDN");
        fuzz::require(boolean_of(request.take(0x01)) == update.delete_old, "delete the old RDN");
        if (update.new_superior)
            fuzz::require(request.take(0x04) == *update.new_superior, "the new superior");
    } else {
        expect_changes(request, update);
    }
    fuzz::require(request.at_end(), "nothing else in a request");
}

void expect_controls(Reader &in, const std::vector<Control> &controls)
{
    const std::string whole = in.take(0xa0);
    Reader list(whole);
    for (const Control &control : controls) {
        const std::string each = list.take(0x30);
        Reader one(each);
        fuzz::require(one.take(0x04) == control.oid, "a control's name");
        fuzz::require((one.next_tag() == 0x01 && boolean_of(one.take(0x01))) ==
                          (control.critical != 0),
                      "a control's criticality");
        if (control.value)
            fuzz::require(one.take(0x04) == *control.value, "a control's value");
        fuzz::require(one.at_end(), "nothing else in a control");
    }
    fuzz::require(list.at_end(), "nothing else in the controls");
}

void expect_update(Reader &in, const Update &update)
{
    const std::string whole = in.take(0x30);
    Reader operation(whole);
    expect_request(operation, update);
    if (update.controls)
        expect_controls(operation, *update.controls);
    fuzz::require(operation.at_end(), "nothing else in an update");
}

// ---- Seeds --------------------------------------------------------------------------------------

std::string text(const std::string &value)
{
    return static_cast<char>(value.size()) + value;
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    const std::string values = "\x02" + text("first") + text("second");
    const std::string attribute = "\x01" + text("mail") + values;
    const std::string binary = "\x82" + text("photo") + "\x01" + text("\x01\xff");
    const std::string controls =
        "\x02" + text("1.2.3") + "\x01\x01" + text("value") + text("1.2.4") + std::string(2, '\0');
    const std::string adding = text("cn=a,o=x") + "\x02" + attribute + binary;
    const std::string removing = text("cn=a,o=x");
    const std::string renaming = text("cn=a,o=x") + text("cn=b");
    return {
        "\x04" + adding,
        "\x44" + adding + controls,
        "\x05" + adding,
        "\x45" + adding + controls,
        "\x06" + removing,
        "\x46" + removing + controls,
        "\x13" + renaming,
        "\x73" + renaming + text("o=y") + controls,
        "\x04" + adding + "\x05" + adding + "\x06" + removing + "\x33" + renaming + text("o=y"),
    };
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    std::vector<Update> updates;
    while (!input.empty())
        updates.push_back(make_update(input));

    BerElement *ber = ber_alloc_t(0);
    for (const Update &update : updates)
        fuzz::require(encode(update, ber) == LDAP_SUCCESS, "any update can be encoded");
    berval *value = nullptr;
    fuzz::require(ber_flatten(ber, &value) == 0, "all elements are closed");
    const std::string written(value->bv_val, value->bv_len);
    ber_bvfree(value);
    ber_free(ber, 1);

    Reader in(written);
    for (const Update &update : updates)
        expect_update(in, update);
    fuzz::require(in.at_end(), "nothing else is written");
    return 0;
}
