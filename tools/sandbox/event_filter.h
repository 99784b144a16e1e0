// The filters of monitors: LDAP search filters in their text form (RFC 4515), matched against an
// event instead of an entry.
//
// An event's attributes are the fields of its record, under the names that they have in
// ldap_events.h, and: type (its number and its name), result, perpetratorDN (who), entryDN (about
// which entry), inetAddr (from where). An attribute may have several values; one that matches is
// enough. Attribute names and text are compared without regard to case, names of entries as
// names, numbers as numbers. The matching rules dnSubtreeMatch, dnOneLevelMatch, dnSubordinateMatch
// and dnSuperiorMatch work on names: (entryDN:dnSubtreeMatch:=ou=people,dc=example,dc=com).
#pragma once

#include "event_encoding.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sandbox {

class EventFilter {
public:
    struct Malformed : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    // Malformed, with the reason, for a text that is no filter, that names an attribute which no
    // event has, or a value that its attribute cannot have. The empty text matches every event.
    explicit EventFilter(std::string_view text);

    bool matches(const Event &event) const;

    struct Node;

private:
    std::shared_ptr<const Node> root_;
};

} // namespace sandbox
