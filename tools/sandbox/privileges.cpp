#include "privileges.h"

#include "dn.h"
#include "ldapx.h"

#include <algorithm>
#include <sstream>
#include <strings.h>
#include <sys/wait.h>
#include <utility>

namespace sandbox {

namespace {

// As much as surely fits in a command line.
constexpr std::size_t most_attributes = 1000;
constexpr std::size_t longest_attribute = 100;

// The characters of an attribute description (RFC 4512, section 2.5). Nothing else becomes an
// argument of a program.
bool is_attribute(const std::string &name)
{
    const auto is_alphanumeric = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    return !name.empty() && name.size() <= longest_attribute && is_alphanumeric(name.front()) &&
           std::all_of(name.begin(), name.end(), [&](char c) {
               return is_alphanumeric(c) || c == '-' || c == '.' || c == ';';
           });
}

bool is_same_name(const std::string &left, const std::string &right)
{
    const auto one = normalised_dn(left);
    const auto other = normalised_dn(right);
    return one && other && strcasecmp(one->c_str(), other->c_str()) == 0;
}

} // namespace

std::optional<int> privileges_of(std::string_view line)
{
    const std::size_t begin = line.rfind("(=");
    if (begin == std::string_view::npos || line.back() != ')' ||
        line.find(": ") == std::string_view::npos)
        return {};
    int bits = 0;
    for (const char letter : line.substr(begin + 2, line.size() - begin - 3)) {
        switch (letter) {
        case 'd':
            bits |= 0x01;
            break;
        case 'x':
            bits |= 0x02;
            break;
        case 'c':
            bits |= 0x04;
            break;
        case 's':
            bits |= 0x08;
            break;
        case 'r':
            bits |= 0x10;
            break;
        case 'a':
            bits |= 0x20;
            break;
        case 'z':
            bits |= 0x40;
            break;
        case 'w':
            bits |= 0x60;
            break;
        case 'm':
            bits |= 0x80;
            break;
        case '0':
            break;
        default:
            return {};
        }
    }
    return bits;
}

Privileges::Privileges(Directory &directory, Programs &programs)
    : directory_(directory), programs_(programs)
{
}

void Privileges::offer(Operations &operations)
{
    operations.add({LDAPX_GET_EFFECTIVE_PRIVILEGES_REQUEST, LDAPX_GET_EFFECTIVE_PRIVILEGES_RESPONSE,
                    "effective privileges", [this](std::shared_ptr<Call> call) {
                        one(std::move(call));
                    }});
    operations.add({LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
                    LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE, "effective privileges list",
                    [this](std::shared_ptr<Call> call) {
                        list(std::move(call));
                    }});
}

// OCTET STRING target, OCTET STRING subject, OCTET STRING attribute; the answer is one INTEGER.
void Privileges::one(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    Question question;
    question.target = value.text();
    question.subject = value.text();
    question.attributes = {value.text()};
    value.finish();
    check(call, question, [call](const std::vector<int> &privileges) {
        call->answer({}, ber::integer(privileges.front()));
    });
}

// OCTET STRING subject, OCTET STRING target, SEQUENCE OF OCTET STRING attribute; the answer is
// SEQUENCE { SEQUENCE { INTEGER count }, SET OF SEQUENCE { INTEGER privileges } }, in the order of
// the question.
void Privileges::list(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    Question question;
    question.subject = value.text();
    question.target = value.text();
    ber::Reader attributes = value.enter(ber::sequence_tag);
    value.finish();
    while (!attributes.at_end())
        question.attributes.push_back(attributes.text());
    check(call, question, [call](const std::vector<int> &privileges) {
        std::string content;
        for (const int each : privileges)
            content += ber::sequence(ber::integer(each));
        call->answer(
            {},
            ber::sequence(ber::sequence(ber::integer(static_cast<std::int64_t>(privileges.size()))),
                          ber::set(content)));
    });
}

void Privileges::check(std::shared_ptr<Call> call, const Question &question, Use use)
{
    if (question.attributes.size() > most_attributes)
        return call->answer({LDAP_ADMINLIMIT_EXCEEDED,
                             "no more than " + std::to_string(most_attributes) + " attributes",
                             {}});
    for (const std::string &name : question.attributes)
        if (!is_attribute(name))
            return call->answer({LDAP_UNDEFINED_TYPE, "\"" + name + "\" is no attribute name", {}});
    directory_.read(
        call->behalf(), question.target, {"entryUUID"},
        [this, call, question, use = std::move(use)](const Result &result, const Entry &entry) {
            if (!result.ok())
                return call->answer(explained(result, *call, question.target));
            if (entry.value("entryUUID").empty())
                return call->answer({LDAP_UNWILLING_TO_PERFORM,
                                     "\"" + question.target + "\" is no entry of the tree",
                                     {}});
            Question exact = question;
            exact.target = entry.dn;
            check_subject(call, exact, use);
        });
}

void Privileges::check_subject(std::shared_ptr<Call> call, const Question &question, Use use)
{
    if (question.subject.empty() || is_same_name(question.subject, settings_.administrator))
        return ask(call, question, std::move(use));
    directory_.read(
        call->behalf(), question.subject, {LDAP_NO_ATTRS},
        [this, call, question, use = std::move(use)](const Result &result, const Entry &) {
            if (result.code == LDAP_NO_SUCH_OBJECT)
                return call->answer(
                    {result.code, "there is no subject " + question.subject, result.matched_dn});
            if (!result.ok())
                return call->answer(explained(result, *call, question.subject));
            ask(call, question, use);
        });
}

void Privileges::ask(std::shared_ptr<Call> call, const Question &question, Use use)
{
    if (question.attributes.empty())
        return use({});
    std::vector<std::string> command = settings_.tool;
    if (!question.subject.empty())
        command.insert(command.end(), {"-D", question.subject});
    command.insert(command.end(), {"-b", question.target, "--"});
    command.insert(command.end(), question.attributes.begin(), question.attributes.end());
    const bool taken = programs_.run(
        std::move(command), [call, question, use = std::move(use)](const Programs::Outcome &ended) {
            std::vector<int> privileges;
            std::istringstream lines(ended.output);
            for (std::string line; std::getline(lines, line);)
                if (const auto bits = privileges_of(line))
                    privileges.push_back(*bits);
            if (ended.timed_out)
                return call->answer(
                    {LDAP_TIMELIMIT_EXCEEDED, "slapd takes too long to tell privileges", {}});
            if (ended.status == 0 && privileges.size() == question.attributes.size())
                return use(privileges);
            // It answers one attribute after the other, and stops at the first that is none.
            const bool undefined = WIFEXITED(ended.status) &&
                                   WEXITSTATUS(ended.status) == LDAP_UNDEFINED_TYPE &&
                                   privileges.size() < question.attributes.size();
            if (undefined)
                return call->answer({LDAP_UNDEFINED_TYPE,
                                     "there is no attribute type \"" +
                                         question.attributes[privileges.size()] + "\"",
                                     {}});
            call->answer({LDAP_OTHER, "slapd does not tell privileges: " + ended.output, {}});
        });
    if (!taken)
        call->answer({LDAP_BUSY, "too many such requests are waiting", {}});
}

} // namespace sandbox
