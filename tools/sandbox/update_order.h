// Which updates may be under way at the same time. slapd carries out the requests of one
// connection side by side, in an order of its own, so an update is sent only when no earlier one
// that it could depend on is still under way: then the outcome is that of one after the other.
//
// Two updates depend on each other when a name of the one is a name of the other or lies below
// it. Names are compared so that those that slapd takes for equal always are equal here, and
// perhaps others too; an update whose names cannot be compared that way goes alone.
#pragma once

#include "ber.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sandbox {

// The names that an update is about, each from the top of the tree down, so that a name is the
// beginning of every name below it. Nothing: the update must go alone.
using Footprint = std::optional<std::vector<std::string>>;

// The name in that form; nothing when it cannot be compared.
std::optional<std::string> comparable_dn(const std::string &dn);
// Of the content of an add, delete, modify or modify-DN request.
Footprint footprint(const ber::Element &request);

class UnderWay {
public:
    // Below this entry lie the groups that grant rights: changes there go alone.
    explicit UnderWay(const std::string &groups) : groups_(comparable_dn(groups)) {}

    bool admits(const Footprint &update) const;
    void begin(const Footprint &update);
    void end(const Footprint &update);
    std::size_t count() const
    {
        return count_;
    }

private:
    bool goes_alone(const Footprint &update) const;
    bool depends(const std::string &name) const;

    std::optional<std::string> groups_;
    std::multiset<std::string> names_;
    std::size_t count_ = 0;
    bool alone_ = false;
};

} // namespace sandbox
