// Effective privileges: what slapd grants a subject on an entry's attributes.
//
// slapd itself is asked, with its own tool for that (slapd -T acl, known as slapacl), about the
// tree and the access rules as they are now. What it grants comes as one bit for each of the
// privileges that slapd.access(5) knows:
//
//   0x01  disclose  learn that it exists, from an error
//   0x02  auth      be used in binding
//   0x04  compare
//   0x08  search    be used in a filter
//   0x10  read
//   0x20  add       values; for "children", entries below
//   0x40  delete    values; for "children", entries below
//   0x80  manage    beside all that, what nobody else may change
//
// so "read" in slapd's rules is 0x1f, "write" is 0x7f, and the administrator has 0xff. Two names
// mean rights to the entry and not to an attribute, as in slapd's rules: "entry" the entry itself
// (0x20 and 0x40: it may be added, deleted), "children" the entries right below it.
//
// The subject is a DN; an empty one is the anonymous client. Everybody may ask about entries that
// he may see.
//
// Result codes, beside those that slapd gives:
//   protocolError          the request value is not what the operation asks for
//   noSuchObject           the entry or the subject is not there, or the client may not see it
//   unwillingToPerform     the entry is none of the tree, such as the root DSE
//   undefinedAttributeType an attribute is not in the schema, or no attribute name at all
//   adminLimitExceeded     more attributes than fit in one question
//   busy                   too many such requests are waiting
//   timeLimitExceeded      slapd's tool did not answer in five seconds
//   other                  its answer could not be understood
#pragma once

#include "operations.h"
#include "programs.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

// The bits of slapd's answer about one attribute, such as "cn: read(=rscxd)"; nothing when the
// line is no such answer.
std::optional<int> privileges_of(std::string_view line);

class Privileges {
public:
    struct Settings {
        std::vector<std::string> tool; // the command, with the configuration
        std::string administrator;     // who needs no entry
    };

    Privileges(Directory &directory, Programs &programs);

    void offer(Operations &operations);
    // Before the first request.
    void use(Settings settings)
    {
        settings_ = std::move(settings);
    }

private:
    struct Question {
        std::string subject;
        std::string target;
        std::vector<std::string> attributes;
    };
    using Use = std::function<void(const std::vector<int> &)>;

    void one(std::shared_ptr<Call> call);
    void list(std::shared_ptr<Call> call);

    void check(std::shared_ptr<Call> call, const Question &question, Use use);
    void check_subject(std::shared_ptr<Call> call, const Question &question, Use use);
    void ask(std::shared_ptr<Call> call, const Question &question, Use use);

    Directory &directory_;
    Programs &programs_;
    Settings settings_;
};

} // namespace sandbox
