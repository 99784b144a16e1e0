// The extended operations that the gateway answers itself: a table of names and handlers. A
// family of operations enters its handlers in the table and keeps its own state; nothing else
// knows which operations there are.
#pragma once

#include "directory.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

class Connection;
struct Operation;

// One request of a client, from its arrival to its answer. A handler answers it once, now or
// later; when the client has left or abandoned it meanwhile, the answer goes nowhere.
class Call {
public:
    Call(std::weak_ptr<Connection> connection, std::shared_ptr<const Client> client,
         std::int32_t id, const Operation &operation, std::optional<std::string> value,
         std::string identity);

    std::int32_t id() const
    {
        return id_;
    }
    const Operation &operation() const
    {
        return operation_;
    }
    // The DN that the client was bound as when it asked; empty for anonymous.
    const std::string &identity() const
    {
        return identity_;
    }
    // The same with the client, for requests to the directory.
    Behalf behalf() const
    {
        return Behalf(identity_, client_, id_);
    }
    const Client &client() const
    {
        return *client_;
    }
    std::chrono::steady_clock::time_point begun() const
    {
        return begun_;
    }
    // The request value; ber::Malformed, which becomes a protocolError, when there is none.
    ber::Reader value() const;
    // For operations without a request value: ber::Malformed when there is one.
    void expect_no_value() const;
    const std::optional<std::string> &bytes() const
    {
        return value_;
    }

    void answer(const Result &result, const std::optional<std::string> &value = {});
    // An intermediate response; the answer is still to come.
    void notify(std::string_view name, std::string_view value);
    // False while the client does not take what has been sent: then wait until there is room.
    bool has_room() const;
    void on_room(std::function<void()> room)
    {
        room_ = std::move(room);
    }
    void room();

    // For an operation that goes on until it is stopped: what to do when the client abandons or
    // cancels it, or leaves. Without it the operation runs to its end and cannot be cancelled.
    void on_stop(std::function<void()> stop)
    {
        stop_ = std::move(stop);
    }
    bool can_stop() const
    {
        return static_cast<bool>(stop_);
    }
    void stop();

    // What a family of operations keeps for this client from one request to the next; it ends
    // with the client's connection. NULL when nothing is kept.
    std::shared_ptr<void> kept(const void *family) const;
    void keep(const void *family, std::shared_ptr<void> state) const;

private:
    std::weak_ptr<Connection> connection_;
    std::shared_ptr<const Client> client_;
    std::int32_t id_;
    const Operation &operation_;
    std::optional<std::string> value_;
    std::string identity_;
    std::function<void()> stop_;
    std::function<void()> room_;
    std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

struct Operation {
    std::string request_name;
    std::string response_name;
    std::string title; // for people: "split partition"
    std::function<void(std::shared_ptr<Call>)> handle;
};

// Changes need somebody who answers for them; slapd would say strongerAuthRequired. True when the
// call has been answered so.
bool refuse_anonymous(Call &call);
// slapd's refusal of what was asked for this entry, in the words of the operation where slapd has
// none.
Result explained(Result result, const Call &call, const std::string &dn);

class Operations {
public:
    void add(Operation operation);
    const Operation *find(const std::string &request_name) const;
    std::vector<std::string> names() const;

    // Every name of ours begins so. One that is not in the table is refused; what does not begin
    // so is slapd's business.
    static bool is_ours(std::string_view request_name);

private:
    std::map<std::string, Operation> table_;
};

} // namespace sandbox
