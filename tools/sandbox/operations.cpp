#include "operations.h"

#include "connection.h"

#include <utility>

namespace sandbox {

Call::Call(std::weak_ptr<Connection> connection, std::shared_ptr<const Client> client,
           std::int32_t id, const Operation &operation, std::optional<std::string> value,
           std::string identity)
    : connection_(std::move(connection)), client_(std::move(client)), id_(id),
      operation_(operation), value_(std::move(value)), identity_(std::move(identity))
{
}

ber::Reader Call::value() const
{
    if (!value_)
        throw ber::Malformed("the request value is missing");
    return ber::Reader(*value_);
}

void Call::expect_no_value() const
{
    if (value_)
        throw ber::Malformed("a request value where none is expected");
}

void Call::answer(const Result &result, const std::optional<std::string> &value)
{
    stop_ = {};
    room_ = {};
    if (const auto connection = connection_.lock())
        connection->answer(*this, result, value);
}

void Call::notify(std::string_view name, std::string_view value)
{
    if (const auto connection = connection_.lock())
        connection->notify(*this, name, value);
}

bool Call::has_room() const
{
    const auto connection = connection_.lock();
    return connection && connection->has_room();
}

void Call::room()
{
    if (const auto room = room_) // which may answer, and be gone
        room();
}

void Call::stop()
{
    connection_.reset();
    room_ = {};
    if (const auto stop = std::exchange(stop_, {}))
        stop();
}

std::shared_ptr<void> Call::kept(const void *family) const
{
    const auto connection = connection_.lock();
    return connection ? connection->kept(family) : nullptr;
}

void Call::keep(const void *family, std::shared_ptr<void> state) const
{
    if (const auto connection = connection_.lock())
        connection->keep(family, std::move(state));
}

bool refuse_anonymous(Call &call)
{
    if (!call.identity().empty())
        return false;
    call.answer({LDAP_INSUFFICIENT_ACCESS,
                 call.operation().title + " is not for anonymous clients: bind first",
                 {}});
    return true;
}

Result explained(Result result, const Call &call, const std::string &dn)
{
    if (result.code == LDAP_INSUFFICIENT_ACCESS ||
        result.code == LDAP_PROXIED_AUTHORIZATION_DENIED) {
        result.code = LDAP_INSUFFICIENT_ACCESS;
        result.diagnostic =
            call.operation().title + ": " + call.identity() + " has no right to do this to " + dn;
    }
    return result;
}

void Operations::add(Operation operation)
{
    const std::string name = operation.request_name;
    table_.emplace(name, std::move(operation));
}

const Operation *Operations::find(const std::string &request_name) const
{
    const auto found = table_.find(request_name);
    return found == table_.end() ? nullptr : &found->second;
}

std::vector<std::string> Operations::names() const
{
    std::vector<std::string> names;
    for (const auto &[name, operation] : table_)
        names.push_back(name);
    return names;
}

bool Operations::is_ours(std::string_view request_name)
{
    constexpr std::string_view arc = "2.16.840.1.424242.";
    return request_name.substr(0, arc.size()) == arc;
}

} // namespace sandbox
