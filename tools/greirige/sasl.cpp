#include "sasl.h"

#include <sasl/sasl.h>

#include "error.h"
#include "terminal.h"

namespace tool {

namespace {

std::string given_or_default(const std::string &given, LDAP *ld, int option)
{
    if (!given.empty())
        return given;
    char *value = nullptr;
    if (ldap_get_option(ld, option, &value) != LDAP_OPT_SUCCESS || value == nullptr)
        return {};
    std::string text = value;
    ldap_memfree(value);
    return text;
}

} // namespace

SaslAnswers::SaslAnswers(const ConnectionOptions &options, const Secret &password, LDAP *ld)
    : mechanism_(given_or_default(options.mechanism, ld, LDAP_OPT_X_SASL_MECH)),
      realm_(given_or_default(options.realm, ld, LDAP_OPT_X_SASL_REALM)),
      authentication_id_(given_or_default(options.authentication_id, ld, LDAP_OPT_X_SASL_AUTHCID)),
      authorization_id_(given_or_default(options.authorization_id, ld, LDAP_OPT_X_SASL_AUTHZID)),
      password_(password), flags_(options.sasl_quiet         ? LDAP_SASL_QUIET
                                  : options.sasl_interactive ? LDAP_SASL_INTERACTIVE
                                                             : LDAP_SASL_AUTOMATIC)
{
}

const char *SaslAnswers::mechanism() const
{
    return mechanism_.empty() ? nullptr : mechanism_.c_str();
}

unsigned SaslAnswers::flags() const
{
    return flags_;
}

int SaslAnswers::interact(LDAP *, unsigned flags, void *answers, void *questions)
{
    // Called from C, which an exception must not cross; rethrow() lets it go on behind it.
    auto &self = *static_cast<SaslAnswers *>(answers);
    try {
        auto *question = static_cast<sasl_interact_t *>(questions);
        for (; question->id != SASL_CB_LIST_END; ++question) {
            const int code = self.answer(flags, *question);
            if (code != LDAP_SUCCESS)
                return code;
        }
        return LDAP_SUCCESS;
    } catch (...) {
        self.thrown_ = std::current_exception();
        return LDAP_USER_CANCELLED;
    }
}

void SaslAnswers::rethrow() const
{
    if (thrown_)
        std::rethrow_exception(thrown_);
}

void SaslAnswers::keep_in(ConnectionOptions &options)
{
    for (auto &[question, answer] : typed_) {
        if (answer.empty()) // what was known already
            continue;
        switch (question) {
        case SASL_CB_GETREALM:
            options.realm = answer.text();
            break;
        case SASL_CB_AUTHNAME:
            options.authentication_id = answer.text();
            break;
        case SASL_CB_USER:
            options.authorization_id = answer.text();
            break;
        case SASL_CB_PASS:
            options.password = std::move(answer);
            break;
        default: // an answer to a challenge is good for once
            break;
        }
    }
    typed_.clear();
    options.sasl_interactive = false;
    options.sasl_quiet = true;
}

int SaslAnswers::answer(unsigned flags, struct sasl_interact &question)
{
    const char *known = question.defresult;
    bool hidden = false;
    switch (question.id) {
    case SASL_CB_GETREALM:
        known = realm_.empty() ? known : realm_.c_str();
        break;
    case SASL_CB_AUTHNAME:
        known = authentication_id_.empty() ? known : authentication_id_.c_str();
        break;
    case SASL_CB_USER:
        known = authorization_id_.empty() ? known : authorization_id_.c_str();
        break;
    case SASL_CB_PASS:
        known = password_.empty() ? known : password_.text();
        hidden = true;
        break;
    default:
        break;
    }
    const auto use = [&](const char *text) {
        question.result = text;
        question.len = static_cast<unsigned>(std::char_traits<char>::length(text));
        return LDAP_SUCCESS;
    };
    if (known == nullptr)
        known = "";
    // No authorization identity is an answer too: that of the authentication.
    const bool has_answer = *known != '\0' || question.id == SASL_CB_USER;
    if (has_answer && flags != LDAP_SASL_INTERACTIVE)
        return use(known);
    if (flags == LDAP_SASL_QUIET)
        return LDAP_OTHER;

    std::string prompt = question.prompt != nullptr ? question.prompt : "Interact";
    if (question.challenge != nullptr)
        prompt = std::string(question.challenge) + '\n' + prompt;
    if (*known != '\0' && !hidden)
        prompt += std::string(" [") + known + ']';
    prompt += ": ";
    hidden = hidden || question.id == SASL_CB_NOECHOPROMPT;
    typed_.push_back({question.id, hidden ? read_password(prompt) : read_answer(prompt)});
    const Secret &typed = typed_.back().answer;
    return use(typed.empty() ? known : typed.text());
}

} // namespace tool
