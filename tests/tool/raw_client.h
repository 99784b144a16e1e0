// A client that sends any bytes, and the LDAP messages it needs written out.
#pragma once

#include "support/ber.h"
#include "support/loopback.h"

#include <chrono>
#include <string>
#include <string_view>

namespace sandbox_test {

class RawClient {
public:
    explicit RawClient(int port);

    // True when everything was taken; false when the other side has closed. Waits no longer than
    // the time given.
    bool send(std::string_view bytes, std::chrono::milliseconds patience = std::chrono::seconds(5));
    // The next whole message; empty when the other side closes first, or says nothing for so long.
    std::string receive(std::chrono::milliseconds patience = std::chrono::seconds(5));
    // True when the other side closes within this time, whatever it sends before.
    bool is_closed(std::chrono::milliseconds patience = std::chrono::seconds(5));
    void reset(); // leaves without a word, as a crash does

private:
    bool fill(std::chrono::steady_clock::time_point until);

    support::Socket socket_;
    std::string input_;
    bool ended_ = false;
};

// One LDAP message each.
std::string simple_bind(int id, const std::string &dn, const std::string &password);
std::string sasl_bind(int id, const std::string &mechanism); // with empty credentials
std::string whole_search(int id, const std::string &base);   // every entry with all its attributes
std::string who_am_i(int id);
std::string unbind(int id);
std::string abandon(int id, int other);
std::string extended(int id, const std::string &name, const std::string &value);

// What a message says.
int message_id(const std::string &message);
unsigned char operation(const std::string &message);
int result_code(const std::string &message);
// An ExtendedResponse's value; empty when there is none.
std::string response_value(const std::string &message);
// A Notice of Disconnection with this result.
bool is_notice(const std::string &message, int code);

} // namespace sandbox_test
