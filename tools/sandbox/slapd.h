// The private slapd that holds the tree: its configuration, its first content, its process.
#pragma once

#include "ldif_check.h"
#include "process.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

struct SlapdSettings {
    std::string program; // as find_program() takes it
    std::string base;    // the naming context
    std::string admin_dn;
    std::string admin_password;
    std::vector<std::string> schema_files;         // beside the standard ones and our own
    std::vector<std::string> supported_extensions; // added to the root DSE
    std::size_t max_message = 0;
    std::size_t map_size = 0; // the most that the tree can grow to, in bytes
};

class Slapd {
public:
    // Writes the configuration into the directory. CannotStart when there is no slapd, or when it
    // refuses the configuration.
    Slapd(SlapdSettings settings, const TemporaryDirectory &directory, const Signals &signals);

    // Fills the empty tree. CannotStart with file, line and reason when slapd refuses an entry.
    void load(const LdifFile &ldif);
    // Returns when slapd takes connections.
    void start();
    bool has_ended();
    // What it last wrote, for the message when it has ended by itself.
    std::string last_words() const;

    const std::string &program() const
    {
        return program_;
    }
    std::string configuration() const
    {
        return directory_ / "slapd.conf";
    }
    std::string socket() const
    {
        return directory_ / "ldapi";
    }

private:
    void configure() const;
    void check() const;
    std::string administrators() const; // as access rules name them, with their rights
    std::string access_rules() const;
    std::filesystem::path log() const
    {
        return directory_ / "slapd.log";
    }

    SlapdSettings settings_;
    std::filesystem::path directory_;
    const Signals &signals_;
    std::string program_;
    std::optional<Child> process_;
};

} // namespace sandbox
