// The command-line tool, run as a script runs it: no terminal, and nothing of this machine's
// ldap.conf, of the user's files or of the environment's LDAP variables.
//
//     TcpPeer peer;
//     Finished finished = greirige(peer, {"partition", "count", "o=x"});   // -x -H URI
//     EXPECT_EQ(finished.err, "greirige: ...\n");
#pragma once

#include <cctype>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/process.h"
#include "support/tcp_peer.h"

namespace tool_test {

using Arguments = std::vector<std::string>;

// The tool's path and these arguments.
Arguments command(const Arguments &arguments);
Arguments command(const support::TcpPeer &peer, const Arguments &arguments);

// The options of a process that knows nothing of this machine.
support::ProcessOptions isolated();

support::Finished greirige(const Arguments &arguments,
                           const support::ProcessOptions &options = isolated());
// Against the peer, with a simple bind.
support::Finished greirige(const support::TcpPeer &peer, const Arguments &arguments,
                           const support::ProcessOptions &options = isolated());

// The suffix of a parameterised test's name: its place and its command line.
struct CommandName {
    template <class Info>
    std::string operator()(const Info &info) const
    {
        std::string name = std::to_string(info.index);
        for (const std::string &word : info.param.arguments) {
            name += '_';
            for (const char c : word)
                if (std::isalnum(static_cast<unsigned char>(c)) != 0)
                    name += c;
        }
        return name;
    }
};

// Waits until this many requests have arrived; throws when they do not.
void wait_for_requests(const support::TcpPeer &peer, std::size_t count);

// The one JSON document that the output must be.
nlohmann::ordered_json document(const support::Finished &finished);

// Writes a backup of an object of this server, for commands that read one.
void write_backup(const std::string &path, const std::string &server);

} // namespace tool_test
