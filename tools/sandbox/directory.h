// A connection of the gateway's own to slapd, for searches and changes that its operations make.
//
// Every request takes the identity on whose behalf it is made, so that slapd's access rules and
// nothing else decide what a client may see and do; as_administrator acts with all rights. Every
// handler is called exactly once, from the event loop and never before the request has returned;
// when the connection is lost, with LDAP_UNAVAILABLE.
#pragma once

#include "link.h"
#include "message.h"

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

class Traffic;
struct Client;

// For whom a request is made: the DN that slapd judges it by (empty: anonymous), or nothing for
// the administrator; and the client that asked for it under this message id, when there is one.
struct Behalf {
    std::optional<std::string> dn;
    std::shared_ptr<const Client> client = nullptr;
    std::int32_t request = 0;

    Behalf(std::nullopt_t) {}
    Behalf(std::string name) : dn(std::move(name)) {}
    Behalf(std::string name, std::shared_ptr<const Client> asker, std::int32_t id)
        : dn(std::move(name)), client(std::move(asker)), request(id)
    {
    }
};
inline constexpr std::nullopt_t as_administrator = std::nullopt;

struct Attribute {
    std::string name;
    std::vector<std::string> values;
};

struct Entry {
    std::string dn;
    std::vector<Attribute> attributes;

    // An attribute's first value; empty when the entry has no such attribute. slapd gives names
    // as the request asked for them.
    std::string value(std::string_view name) const;
    // All of its values.
    std::vector<std::string> values(std::string_view name) const;
};

// The content of a SearchResultEntry.
Entry read_entry(ber::Reader operation);

struct Change {
    int operation = LDAP_MOD_ADD; // LDAP_MOD_ADD, LDAP_MOD_DELETE, LDAP_MOD_REPLACE
    std::string attribute;
    std::vector<std::string> values;
};

// Search filters (RFC 4511, section 4.5.1.7), built and not parsed: a value needs no escaping.
namespace filter {
std::string present(std::string_view attribute);
std::string equal(std::string_view attribute, std::string_view value);
std::string matches(std::string_view rule, std::string_view attribute, std::string_view value);
std::string not_(std::string_view operand);
std::string all(const std::vector<std::string> &operands);
std::string any(const std::vector<std::string> &operands);
// Entries at and below, at and above dn; slapd compares the names.
std::string within(std::string_view dn);
std::string around(std::string_view dn);
} // namespace filter

struct Search {
    std::string base;
    int scope = LDAP_SCOPE_SUBTREE;
    std::string filter = sandbox::filter::present("objectClass");
    std::vector<std::string> attributes = {LDAP_NO_ATTRS};
};

class Directory {
public:
    using Done = std::function<void(const Result &)>;
    using Found = std::function<void(Entry)>;
    using Read = std::function<void(const Result &, const Entry &)>;
    using Count = std::function<void(const Result &, std::size_t)>;
    // A response's operation element; the last one has no more after it.
    using Response = std::function<void(const ber::Element &)>;

    explicit Directory(asio::io_context &loop);
    ~Directory();

    // Who is told of changes from now on.
    void report_to(Traffic &traffic)
    {
        traffic_ = &traffic;
    }
    // Connects to slapd's socket and binds. `lost` is called when a connection that was made ends.
    void connect(const std::string &socket_path, const std::string &dn, const std::string &password,
                 Done done, std::function<void()> lost);
    void close();

    // Each entry as it comes, then the result.
    void search(const Behalf &behalf, const Search &request, Found found, Done done);
    // One entry by its name; LDAP_NO_SUCH_OBJECT when it is not there or may not be seen.
    void read(const Behalf &behalf, const std::string &dn, std::vector<std::string> attributes,
              Read done);
    // How many entries a search finds.
    void count(const Behalf &behalf, const Search &request, Count done);
    void add(const Behalf &behalf, const std::string &dn, const std::vector<Attribute> &attributes,
             Done done);
    void modify(const Behalf &behalf, const std::string &dn, const std::vector<Change> &changes,
                Done done);
    // Success when slapd would let somebody change the entry. It is not changed, and nobody is
    // told.
    void may_change(const Behalf &behalf, const std::string &dn, Done done);
    void remove(const Behalf &behalf, const std::string &dn, Done done);
    void rename(const Behalf &behalf, const std::string &dn, const std::string &new_rdn,
                bool delete_old_rdn, const std::optional<std::string> &new_superior, Done done);

    // Any operation, already encoded, with the content of its controls element.
    void send(const Behalf &behalf, std::string_view operation, std::string_view controls,
              Response response);

private:
    // A request that slapd has not answered yet. What is needed to report a change is kept.
    struct Outstanding {
        Response response;
        Behalf behalf = as_administrator;
        std::time_t begun = 0;
        std::string operation;
        std::string controls;
        bool has_images = false;
    };

    void transmit(const Behalf &behalf, std::string_view operation, std::string_view controls,
                  Outstanding request);
    void received();
    void dispatch(const Message &message);
    void report(const Outstanding &change, const Message &answer);
    void lose();
    void perform(const Behalf &behalf, std::string_view operation, Done done);

    asio::io_context &loop_;
    Traffic *traffic_ = nullptr;
    std::string administrator_;
    std::shared_ptr<Link> link_;
    std::map<std::int32_t, Outstanding> outstanding_;
    std::int32_t last_id_ = 0;
    std::function<void()> lost_;
};

// The DN in a WhoAmI response's value ("dn:..."); empty for anonymous.
std::string identity_of(std::string_view authorization_id);

} // namespace sandbox
