// Names in other forms, resolved to entries that exist.
//
// Both forms write a name from the entry up to the top, with dots between the parts:
//
//   native name  jsmith.People.example, OU=People.DC=example: UTF-16, high byte first, with a zero
//                unit at the end. A part has a type or none; "\" takes a special character (".",
//                "=", "+", "\") as it is; TYPE=VALUE+TYPE=VALUE is a part with several values.
//   DNS name     people.example.com: labels of 63 bytes at most, and perhaps a dot at the end. No
//                part has a type.
//
// A name ends with the values of the base's RDNs, all of them (example.com below
// dc=example,dc=com) or the first alone (example). From there each part leads one entry down: to
// the one that its type and value name, or, without a type, to the one that is called so by
// any of dc, o, ou, cn, uid, l, st, c. slapd compares the values, so case does not matter where it
// does not matter to the schema, and the client's rights decide what is there.
//
// Result codes, beside those that slapd gives:
//   protocolError       the request value is not what the operation asks for; for a native name
//                       also: not UTF-16, or the zero unit is missing
//   invalidDNSyntax     an empty name, an empty part, a label that is too long
//   noSuchObject        no entry has the name; the matched DN is as far as it led
//   unwillingToPerform  several entries have the name, or it is too long to be looked up
#pragma once

#include "operations.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox {

// A part of a name: type and value, the type empty when it has none.
using NamePart = std::vector<std::pair<std::string, std::string>>;

// UTF-8 for UTF-16 with the high byte first, up to the zero unit that must be its last; throws
// ber::Malformed.
std::string utf8_of(std::string_view units);
// From the entry to the top; nothing when the text is no such name.
std::optional<std::vector<NamePart>> parse_native_name(const std::string &text);
std::optional<std::vector<NamePart>> parse_dns_name(std::string name);

class Names {
public:
    Names(Directory &directory, const std::string &base);

    void offer(Operations &operations);

private:
    struct Search;

    void resolve(const std::shared_ptr<Call> &call, const std::string &name,
                 const std::optional<std::vector<NamePart>> &parts);
    void descend(const std::shared_ptr<Search> &search);
    void probe(const std::shared_ptr<Search> &search);
    void answer(const Search &search) const;

    Directory &directory_;
    std::string base_;
    std::vector<std::pair<std::string, std::string>> base_rdns_;
};

} // namespace sandbox
