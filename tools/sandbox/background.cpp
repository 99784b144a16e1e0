#include "background.h"

#include "clock.h"
#include "ldapx.h"
#include "schema.h"
#include "system_tree.h"

#include <utility>

namespace sandbox {

namespace {

constexpr char container[] = "processes";

std::string failure(const Result &result)
{
    return "failed: " + std::string(ldap_err2string(result.code)) +
           (result.diagnostic.empty() ? "" : " (" + result.diagnostic + ")");
}

} // namespace

std::string Background::Process::dn() const
{
    return "cn=" + name + "," + system_dn(container);
}

Background::Background(asio::io_context &loop, Directory &directory, Replicas &replicas,
                       Synchronisation &synchronisation, std::string base)
    : loop_(loop), directory_(directory), replicas_(replicas), synchronisation_(synchronisation),
      base_(std::move(base))
{
}

void Background::offer(Operations &operations)
{
    const auto serve = [&](const char *request, const char *response, const std::string &title,
                           Process &process) {
        operations.add({request, response, title, [this, &process](std::shared_ptr<Call> call) {
                            start(process, std::move(call));
                        }});
    };
    serve(LDAPX_TRIGGER_BACKLINK_REQUEST, LDAPX_TRIGGER_BACKLINK_RESPONSE, "trigger backlink",
          add("backlink", "Follows the references between entries", [this](Report report) {
              count(filter::any({filter::present("member"), filter::present("roleOccupant"),
                                 filter::present("manager"), filter::present("seeAlso")}),
                    "entries refer to others", std::move(report));
          }));
    serve(LDAPX_TRIGGER_JANITOR_REQUEST, LDAPX_TRIGGER_JANITOR_RESPONSE, "trigger janitor",
          add("janitor", "Removes what is left of vanished partitions", [this](Report report) {
              replicas_.clean([report = std::move(report)](const Result &result,
                                                           std::size_t removed) {
                  report(result.ok()
                             ? std::to_string(removed) + " replicas of vanished partitions removed"
                             : failure(result));
              });
          }));
    serve(LDAPX_TRIGGER_LIMBER_REQUEST, LDAPX_TRIGGER_LIMBER_RESPONSE, "trigger limber",
          add("limber", "Checks the servers", [this](Report report) {
              count(filter::equal("objectClass", directory_server), "servers known",
                    std::move(report));
          }));
    serve(LDAPX_TRIGGER_SKULKER_REQUEST, LDAPX_TRIGGER_SKULKER_RESPONSE, "trigger skulker",
          add("skulker", "Brings replicas up to date", [this](Report report) {
              synchronisation_.finish_waiting([report = std::move(report)](std::size_t done) {
                  report(std::to_string(done) + " waiting requests done");
              });
          }));
    serve(LDAPX_TRIGGER_SCHEMA_SYNC_REQUEST, LDAPX_TRIGGER_SCHEMA_SYNC_RESPONSE,
          "trigger schema sync",
          add("schema-sync", "Reads the schema through",
              [this](Report report) { read_schema(std::move(report)); }));
    serve(LDAPX_TRIGGER_PARTITION_PURGE_REQUEST, LDAPX_TRIGGER_PARTITION_PURGE_RESPONSE,
          "trigger partition purge",
          add("partition-purge", "Purges the replicas", [this](Report report) {
              replicas_.edit_all(
                  {},
                  [](Replica &replica) {
                      replica.purged = std::max(replica.purged + 1, std::time(nullptr));
                      return true;
                  },
                  [report = std::move(report)](const Result &result, std::size_t purged) {
                      report(result.ok() ? std::to_string(purged) + " replicas purged"
                                         : failure(result));
                  });
          }));
    serve(LDAPX_REFRESH_SERVER_REQUEST, LDAPX_REFRESH_SERVER_RESPONSE, "refresh server",
          add("refresh", "Refreshes the server's view of partitions and replicas",
              [this](Report report) {
                  count(partition_roots(), "partitions",
                        [this, report = std::move(report)](const std::string &partitions) {
                            count_replicas(partitions + ", ", report);
                        });
              }));
}

Background::Process &Background::add(const std::string &name, const std::string &description,
                                     Work work)
{
    processes_.push_back({name, description, std::move(work), asio::steady_timer(loop_)});
    return processes_.back();
}

void Background::prepare(Directory::Done done)
{
    std::vector<NewEntry> entries = system_container(container, "Background processes");
    for (const Process &process : processes_)
        entries.push_back({process.dn(),
                           {{"objectClass", {background_process}},
                            {"cn", {process.name}},
                            {"description", {process.description}},
                            {process_state, {"idle"}},
                            {process_runs, {"0"}}}});
    ensure_entries(directory_, std::move(entries), std::move(done));
}

void Background::start(Process &process, std::shared_ptr<Call> call)
{
    call->expect_no_value();
    if (refuse_anonymous(*call))
        return;
    if (process.running)
        return call->answer({LDAP_BUSY, process.name + " is running: wait until it ends", {}});
    process.running = true;
    directory_.modify(call->behalf(), process.dn(),
                      {{LDAP_MOD_REPLACE, process_state, {"running"}},
                       {LDAP_MOD_REPLACE, process_started, {generalized_time(std::time(nullptr))}}},
                      [this, &process, call](const Result &result) {
                          if (result.ok()) {
                              process.timer.expires_after(moment);
                              process.timer.async_wait([this, &process](std::error_code stopped) {
                                  if (!stopped)
                                      process.work([this, &process](const std::string &report) {
                                          end(process, report);
                                      });
                              });
                          } else {
                              process.running = false;
                          }
                          call->answer(explained(result, *call, process.dn()));
                      });
}

void Background::end(Process &process, const std::string &report)
{
    ++process.runs;
    directory_.modify(as_administrator, process.dn(),
                      {{LDAP_MOD_REPLACE, process_state, {"idle"}},
                       {LDAP_MOD_REPLACE, process_runs, {std::to_string(process.runs)}},
                       {LDAP_MOD_REPLACE, process_ended, {generalized_time(std::time(nullptr))}},
                       {LDAP_MOD_REPLACE, process_report, {report}}},
                      [&process](const Result &) { process.running = false; });
}

// ---- What they do -----------------------------------------------------------------------------

void Background::count(const std::string &filter, const std::string &things, Report report)
{
    directory_.count(as_administrator, {base_, LDAP_SCOPE_SUBTREE, filter},
                     [things, report = std::move(report)](const Result &result, std::size_t found) {
                         report(result.ok() ? std::to_string(found) + " " + things
                                            : failure(result));
                     });
}

void Background::count_replicas(const std::string &before, Report report)
{
    replicas_.find({}, [before, report = std::move(report)](const Result &result,
                                                            const Replicas::Holders &holders) {
        report(result.ok() ? before + std::to_string(holders.size()) + " replicas"
                           : failure(result));
    });
}

void Background::read_schema(Report report)
{
    directory_.read(as_administrator, "cn=Subschema", {"attributeTypes", "objectClasses"},
                    [report = std::move(report)](const Result &result, const Entry &subschema) {
                        report(result.ok()
                                   ? std::to_string(subschema.values("attributeTypes").size()) +
                                         " attribute types, " +
                                         std::to_string(subschema.values("objectClasses").size()) +
                                         " object classes"
                                   : failure(result));
                    });
}

} // namespace sandbox
