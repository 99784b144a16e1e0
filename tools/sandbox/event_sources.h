// Turns what passes the gateway into events: each request that was answered into the event of its
// kind, each change that was made into events about the entry and its values.
//
// The events of one request come together, in the order in which requests were answered: where the
// class of an entry has to be looked up first (a compare, a change that failed), what comes after
// waits for it.
#pragma once

#include "events.h"
#include "subschema.h"
#include "traffic.h"

#include <functional>
#include <string>

namespace sandbox {

class EventSources : public Traffic {
public:
    EventSources(Events &events, Directory &directory);

    // Before the first client: what slapd's schema says.
    void learn_schema(Directory::Done done)
    {
        schema_.read(directory_, std::move(done));
    }

    bool is_watched() const override;
    bool are_entries_watched() const override;
    bool are_values_watched() const override;
    void connected(const std::shared_ptr<const Client> &client) override;
    void disconnected(const std::shared_ptr<const Client> &client) override;
    void answered(const Answered &exchange) override;
    void found(const Answered &search, std::string_view entry) override;

private:
    struct Kept;
    using Request = std::shared_ptr<const Kept>;
    using UseClass = std::function<void(const std::string &class_name)>;

    void bind(const Request &request, ber::Reader body);
    void search(const Request &request, ber::Reader body);
    void compare(const Request &request, ber::Reader body);
    void add(const Request &request, ber::Reader body);
    void remove(const Request &request, const std::string &dn);
    void modify(const Request &request, ber::Reader body);
    void rename(const Request &request, ber::Reader body);
    void abandon(const Request &request, std::string_view body);
    void extended(const Request &request, ber::Reader body);
    void password_change(const Request &request, std::string dn, int type);
    void response(const Request &request, ber::Tag operation, std::string_view answer);
    void unknown_operation(const Request &request);

    void update(const Request &request, EventType type, ber::Tag operation, const std::string &dn,
                const std::string &class_name);
    void entry_changed(const Request &request, EventType type, const std::string &dn,
                       const std::string &class_name, const std::string &new_dn = {});
    void values_changed(const Request &request, EventType type, const std::string &dn,
                        const std::string &class_name, const std::string &attribute,
                        const std::vector<std::string> &values);
    void compare_images(const Request &request, const std::string &dn,
                        const std::string &class_name);
    void with_class(const Request &request, const std::string &dn, UseClass use);
    void publish(const Request &request, EventType type, Record record, const std::string &entry);
    TimeStamp stamp();

    Events &events_;
    Directory &directory_;
    Subschema schema_;
    TimeStamp last_stamp_{};
};

} // namespace sandbox
