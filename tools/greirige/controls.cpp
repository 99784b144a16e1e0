#include "controls.h"

#include <algorithm>
#include <array>
#include <functional>
#include <initializer_list>
#include <optional>

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>
#include <unistd.h>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

// "!authzid=dn:cn=admin" taken apart.
struct Extension {
    std::string name;
    std::optional<std::string> parameter;
    bool critical = false;
};

Extension parse(const std::string &argument)
{
    Extension extension;
    std::string text = argument;
    extension.critical = text.starts_with('!');
    if (extension.critical)
        text.erase(0, 1);
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos)
        extension.parameter = text.substr(equals + 1);
    extension.name = text.substr(0, equals);
    return extension;
}

[[noreturn]] void refuse(const Extension &extension, const std::string &why)
{
    throw UsageError("-e " + extension.name + ": " + why);
}

Control make(const Extension &extension, const char *oid, const std::string *value)
{
    berval bytes{.bv_len = value != nullptr ? value->size() : 0,
                 .bv_val = value != nullptr ? const_cast<char *>(value->data()) : nullptr};
    LDAPControl *control = nullptr;
    if (ldap_control_create(oid, extension.critical ? 1 : 0, value != nullptr ? &bytes : nullptr, 1,
                            &control) != LDAP_SUCCESS)
        refuse(extension, "out of memory");
    return Control(control);
}

Control without_value(const Extension &extension, const char *oid)
{
    if (extension.parameter)
        refuse(extension, "takes no parameter");
    return make(extension, oid, nullptr);
}

// A BER value built with ber_printf by the caller.
Control with_ber(const Extension &extension, const char *oid,
                 const std::function<int(BerElement *)> &write)
{
    BerElement *ber = ber_alloc_t(LBER_USE_DER);
    berval *bytes = nullptr;
    const bool written = ber != nullptr && write(ber) != -1 && ber_flatten(ber, &bytes) != -1;
    const std::string value = written ? std::string(bytes->bv_val, bytes->bv_len) : std::string();
    ber_bvfree(bytes);
    ber_free(ber, 1);
    if (!written)
        refuse(extension, "out of memory");
    return make(extension, oid, &value);
}

Control assertion(const Extension &extension, LDAP *ld)
{
    if (!extension.parameter)
        refuse(extension, "needs a filter: assert=FILTER");
    std::string filter = *extension.parameter;
    LDAPControl *control = nullptr;
    if (ldap_create_assertion_control(ld, filter.data(), extension.critical ? 1 : 0, &control) !=
        LDAP_SUCCESS)
        refuse(extension, in_quotes(filter) + " is not a search filter (RFC 4515)");
    return Control(control);
}

Control proxied_authorization(const Extension &extension)
{
    if (!extension.parameter)
        refuse(extension, "needs an identity: !authzid=dn:DN or !authzid=u:USER");
    if (!extension.critical)
        refuse(extension, "must be critical: !authzid=...");
    return make(extension, LDAP_CONTROL_PROXY_AUTHZ, &*extension.parameter);
}

int chaining_behaviour(const Extension &extension, const std::string &name)
{
    constexpr std::array names{"chainingPreferred", "chainingRequired", "referralsPreferred",
                               "referralsRequired"};
    const auto *const found = std::find_if(names.begin(), names.end(), [&](const char *known) {
        return strcasecmp(known, name.c_str()) == 0;
    });
    if (found == names.end())
        refuse(extension, in_quotes(name) + " is not one of chainingPreferred, chainingRequired, "
                                            "referralsPreferred, referralsRequired");
    return static_cast<int>(found - names.begin());
}

Control chaining(const Extension &extension)
{
    if (!extension.parameter)
        return make(extension, LDAP_CONTROL_X_CHAINING_BEHAVIOR, nullptr);
    const std::size_t slash = extension.parameter->find('/');
    const int resolve = chaining_behaviour(extension, extension.parameter->substr(0, slash));
    std::optional<int> go_on;
    if (slash != std::string::npos)
        go_on = chaining_behaviour(extension, extension.parameter->substr(slash + 1));
    return with_ber(extension, LDAP_CONTROL_X_CHAINING_BEHAVIOR, [&](BerElement *ber) {
        return go_on ? ber_printf(ber, "{ee}", resolve, *go_on) : ber_printf(ber, "{e}", resolve);
    });
}

Control read_entry(const Extension &extension, const char *oid)
{
    std::vector<std::string> names;
    std::string rest = extension.parameter.value_or("");
    while (!rest.empty()) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        names.push_back(rest.substr(0, comma));
        rest.erase(0, comma + 1);
    }
    std::vector<char *> attributes;
    attributes.reserve(names.size() + 1);
    for (std::string &name : names)
        attributes.push_back(name.data());
    attributes.push_back(nullptr);
    return with_ber(extension, oid,
                    [&](BerElement *ber) { return ber_printf(ber, "{v}", attributes.data()); });
}

