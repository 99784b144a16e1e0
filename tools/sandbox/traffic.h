// What passes the gateway, for whoever wants to know: clients that come and go, every request of
// theirs with the answer that it got, every change that an operation of ours has slapd make.
//
// The connections report what their clients ask, the directory reports what operations change:
// an operation that changes the tree through the Directory need not report anything itself. It
// should act for call->behalf(), which names the client, rather than for its DN alone.
#pragma once

#include "directory.h"
#include "entry_images.h"

#include <ctime>
#include <memory>
#include <string>

namespace sandbox {

// One client's connection.
struct Client {
    std::uint32_t number = 0; // in the order of their coming, from 1
    asio::ip::tcp::endpoint peer;
    std::string address; // the same as text: "127.0.0.1:49152"
};

// A request and the answer that it got. Its views last as long as the call that hands it over.
struct Answered {
    std::shared_ptr<const Client> client; // nobody, when the sandbox acts of its own accord
    std::string identity;                 // the DN that it was carried out for; empty: anonymous
    std::int32_t id = 0;
    std::time_t begun = 0;
    ber::Element operation; // the request's, as in its LDAPMessage
    std::string_view controls;
    Result result;
    std::string_view response; // the content of slapd's answer; empty for answers of our own
    EntryImages images;        // of a change, as far as slapd shows them
};

class Traffic {
public:
    virtual ~Traffic() = default;

    // While nobody watches, nothing needs to be kept for the reports, and none needs to be made.
    virtual bool is_watched() const = 0;
    virtual bool are_entries_watched() const = 0; // the entries that searches find
    virtual bool are_values_watched() const = 0;  // which values a change adds and deletes

    virtual void connected(const std::shared_ptr<const Client> &client) = 0;
    virtual void disconnected(const std::shared_ptr<const Client> &client) = 0;
    virtual void answered(const Answered &exchange) = 0;
    // An entry goes to a client, the answer to a search that has only these parts of Answered.
    // `entry` is the content of the SearchResultEntry, perhaps only its first bytes.
    virtual void found(const Answered &search, std::string_view entry) = 0;
};

} // namespace sandbox
