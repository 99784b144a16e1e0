// What slapd's schema says about attributes and classes, where entries alone do not tell.
#pragma once

#include "directory.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

class Subschema {
public:
    // Reads it once; until then, and about what it does not know, nothing is said.
    void read(Directory &directory, Directory::Done done);

    // The OID of an attribute's syntax, by the attribute's name or OID, with or without options.
    std::string syntax_of(std::string_view attribute) const;
    // The structural class among an entry's classes, the one below all others.
    std::string structural_class(const std::vector<std::string> &classes) const;

private:
    struct ObjectClass {
        std::string name;
        std::vector<std::string> superiors;
        bool structural = false;
    };

    void learn(const Entry &subschema);
    bool is_below(const std::string &name, const std::string &other, int depth = 0) const;

    std::map<std::string, std::string> syntaxes_; // by lower-case name or OID
    std::map<std::string, ObjectClass> classes_;
};

} // namespace sandbox
