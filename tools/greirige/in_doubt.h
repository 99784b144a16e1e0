// Updates of which it is not known whether the server has carried them out, and what can be learned
// about that from the directory as it is.
//
// That works because a load with a journal never has two updates under way that touch the same
// entry (NamesUnderWay): the entry is then either as it was or as the one update leaves it. Where
// it is as the update would leave it, the update counts as carried out; carrying it out again could
// only fail or change nothing. An increment is the exception: the values are noted before it is
// sent, and it goes alone.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <ldap.h>

#include "greirige/bulk.hpp"

#include "output.h"

namespace tool {

// The directory cannot be asked any more, nor told: the connection is lost, or the server speaks in
// tongues. What follows throws it.
struct Lost {
    greirige::Error error;
};

// The directory is as the update leaves it. False also where that cannot be seen; sending it then
// changes nothing that it has changed already, or fails with one of the codes below.
bool has_been_done(LDAP *ld, const greirige::Update &update);
// What an update gets that had been carried out already.
bool may_have_been_done(int code);

bool is_increment(const greirige::Update &update);
// The values that an increment is going to change, for the journal; null when they cannot be read.
Json values_before(LDAP *ld, const greirige::Update &update);
// Whether they have changed since; nothing when that cannot be told.
std::optional<bool> has_been_incremented(LDAP *ld, const greirige::Update &update,
                                         const Json &before);

// The names of updates that are under way.
class NamesUnderWay {
public:
    // An update touches the same entry as one of these, or one of the two moves or removes what the
    // other is about.
    bool conflicts(const greirige::Update &update) const;
    // What add() returns is given to remove() when the update has its outcome.
    using Names = std::vector<std::string>;
    Names add(const greirige::Update &update);
    void remove(const Names &names);

private:
    std::multiset<std::string> names_;
    std::multiset<std::string> subtrees_; // of these, those of renames and removals
};

} // namespace tool
