// Distinguished names (RFC 4514), with libldap's parser. What two names have in common slapd
// decides; these serve where slapd is not asked.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

// The name in libldap's own spelling (no spaces, one way of escaping); nothing when it is none.
std::optional<std::string> normalised_dn(const std::string &dn);

// The type and value of the first RDN; of several, the first.
std::pair<std::string, std::string> first_rdn(const std::string &dn);
// The same of every RDN, from the entry to the top.
std::vector<std::pair<std::string, std::string>> rdns_of(const std::string &dn);

// The attribute types of the first RDN.
std::vector<std::string> naming_attributes(const std::string &dn);

// A name's first RDN and the name of the entry above.
std::string rdn_of(const std::string &dn);
std::string parent_of(const std::string &dn);

} // namespace sandbox
