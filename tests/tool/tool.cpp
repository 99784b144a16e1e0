#include "tool.h"

#include "backup_file.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace tool_test {

namespace {

const std::string program = TOOL_PROGRAM;

} // namespace

Arguments command(const Arguments &arguments)
{
    Arguments all{program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

Arguments command(const support::TcpPeer &peer, const Arguments &arguments)
{
    Arguments all{program, "-x", "-H", peer.uri()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

support::ProcessOptions isolated()
{
    support::ProcessOptions options;
    options.environment.emplace("LDAPNOINIT", "yes");
    return options;
}

support::Finished greirige(const Arguments &arguments, const support::ProcessOptions &options)
{
    return support::run(command(arguments), options);
}

support::Finished greirige(const support::TcpPeer &peer, const Arguments &arguments,
                           const support::ProcessOptions &options)
{
    return support::run(command(peer, arguments), options);
}

void wait_for_requests(const support::TcpPeer &peer, std::size_t count)
{
    for (int tries = 0; peer.requests().size() < count; ++tries) {
        if (tries == 1000)
            throw std::runtime_error("request " + std::to_string(count) + " has not arrived");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

nlohmann::ordered_json document(const support::Finished &finished)
{
    return nlohmann::ordered_json::parse(finished.out);
}

void write_backup(const std::string &path, const std::string &server)
{
    tool::BackupFile file;
    file.dn = "o=x";
    file.server = server;
    file.time = "2026-11-21T00:22:30Z";
    file.backup.state = "1+1";
    std::ofstream(path) << tool::format_backup(file);
}

} // namespace tool_test
