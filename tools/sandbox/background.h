// Background processes: started on request, they run on their own and leave a trace. The server
// refresh is one of them in all but its name on the wire.
//
// Each has an entry, cn=NAME,cn=processes,cn=system, that tells what it does now (processState),
// how often it has run (processRuns), when the last run began and ended, and what that run found
// and did (processReport):
//
//   backlink         counts the references between entries
//   janitor          removes the replicas of partitions that are no more
//   limber           counts the servers
//   skulker          does the synchronisation that waits for its delay
//   schema-sync      reads the schema through
//   partition-purge  purges all replicas: their purge time becomes now
//   refresh          counts partitions and replicas
//
// A request is answered when the process has begun. Its start is written with the client's own
// rights, so slapd decides who may.
//
// Result codes, beside those that slapd gives:
//   protocolError            there is a request value
//   insufficientAccessRights the client is anonymous, or may not change the process's entry
//   busy                     the process is running
#pragma once

#include "operations.h"
#include "replicas.h"
#include "synchronisation.h"

#include <asio.hpp>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace sandbox {

class Background {
public:
    // A run takes at least so long: starting and ending can be told apart.
    static constexpr std::chrono::milliseconds moment{100};

    Background(asio::io_context &loop, Directory &directory, Replicas &replicas,
               Synchronisation &synchronisation, std::string base);

    void offer(Operations &operations);
    // Gives every process its entry.
    void prepare(Directory::Done done);

private:
    using Report = std::function<void(const std::string &)>;
    using Work = std::function<void(Report)>;

    struct Process {
        std::string name;
        std::string description;
        Work work;
        asio::steady_timer timer;
        bool running = false;
        int runs = 0;

        std::string dn() const;
    };

    Process &add(const std::string &name, const std::string &description, Work work);
    void start(Process &process, std::shared_ptr<Call> call);
    void end(Process &process, const std::string &report);

    // Entries below base that the filter finds, as "12 THINGS".
    void count(const std::string &filter, const std::string &things, Report report);
    void count_replicas(const std::string &before, Report report);
    void read_schema(Report report);

    asio::io_context &loop_;
    Directory &directory_;
    Replicas &replicas_;
    Synchronisation &synchronisation_;
    std::string base_;
    std::list<Process> processes_;
};

} // namespace sandbox