std::string address_of_this_host(const std::string &name)
{
    addrinfo *found = nullptr;
    char text[NI_MAXHOST] = "";
    if (getaddrinfo(name.c_str(), nullptr, nullptr, &found) == 0 && found != nullptr)
        getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                    NI_NUMERICHOST);
    if (found != nullptr)
        freeaddrinfo(found);
    return text;
}

// Who works at this session, for the server's log.
Control session_tracking(const Extension &extension, const ConnectionOptions &options, LDAP *ld)
{
    std::string user = extension.parameter.value_or(!options.authentication_id.empty()
                                                        ? options.authentication_id
                                                        : options.bind_dn.value_or(""));
    char host[NI_MAXHOST] = "";
    gethostname(host, sizeof host - 1);
    std::string address = address_of_this_host(host);
    std::string format = LDAP_CONTROL_X_SESSION_TRACKING_USERNAME;
    berval identifier{.bv_len = user.size(), .bv_val = user.data()};
    LDAPControl *control = nullptr;
    if (ldap_create_session_tracking_control(ld, address.data(), host, format.data(), &identifier,
                                             &control) != LDAP_SUCCESS)
        refuse(extension, "out of memory");
    control->ldctl_iscritical = extension.critical ? 1 : 0;
    return Control(control);
}

// OID, OID=:VALUE or OID=::BASE64.
Control any_control(const Extension &extension)
{
    const std::string &oid = extension.name;
    if (oid.empty() || oid.find_first_not_of("0123456789.") != std::string::npos)
        refuse(extension, "no such extension (greirige(1) lists them)");
    if (!extension.parameter)
        return make(extension, oid.c_str(), nullptr);
    const std::string &parameter = *extension.parameter;
    if (parameter.starts_with("::")) {
        const auto value = decode_base64(std::string_view(parameter).substr(2));
        if (!value)
            refuse(extension, in_quotes(parameter.substr(2)) + " is not base64");
        return make(extension, oid.c_str(), &*value);
    }
    if (!parameter.starts_with(':'))
        refuse(extension, "a value follows =: and a base64 value =::");
    const std::string value = parameter.substr(1);
    return make(extension, oid.c_str(), &value);
}

} // namespace

Controls::Controls(const ConnectionOptions &options, LDAP *ld)
{
    for (const std::string &extension : options.extensions)
        add(extension, options, ld);
    for (auto *list : {&bind_, &operations_})
        if (!list->empty())
            list->push_back(nullptr);
}

void Controls::add(const std::string &argument, const ConnectionOptions &options, LDAP *ld)
{
    const Extension extension = parse(argument);
    const auto is = [&](const char *name) {
        return strcasecmp(extension.name.c_str(), name) == 0;
    };
    using List = std::vector<LDAPControl *>;
    const auto with = [&](Control control, std::initializer_list<List *> lists) {
        const auto same = [&](const Control &other) {
            return std::string_view(other->ldctl_oid) == control->ldctl_oid;
        };
        if (std::any_of(all_.begin(), all_.end(), same))
            refuse(extension, "is given twice");
        for (List *list : lists)
            list->push_back(control.get());
        all_.push_back(std::move(control));
    };

    if (is("assert"))
        with(assertion(extension, ld), {&operations_});
    else if (is("authzid"))
        with(proxied_authorization(extension), {&operations_});
    else if (is("bauthzid"))
        with(without_value(extension, LDAP_CONTROL_AUTHZID_REQUEST), {&bind_});
    else if (is("chaining"))
        with(chaining(extension), {&operations_});
    else if (is("manageDSAit"))
        with(without_value(extension, LDAP_CONTROL_MANAGEDSAIT), {&operations_});
    else if (is("noop"))
        with(without_value(extension, LDAP_CONTROL_NOOP), {&operations_});
    else if (is("ppolicy"))
        with(without_value(extension, LDAP_CONTROL_PASSWORDPOLICYREQUEST), {&bind_});
    else if (is("preread"))
        with(read_entry(extension, LDAP_CONTROL_PRE_READ), {&operations_});
    else if (is("postread"))
        with(read_entry(extension, LDAP_CONTROL_POST_READ), {&operations_});
    else if (is("relax"))
        with(without_value(extension, LDAP_CONTROL_RELAX), {&operations_});
    else if (is("sessiontracking"))
        with(session_tracking(extension, options, ld), {&bind_, &operations_});
    else if (is("abandon") || is("cancel") || is("ignore"))
        refuse(extension, "Ctrl-C ends the session here, and with it what the session waits for");
    else
        with(any_control(extension), {&operations_});
}

LDAPControl **Controls::for_bind()
{
    return bind_.empty() ? nullptr : bind_.data();
}

LDAPControl **Controls::for_operations()
{
    return operations_.empty() ? nullptr : operations_.data();
}

} // namespace tool
