#include "directory.h"

#include "traffic.h"

#include <limits>
#include <utility>

namespace sandbox {

namespace {

std::string strings(const std::vector<std::string> &values)
{
    std::string content;
    for (const std::string &value : values)
        content += ber::octets(value);
    return content;
}

std::string attribute(const std::string &name, const std::vector<std::string> &values)
{
    return ber::sequence(ber::octets(name), ber::set(strings(values)));
}

// RFC 4370: slapd carries the request out with the rights of this DN.
std::string behalf_control(const Behalf &behalf)
{
    if (!behalf.dn)
        return {};
    return ber::sequence(ber::octets(LDAP_CONTROL_PROXY_AUTHZ), ber::boolean(true),
                         ber::octets(behalf.dn->empty() ? "" : "dn:" + *behalf.dn));
}

Result unavailable()
{
    return {LDAP_UNAVAILABLE, "the directory behind the gateway is gone", {}};
}

} // namespace

namespace filter {

namespace {
std::string list(ber::Tag tag, const std::vector<std::string> &operands)
{
    std::string content;
    for (const std::string &operand : operands)
        content += operand;
    return ber::element(tag, content);
}
} // namespace

std::string present(std::string_view attribute)
{
    return ber::octets(attribute, LDAP_FILTER_PRESENT);
}

std::string equal(std::string_view attribute, std::string_view value)
{
    return ber::constructed(LDAP_FILTER_EQUALITY, ber::octets(attribute), ber::octets(value));
}

std::string matches(std::string_view rule, std::string_view attribute, std::string_view value)
{
    return ber::constructed(LDAP_FILTER_EXT, ber::octets(rule, LDAP_FILTER_EXT_OID),
                            ber::octets(attribute, LDAP_FILTER_EXT_TYPE),
                            ber::octets(value, LDAP_FILTER_EXT_VALUE));
}

std::string not_(std::string_view operand)
{
    return ber::element(LDAP_FILTER_NOT, operand);
}

std::string all(const std::vector<std::string> &operands)
{
    return list(LDAP_FILTER_AND, operands);
}

std::string any(const std::vector<std::string> &operands)
{
    return list(LDAP_FILTER_OR, operands);
}

std::string within(std::string_view dn)
{
    return matches("dnSubtreeMatch", "entryDN", dn);
}

std::string around(std::string_view dn)
{
    return matches("dnSuperiorMatch", "entryDN", dn);
}

} // namespace filter

std::string Entry::value(std::string_view name) const
{
    for (const Attribute &attribute : attributes)
        if (attribute.name == name && !attribute.values.empty())
            return attribute.values.front();
    return {};
}

Entry read_entry(ber::Reader operation)
{
    Entry entry;
    entry.dn = operation.text();
    ber::Reader attributes = operation.enter(ber::sequence_tag);
    while (!attributes.at_end()) {
        ber::Reader pair = attributes.enter(ber::sequence_tag);
        Attribute found{pair.text(), {}};
        ber::Reader values = pair.enter(ber::set_tag);
        while (!values.at_end())
            found.values.push_back(values.text());
        entry.attributes.push_back(std::move(found));
    }
    return entry;
}

std::vector<std::string> Entry::values(std::string_view name) const
{
    for (const Attribute &attribute : attributes)
        if (attribute.name == name)
            return attribute.values;
    return {};
}

std::string identity_of(std::string_view authorization_id)
{
    if (authorization_id.substr(0, 3) == "dn:")
        authorization_id.remove_prefix(3);
    return std::string(authorization_id);
}

Directory::Directory(asio::io_context &loop) : loop_(loop) {}

Directory::~Directory()
{
    close();
}

void Directory::connect(const std::string &socket_path, const std::string &dn,
                        const std::string &password, Done done, std::function<void()> lost)
{
    lost_ = std::move(lost);
    administrator_ = dn;
    Link::Socket socket(loop_);
    std::error_code error;
    socket.connect(asio::local::stream_protocol::endpoint(socket_path), error);
    if (error) {
        asio::post(loop_, [done = std::move(done), error] {
            done({LDAP_UNAVAILABLE, "cannot reach slapd: " + error.message(), {}});
        });
        return;
    }
    link_ = std::make_shared<Link>(std::move(socket));
    link_->start({[this] { received(); },
                  {},
                  [this](const std::string &) {
                      lose();
                  }});
    link_->receive();
    perform(as_administrator,
            ber::constructed(LDAP_REQ_BIND, ber::integer(LDAP_VERSION3), ber::octets(dn),
                             ber::octets(password, LDAP_AUTH_SIMPLE)),
            std::move(done));
}

void Directory::close()
{
    if (link_)
        link_->close();
    link_.reset();
}

void Directory::search(const Behalf &behalf, const Search &request, Found found, Done done)
{
    const std::string operation = ber::constructed(
        LDAP_REQ_SEARCH, ber::octets(request.base), ber::enumerated(request.scope),
        ber::enumerated(LDAP_DEREF_NEVER), ber::integer(0), ber::integer(0), ber::boolean(false),
        request.filter, ber::sequence(strings(request.attributes)));
    send(behalf, operation, {},
         [found = std::move(found), done = std::move(done)](const ber::Element &response) {
             ber::Reader reader(response.content);
             if (response.tag == LDAP_RES_SEARCH_ENTRY)
                 found(read_entry(reader));
             else if (!more_follow(response.tag))
                 done(read_result(reader));
         });
}

void Directory::read(const Behalf &behalf, const std::string &dn,
                     std::vector<std::string> attributes, Read done)
{
    auto entry = std::make_shared<Entry>();
    search(
        behalf, {dn, LDAP_SCOPE_BASE, filter::present("objectClass"), std::move(attributes)},
        [entry](Entry found) { *entry = std::move(found); },
        [entry, done = std::move(done)](const Result &result) { done(result, *entry); });
}

void Directory::count(const Behalf &behalf, const Search &request, Count done)
{
    auto entries = std::make_shared<std::size_t>(0);
    search(
        behalf, request, [entries](const Entry &) { ++*entries; },
        [entries, done = std::move(done)](const Result &result) { done(result, *entries); });
}

void Directory::add(const Behalf &behalf, const std::string &dn,
                    const std::vector<Attribute> &attributes, Done done)
{
    std::string list;
    for (const Attribute &each : attributes)
        list += attribute(each.name, each.values);
    perform(behalf, ber::constructed(LDAP_REQ_ADD, ber::octets(dn), ber::sequence(list)),
            std::move(done));
}

void Directory::modify(const Behalf &behalf, const std::string &dn,
                       const std::vector<Change> &changes, Done done)
{
    std::string list;
    for (const Change &each : changes)
        list +=
            ber::sequence(ber::enumerated(each.operation), attribute(each.attribute, each.values));
    perform(behalf, ber::constructed(LDAP_REQ_MODIFY, ber::octets(dn), ber::sequence(list)),
            std::move(done));
}

// A change that cannot be made: no entry here is a subentry. slapd looks at the rights first.
void Directory::may_change(const Behalf &behalf, const std::string &dn, Done done)
{
    const std::string change =
        ber::sequence(ber::enumerated(LDAP_MOD_DELETE), attribute("objectClass", {"subentry"}));
    Outstanding request;
    request.response = [done = std::move(done)](const ber::Element &response) {
        ber::Reader reader(response.content);
        Result result = read_result(reader);
        if (result.code == LDAP_NO_SUCH_ATTRIBUTE)
            result = {};
        else if (result.code == LDAP_PROXIED_AUTHORIZATION_DENIED)
            result.code = LDAP_INSUFFICIENT_ACCESS;
        done(result);
    };
    transmit(behalf, ber::constructed(LDAP_REQ_MODIFY, ber::octets(dn), ber::sequence(change)), {},
             std::move(request));
}

void Directory::remove(const Behalf &behalf, const std::string &dn, Done done)
{
    perform(behalf, ber::octets(dn, LDAP_REQ_DELETE), std::move(done));
}

void Directory::rename(const Behalf &behalf, const std::string &dn, const std::string &new_rdn,
                       bool delete_old_rdn, const std::optional<std::string> &new_superior,
                       Done done)
{
    perform(behalf,
            ber::constructed(
                LDAP_REQ_MODDN, ber::octets(dn), ber::octets(new_rdn), ber::boolean(delete_old_rdn),
                new_superior ? ber::octets(*new_superior, LDAP_TAG_NEWSUPERIOR) : std::string()),
            std::move(done));
}

void Directory::perform(const Behalf &behalf, std::string_view operation, Done done)
{
    send(behalf, operation, {}, [done = std::move(done)](const ber::Element &response) {
        ber::Reader reader(response.content);
        done(read_result(reader));
    });
}

void Directory::send(const Behalf &behalf, std::string_view operation, std::string_view controls,
                     Response response)
{
    Outstanding request;
    request.response = std::move(response);
    std::string images;
    if (traffic_ != nullptr && traffic_->is_watched()) {
        const ber::Element element = ber::Reader(operation).element();
        if (is_change(element.tag)) {
            images = image_controls(element, controls, traffic_->are_values_watched());
            request.behalf = behalf;
            request.begun = std::time(nullptr);
            request.operation = operation;
            request.controls = controls;
            request.has_images = !images.empty();
        }
    }
    transmit(behalf, operation, std::string(controls).append(images), std::move(request));
}

void Directory::transmit(const Behalf &behalf, std::string_view operation,
                         std::string_view controls, Outstanding request)
{
    if (!link_ || !link_->is_open()) {
        asio::post(loop_, [response = std::move(request.response)] {
            const std::string result = result_elements(unavailable());
            response({LDAP_RES_EXTENDED, result, result});
        });
        return;
    }
    do
        last_id_ = last_id_ == std::numeric_limits<std::int32_t>::max() ? 1 : last_id_ + 1;
    while (outstanding_.contains(last_id_));
    outstanding_.emplace(last_id_, std::move(request));
    link_->send(message(last_id_, operation, behalf_control(behalf).append(controls)));
}

void Directory::received()
{
    // The link outlives the loop even if a handler closes the connection.
    const std::shared_ptr<Link> link = link_;
    try {
        while (link->is_open()) {
            const auto head = read_head(link->input(), SIZE_MAX);
            if (!head || link->input().size() < head->size)
                break;
            const std::string bytes(link->input().substr(0, head->size));
            link->consume(head->size);
            dispatch(read_message(bytes));
        }
    } catch (const ber::Malformed &) {
        link->close();
        lose();
        return;
    }
    link->receive();
}

void Directory::dispatch(const Message &message)
{
    const auto waiting = outstanding_.find(message.id);
    if (waiting == outstanding_.end())
        return;
    if (more_follow(message.operation.tag)) {
        waiting->second.response(message.operation);
        return;
    }
    const Outstanding last = std::move(waiting->second);
    outstanding_.erase(waiting);
    if (!last.operation.empty())
        report(last, message);
    last.response(message.operation);
}

void Directory::report(const Outstanding &change, const Message &answer)
{
    ber::Reader response(answer.operation.content);
    Answered exchange;
    exchange.client = change.behalf.client;
    exchange.identity = change.behalf.dn.value_or(administrator_);
    exchange.id = change.behalf.request;
    exchange.begun = change.begun;
    exchange.operation = ber::Reader(change.operation).element();
    exchange.controls = change.controls;
    exchange.result = read_result(response);
    exchange.response = answer.operation.content;
    if (change.has_images)
        exchange.images = read_images(answer.controls);
    traffic_->answered(exchange);
}

void Directory::lose()
{
    const auto lost = std::exchange(outstanding_, {});
    const std::string result = result_elements(unavailable());
    for (const auto &[id, request] : lost)
        request.response({LDAP_RES_EXTENDED, result, result});
    if (lost_)
        lost_();
}

} // namespace sandbox
