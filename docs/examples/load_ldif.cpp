// load_ldif - loads an LDIF file in batches: entries, and changes of any kind (RFC 2849).
//
//   load_ldif FILE
//
// Exit status: 0 done, 1 the load failed, 2 wrong usage, 3 no session, 4 some updates failed.

#include "connect.hpp"

#include <ldif.h>

#include <cstdio>
#include <iostream>
#include <optional>

namespace {

// ---- Reading: libldap's own reader of LDIF, made into updates -----------------------------------

std::string string_of(const berval &value)
{
    return value.bv_len > 0 ? std::string(value.bv_val, value.bv_len) : std::string();
}

greirige::Attribute attribute_of(const LDAPMod &mod)
{
    greirige::Attribute attribute{mod.mod_type};
    for (berval **value = mod.mod_bvalues; value != nullptr && *value != nullptr; ++value)
        attribute.values.push_back(string_of(**value));
    return attribute;
}

std::vector<greirige::Control> controls_of(LDAPControl **controls)
{
    std::vector<greirige::Control> list;
    for (; controls != nullptr && *controls != nullptr; ++controls) {
        const LDAPControl &control = **controls;
        list.push_back({control.ldctl_oid, control.ldctl_iscritical != 0});
        if (control.ldctl_value.bv_val != nullptr)
            list.back().value = string_of(control.ldctl_value);
    }
    return list;
}

// Nothing for a record that is no update.
std::optional<greirige::Update> update_of(const LDIFRecord &record)
{
    const std::string dn = string_of(record.lr_dn);
    const std::vector<greirige::Control> controls = controls_of(record.lr_ctrls);
    switch (record.lr_op) {
    case LDAP_REQ_ADD: {
        greirige::AddEntry add{dn, {}, controls};
        for (LDAPMod **mod = record.lrop_mods; mod != nullptr && *mod != nullptr; ++mod)
            add.attributes.push_back(attribute_of(**mod));
        return add;
    }
    case LDAP_REQ_DELETE:
        return greirige::DeleteEntry{dn, controls};
    case LDAP_REQ_MODIFY: {
        greirige::ModifyEntry modify{dn, {}, controls};
        for (LDAPMod **mod = record.lrop_mods; mod != nullptr && *mod != nullptr; ++mod)
            modify.changes.push_back(
                {static_cast<greirige::ChangeKind>((*mod)->mod_op & ~LDAP_MOD_BVALUES),
                 attribute_of(**mod)});
        return modify;
    }
    case LDAP_REQ_MODRDN: {
        greirige::RenameEntry rename{dn, string_of(record.lrop_newrdn), record.lrop_delold != 0,
                                     std::nullopt, controls};
        if (record.lrop_newsup.bv_val != nullptr)
            rename.new_superior = string_of(record.lrop_newsup);
        return rename;
    }
    default:
        return std::nullopt;
    }
}

class LdifFile {
public:
    explicit LdifFile(const char *path) : file_(ldif_open(path, "r")) {}
    ~LdifFile()
    {
        if (file_ != nullptr)
            ldif_close(file_);
        ber_memfree(text_);
    }
    LdifFile(const LdifFile &) = delete;
    LdifFile &operator=(const LdifFile &) = delete;

    bool is_open() const
    {
        return file_ != nullptr;
    }
    // Goes to the next record; false at the end of the file, and where it cannot be read further:
    // failed() tells. line() is near where the record begins.
    bool next()
    {
        first_line_ = lines_ + 1;
        const int found = ldif_read_record(file_, &lines_, &text_, &capacity_);
        failed_ = found < 0 || std::ferror(file_->fp) != 0;
        return found > 0 && !failed_;
    }
    bool failed() const
    {
        return failed_;
    }
    unsigned long line() const
    {
        return first_line_;
    }
    // The record as an update; nothing, and a line on standard error, for one that is wrong.
    std::optional<greirige::Update> update()
    {
        berval text = {std::char_traits<char>::length(text_), text_};
        LDIFRecord record{};
        std::optional<greirige::Update> update;
        if (ldap_parse_ldif_record(&text, first_line_, &record, "load_ldif", LDIF_DEFAULT_ADD) ==
            LDAP_SUCCESS)
            update = update_of(record);
        ldap_ldif_record_done(&record);
        return update;
    }

private:
    LDIFFP *file_;
    char *text_ = nullptr;
    int capacity_ = 0;
    unsigned long lines_ = 0;
    unsigned long first_line_ = 0;
    bool failed_ = false;
};

// ---- Loading ------------------------------------------------------------------------------------

greirige::Result<greirige::BulkSummary> load(greirige::Session session, LdifFile &file)
{
    auto load = greirige::BulkLoad::start(session, [](const greirige::BulkFailure &failure) {
        std::cerr << "load_ldif: line " << failure.tag << ": " << failure.dn << ": "
                  << failure.error.text << ' ' << failure.error.diagnostic << '\n';
    });
    if (!load)
        return load.error();
    while (file.next()) {
        const auto update = file.update();
        if (!update)
            return greirige::Error{LDAP_PARAM_ERROR, "not an update",
                                   "line " + std::to_string(file.line())};
        // Sends a batch when one is full; the line number comes back with a failure.
        if (auto taken = load->submit(*update, file.line()); !taken)
            return taken.error();
    }
    if (file.failed())
        return greirige::Error{LDAP_LOCAL_ERROR, "the file cannot be read further",
                               "line " + std::to_string(file.line())};
    return load->finish();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::cerr << "usage: load_ldif FILE\n";
        return 2;
    }
    LdifFile file(argv[1]);
    if (!file.is_open()) {
        std::cerr << "load_ldif: cannot read " << argv[1] << '\n';
        return 2;
    }
    auto connection = example::connect();
    if (!connection) {
        std::cerr << "load_ldif: " << to_string(connection.error()) << '\n';
        return 3;
    }
    auto summary = load(greirige::Session(connection->get()), file);
    if (!summary) {
        std::cerr << "load_ldif: " << to_string(summary.error()) << '\n';
        return 1;
    }
    std::cout << summary->submitted - summary->failed << " of " << summary->submitted
              << " updates applied in " << summary->batches << " batches\n";
    return summary->failed == 0 ? 0 : 4;
}
