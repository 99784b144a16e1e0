// list_replicas - the partitions of which a server holds replicas, and the replicas' types.
//
//   list_replicas SERVER-DN
//
// Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 no session.

#include "connect.hpp"

#include <iostream>

namespace {

greirige::Result<void> list_replicas(greirige::Session session, greirige::Server server)
{
    auto partitions = session.list_replicas(server);
    if (!partitions)
        return partitions.error();
    for (const std::string &partition : *partitions) {
        auto replica = session.replica_info(partition, server);
        if (!replica)
            return replica.error();
        std::cout << to_string(replica->type) << '\t' << partition << '\n';
    }
    return {};
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::cerr << "usage: list_replicas SERVER-DN\n";
        return 2;
    }
    auto connection = example::connect();
    if (!connection) {
        std::cerr << "list_replicas: " << to_string(connection.error()) << '\n';
        return 3;
    }
    auto listed = list_replicas(greirige::Session(connection->get()), greirige::Server(argv[1]));
    if (!listed) {
        std::cerr << "list_replicas: " << to_string(listed.error()) << '\n';
        return 1;
    }
    return 0;
}
