// A monitor of a sandbox's events, through the library's functions.
//
//     Monitor monitor(sandbox.admin(), {{entry_add, 0}});
//     ... something happens ...
//     const Event event = monitor.next();
//     EXPECT_STREQ(event.as<EVT_EntryInfo>()->entryDN, "ou=x");
#pragma once

#include "sandbox.h"

#include "ldap_events.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// AddressSanitizer sees leaks, and keeps what has been freed in memory.
#if defined(__SANITIZE_ADDRESS__)
#    define WITH_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#    if __has_feature(address_sanitizer)
#        define WITH_ADDRESS_SANITIZER 1
#    endif
#endif

namespace sandbox_test {

struct FreeEvent {
    void operator()(void *record) const;
};

struct Event {
    int type = -1; // -1: none has come
    int result = -1;
    std::unique_ptr<void, FreeEvent> record{};
    std::unique_ptr<void, FreeEvent> address{};

    template <class Record>
    const Record *as() const
    {
        return static_cast<const Record *>(record.get());
    }
    unsigned long tag() const // 0: without a record
    {
        return record ? static_cast<const ber_tag_t *>(record.get())[-1] : 0;
    }
    const EVT_NetAddress *net_address() const
    {
        return static_cast<const EVT_NetAddress *>(address.get());
    }
};

struct Specifier {
    int type;
    int status = 0;
    std::string filter{};
};

// The response that ends a stream of events.
struct Closing {
    int code = -1;
    std::string diagnostic;
    std::vector<std::pair<int, int>> rejected;
};

class Monitor {
public:
    // Registers and waits until the sandbox knows; with filters when `filtered`.
    Monitor(Session session, std::vector<Specifier> specifiers, bool filtered = false);

    // The next event; type -1 when none comes in this time or the stream has ended.
    Event next(std::chrono::milliseconds patience = std::chrono::seconds(10));
    // The next event of this type; others are passed over.
    Event next(int type);
    // Everything that has come so far: what was done before on any session that was answered.
    std::vector<Event> all();
    // Reads on until the stream ends.
    std::optional<Closing> closing(std::chrono::milliseconds patience = std::chrono::seconds(10));

    const Session &session() const
    {
        return session_;
    }
    int id() const
    {
        return id_;
    }

private:
    Session session_;
    int id_ = 0;
    std::optional<Closing> closing_;
};

} // namespace sandbox_test
