// Updates as tests list them: the LDAP C API's arrays made from plain lists, and the bytes that a
// batch must carry for them, written without liblber.
//
//     Changes changes{{"mail", {"a@x", "b@x"}, LDAP_MOD_REPLACE | LDAP_MOD_BVALUES}};
//     LBURPEncodeMod(ld, "cn=a", changes.get(), nullptr, ber);
//     EXPECT_EQ(flattened(ber), Batch().modify("cn=a", changes.list()));
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ldapx.h"

namespace support {

struct Change {
    std::string type;
    std::vector<std::string> values{};
    int op = LDAP_MOD_ADD; // with or without LDAP_MOD_BVALUES
};

struct Control {
    std::string oid;
    std::optional<std::string> value = std::nullopt;
    char critical = 0;
};
using ControlList = std::optional<std::vector<Control>>;

// A NULL-terminated LDAPMod array; modv_bvals or modv_strvals as op says.
class Changes {
public:
    explicit Changes(std::vector<Change> list);
    Changes(std::initializer_list<Change> list) : Changes(std::vector<Change>(list)) {}
    ~Changes();
    Changes(const Changes &) = delete;
    Changes &operator=(const Changes &) = delete;
    LDAPMod **get();
    const std::vector<Change> &list() const;

private:
    struct Arrays;
    std::unique_ptr<Arrays> arrays_;
};

// A NULL-terminated LDAPControl array; NULL where there is no list.
class Controls {
public:
    explicit Controls(ControlList list);
    ~Controls();
    Controls(const Controls &) = delete;
    Controls &operator=(const Controls &) = delete;
    LDAPControl **get();
    const ControlList &list() const;

private:
    struct Arrays;
    std::unique_ptr<Arrays> arrays_;
};

// One record of a batch.
class Record {
public:
    Record(int operation, std::string dn, ControlList controls = std::nullopt)
        : dn_(std::move(dn)), controls_(std::move(controls))
    {
        record_.operation = operation;
        record_.dn = dn_.data();
        record_.ServerControls = controls_.get();
    }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    ~Record() = default;

    LBURPUpdateOperationList *get()
    {
        return &record_;
    }
    void carry(Changes &changes)
    {
        record_.value.attrs = changes.get();
    }
    void carry(char *new_rdn)
    {
        record_.value.newRDN = new_rdn;
    }

private:
    std::string dn_;
    Controls controls_;
    LBURPUpdateOperationList record_{};
};

// The array that the request takes.
template <class... Records>
std::vector<LBURPUpdateOperationList *> batch_of(Records &...records)
{
    return {records.get()..., nullptr};
}

// What is sent. Constructed elements have their lengths in this many bytes: liblber keeps four
// for each of them unless it writes DER, which is width 0.
struct Batch {
    unsigned width = 4;

    std::string add(const std::string &dn, const std::vector<Change> &attributes,
                    const ControlList &controls = std::nullopt) const;
    std::string modify(const std::string &dn, const std::vector<Change> &changes,
                       const ControlList &controls = std::nullopt) const;
    std::string remove(const std::string &dn, const ControlList &controls = std::nullopt) const;
    std::string rename(const std::string &dn, const std::string &new_rdn, bool delete_old,
                       const std::optional<std::string> &new_superior,
                       const ControlList &controls = std::nullopt) const;
    // The whole request value.
    std::string request(int sequence_number, const std::string &operations) const;

private:
    std::string attribute(const Change &change) const;
    std::string operation(const std::string &request, const ControlList &controls) const;
};

} // namespace support
