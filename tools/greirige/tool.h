// What a command works with: the options, the output, the session, and the rules that all
// commands follow (-n, --yes, how a failure reads).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "greirige/session.hpp"

#include "connection.h"
#include "error.h"
#include "output.h"
#include "session.h"

namespace tool {

struct Options {
    ConnectionOptions connection;
    bool json = false;
    bool yes = false;
    bool dry_run = false;
    bool verbose = false;
    int version = 0;
};

// One operation on the server, in words. A command fills it once; every message is made of it.
struct Operation {
    std::string name;  // the command, "partition merge"
    std::string doing; // after "cannot", "would" and "about to": "merge the partition ..."
    std::string done;  // the line for people when it was done
    Json details = Json::object(); // what belongs to it in the JSON document, besides its name
    bool destructive = false;      // asks before it begins
};

class Tool {
public:
    explicit Tool(Options &options);

    Output output;

    // The session: connected and bound on first use.
    greirige::Session session();
    LDAP *ld();
    const std::string &server() const;
    bool connected() const;

    // Before the first use of the session: it can be made anew later.
    void prepare_to_reconnect();
    // Connects, encrypts and binds again, with the same answers to what was asked at first. If
    // there is a limit, waits no longer for anything than so many seconds. Throws a ConnectFailure.
    void reconnect(std::optional<long> seconds);

    // For commands that wait with ldap_result() themselves (after ld()), at most a second at a
    // time, and look at interrupted() in between: a signal no longer ends what can be read from the
    // server.
    static void handle_signals_itself();

    // Nothing is to be sent (-n). For commands that show more of what would be done than begin().
    bool dry_run() const
    {
        return options_.dry_run;
    }
    // False when nothing is to be sent (-n): what would be done has been shown then. A destructive
    // operation is announced and must be confirmed; a Failure is thrown when it is not.
    bool begin(const Operation &operation);

    // Throws the Failure that belongs to an Error.
    void check(const Operation &operation, const greirige::Result<void> &result);
    // The value of a result; throws the Failure that belongs to its Error.
    template <class T>
    T value(const Operation &operation, greirige::Result<T> result)
    {
        if (!result)
            check(operation, greirige::Result<void>(result.error()));
        return *std::move(result);
    }

    // For operations that only succeed or fail: begins, calls, checks, and reports.
    using Call = std::function<greirige::Result<void>(greirige::Session)>;
    ExitStatus carry_out(const Operation &operation, const Call &call);

    // The beginning of the operation's JSON document: its name, the server, its details.
    Json document(const Operation &operation) const;

    // "greirige: ..." on standard error with -v.
    void say(const std::string &what) const;

private:
    void get_consent(const Operation &operation) const;
    [[noreturn]] void fail(const Operation &operation, const std::string &why) const;

    Options &options_;
    std::unique_ptr<Session> session_;
};

} // namespace tool
