// greirige-sandbox: a private directory on loopback that speaks the extended operations of
// ldapx.h, for trying, testing and demonstrating.
//
// A slapd of our own holds the tree on a Unix socket in a temporary directory. Clients reach it
// through the gateway, which answers the extended operations itself. One thread, one event loop.

#include "background.h"
#include "backup.h"
#include "directory.h"
#include "event_sources.h"
#include "filters.h"
#include "gateway.h"
#include "identity.h"
#include "lburp.h"
#include "ldif_check.h"
#include "names.h"
#include "partitions.h"
#include "privileges.h"
#include "process.h"
#include "programs.h"
#include "replicas.h"
#include "sample_tree.h"
#include "schema.h"
#include "slapd.h"
#include "synchronisation.h"

#include "dn.h"

#include <CLI/CLI.hpp>
#include <asio.hpp>

#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <strings.h>

namespace sandbox {

namespace {

struct Options {
    std::uint16_t port = 0;
    std::optional<std::uint16_t> ldaps_port;
    std::vector<std::string> addresses = {"127.0.0.1"};
    LdifFile ldif;
    std::string base;
    std::size_t entries = 1200;
    std::string admin_dn;
    std::string admin_password = "secret";
    std::string admin_password_file;
    std::string backup_password_file;
    std::vector<std::string> schema_files;
    std::string slapd = "slapd";
    std::string tls_certificate;
    std::string tls_key;
    std::uint64_t max_message = 64 * 1024 * 1024;
    std::uint32_t operation_delay = 0;
    EventOptions events;
    std::int32_t transaction_size = 500;
    bool verbose = false;
};

constexpr int cannot_start = 1;
constexpr int wrong_usage = 2;

constexpr char about[] =
    "A private LDAP directory on loopback that also speaks the extended operations of "
    "libgreirige.\nIt keeps nothing: the tree ends with the process.";

constexpr char examples[] = R"(Examples:
  greirige-sandbox --port 3890
      a sample tree of 1,200 entries on ldap://127.0.0.1:3890/
  greirige-sandbox --port 0 --verbose
      any free port, which the first line tells, and a line for each operation
  greirige-sandbox --port 3890 --ldif company.ldif --schema company.schema
      a tree of your own
  greirige-sandbox --port 3890 --operation-delay 5000
      splits and merges take five seconds and can be aborted

The first line on standard output is "listening on ldap://ADDRESS:PORT/", written when the
directory answers. Ctrl-C ends it.

Exit status: 0 ended by a signal, 1 could not start or lost its slapd, 2 wrong usage.)";

// True when dn is the base or lies below it.
bool lies_within(const std::string &dn, const std::string &base)
{
    const std::string name = normalised_dn(dn).value_or("");
    const std::string top = normalised_dn(base).value_or("");
    return strcasecmp(name.c_str(), top.c_str()) == 0 ||
           (name.size() > top.size() &&
            strcasecmp(name.c_str() + name.size() - top.size() - 1, ("," + top).c_str()) == 0);
}

void add_options(CLI::App &app, Options &options)
{
    app.set_version_flag("--version", "greirige-sandbox " GREIRIGE_VERSION);
    app.footer(examples);
    app.add_option("--port", options.port, "Port to listen on; 0 takes a free one")
        ->capture_default_str();
    app.add_option("--address", options.addresses,
                   "Loopback address to listen on, such as ::1; may be given several times")
        ->capture_default_str();
    auto *certificate =
        app.add_option("--tls-cert", options.tls_certificate,
                       "Offer StartTLS with this certificate (PEM, with its chain)");
    auto *key = app.add_option("--tls-key", options.tls_key, "The certificate's key (PEM)");
    certificate->needs(key);
    key->needs(certificate);
    app.add_option("--ldaps-port", options.ldaps_port, "Listen on this port too, with TLS at once")
        ->needs(certificate);
    app.add_option("--ldif", options.ldif.path, "Load this LDIF file instead of the sample tree");
    app.add_option("--base", options.base,
                   "Naming context [dc=example,dc=com, or the first entry of --ldif]");
    app.add_option("--entries", options.entries, "Size of the sample tree")
        ->check(CLI::Range(smallest_tree, std::size_t{10'000'000}))
        ->capture_default_str();
    app.add_option("--admin-dn", options.admin_dn, "Administrator's DN [cn=admin,BASE]");
    app.add_option("--admin-password-file", options.admin_password_file,
                   "Administrator's password, the first line of this file [secret]");
    app.add_option("--backup-password-file", options.backup_password_file,
                   "Password that backups and restores must give, the first line of this file; "
                   "without it any will do, the same for both");
    app.add_option("--schema", options.schema_files,
                   "Load this schema file (slapd.conf's form) too; may be given several times");
    app.add_option("--slapd", options.slapd, "The slapd to use")->capture_default_str();
    app.add_option("--max-message", options.max_message, "Largest message taken, in bytes")
        ->check(CLI::Range(std::uint64_t{1024}, std::uint64_t{1} << 31))
        ->capture_default_str();
    app.add_option("--operation-delay", options.operation_delay,
                   "Milliseconds that splitting and merging partitions take")
        ->capture_default_str();
    app.add_option("--event-queue", options.events.queue,
                   "Bytes of events that may wait for a monitor before it is dropped")
        ->capture_default_str();
    app.add_flag("--with-addresses", options.events.with_addresses,
                 "Events carry the address of the client behind them");
    app.add_flag("--emit-all", options.events.samples,
                 "Send each new monitor a sample of every kind of event");
    app.add_option("--lburp-transaction-size", options.transaction_size,
                   "Most operations in one batch of a bulk update")
        ->check(CLI::Range(std::int32_t{1}, std::int32_t{10'000'000}))
        ->capture_default_str();
    app.add_flag("--verbose", options.verbose, "Write a line for each operation");
}

std::string first_line(const std::string &path)
{
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line) || line.empty())
        throw CannotStart("no password can be read from " + path);
    return line;
}

std::optional<std::string> backup_password(const Options &options)
{
    if (options.backup_password_file.empty())
        return {};
    return first_line(options.backup_password_file);
}

// What was left out is filled in; CLI::ValidationError for what does not fit together.
void complete(Options &options)
{
    if (!options.ldif.path.empty())
        options.ldif = check_ldif(options.ldif.path);
    if (options.base.empty())
        options.base = options.ldif.path.empty() ? "dc=example,dc=com" : options.ldif.first_dn;
    else if (!normalised_dn(options.base))
        throw CLI::ValidationError("--base", "not a distinguished name: " + options.base);
    if (options.admin_dn.empty())
        options.admin_dn = "cn=admin," + options.base;
    if (lies_within(options.base, system_base))
        throw CLI::ValidationError("--base", options.base + " lies in " + system_base +
                                                 ", where the sandbox keeps entries of its own");
    if (!lies_within(options.admin_dn, options.base))
        throw CLI::ValidationError("--admin-dn",
                                   options.admin_dn + " does not lie below " + options.base);
    if (!options.admin_password_file.empty())
        options.admin_password = first_line(options.admin_password_file);
}

void bind(Gateway &gateway, const std::string &text, std::uint16_t port, bool tls)
{
    std::error_code error;
    const asio::ip::address address = asio::ip::make_address(text, error);
    if (error || !address.is_loopback())
        throw CLI::ValidationError("--address", text + " is not a loopback address");
    try {
        gateway.bind(address, port, tls);
    } catch (const std::system_error &problem) {
        std::string reason = problem.code().message();
        reason.front() = static_cast<char>(std::tolower(reason.front()));
        if (problem.code() == asio::error::address_in_use)
            reason += " (is another server there? --port 0 takes any free port)";
        if (problem.code() == asio::error::access_denied)
            reason += " (ports below 1024 are the system's: choose a higher one)";
        throw CannotStart("cannot listen on " + text + ":" + std::to_string(port) + ": " + reason);
    }
}

void listen(Gateway &gateway, const Options &options)
{
    for (const std::string &address : options.addresses)
        bind(gateway, address, options.port, false);
    if (options.ldaps_port)
        for (const std::string &address : options.addresses)
            bind(gateway, address, *options.ldaps_port, true);
}

// What StartTLS and ldaps use; CannotStart when the files are no certificate and its key.
std::unique_ptr<asio::ssl::context> make_tls(const Options &options)
{
    if (options.tls_certificate.empty())
        return {};
    auto tls = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    tls->set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    // Nobody sits there to be asked.
    tls->set_password_callback(
        [](std::size_t, asio::ssl::context::password_purpose) { return std::string(); });
    std::error_code error;
    tls->use_certificate_chain_file(options.tls_certificate, error);
    if (error)
        throw CannotStart("no certificate can be read from " + options.tls_certificate + ": " +
                          error.message());
    tls->use_private_key_file(options.tls_key, asio::ssl::context::pem, error);
    if (error)
        throw CannotStart("no key of " + options.tls_certificate + " can be read from " +
                          options.tls_key + ": " + error.message());
    return tls;
}

std::vector<std::string> supported_extensions(const Operations &operations, const Options &options)
{
    std::vector<std::string> names = operations.names();
    if (!options.tls_certificate.empty())
        names.push_back(LDAP_EXOP_START_TLS);
    return names;
}

void announce(const Gateway &gateway, const Options &options)
{
    const std::string content =
        options.ldif.path.empty()
            ? "a sample tree of " + std::to_string(options.entries) + " entries"
            : options.ldif.path;
    for (const std::string &url : gateway.urls())
        std::cout << "listening on " << url << "\n";
    std::cout << "base:          " << options.base << " (" << content << ")\n"
              << "administrator: " << options.admin_dn << "\n"
              << "password:      "
              << (options.admin_password_file.empty() ? options.admin_password
                                                      : "in " + options.admin_password_file)
              << std::endl;
}

std::size_t map_size(const Options &options)
{
    const std::size_t content = options.ldif.path.empty()
                                    ? options.entries * 1024
                                    : std::filesystem::file_size(options.ldif.path);
    return (std::size_t{1} << 30) + 16 * content;
}

// Each step when the one before has succeeded.
void in_turn(std::vector<std::function<void(Directory::Done)>> steps, Directory::Done done)
{
    if (steps.empty())
        return done({});
    const auto first = std::move(steps.front());
    steps.erase(steps.begin());
    first([steps = std::move(steps), done = std::move(done)](const Result &result) {
        if (!result.ok())
            return done(result);
        in_turn(steps, done);
    });
}

// The parts of a running sandbox, in the order in which they need one another: what is destroyed
// last is what everything else stands on.
class Sandbox {
public:
    explicit Sandbox(const Options &options)
        : options_(options), directory_(loop_), events_(loop_, options.events),
          sources_(events_, directory_),
          partitions_(loop_, directory_, options.base,
                      std::chrono::milliseconds(options.operation_delay)),
          replicas_(loop_, directory_, options.base),
          synchronisation_(loop_, directory_, replicas_),
          background_(loop_, directory_, replicas_, synchronisation_, options.base),
          filters_(directory_), names_(directory_, options.base),
          programs_(loop_, temporary_.path()), privileges_(directory_, programs_),
          bulk_updates_(directory_, options.base, {options.transaction_size, options.max_message}),
          backups_(directory_, options.base, backup_password(options)), tls_(make_tls(options)),
          gateway_(loop_, service_, temporary_.path() / "ldapi"),
          wakeup_(loop_, dup(signals_.descriptor()))
    {
        directory_.report_to(sources_);
        partitions_.on_change({[this](const std::string &root, const std::string &uuid,
                                      const std::string &parent_uuid, Directory::Done done) {
                                   replicas_.inherit(root, uuid, parent_uuid, std::move(done));
                               },
                               [this](const std::string &uuid, Directory::Done done) {
                                   replicas_.forget(uuid, std::move(done));
                               }});
        partitions_.offer(operations_);
        replicas_.offer(operations_);
        synchronisation_.offer(operations_);
        background_.offer(operations_);
        filters_.offer(operations_);
        names_.offer(operations_);
        privileges_.offer(operations_);
        offer_bind_identity(operations_);
        events_.offer(operations_);
        bulk_updates_.offer(operations_);
        backups_.offer(operations_);
        if (options.verbose)
            service_.log = [](const std::string &line) {
                std::cout << line << std::endl;
            };
    }

    // Returns when a signal asks for it; CannotStart when it cannot go on.
    void run();

private:
    void fill();
    void connect();
    void watch_signals();
    void fail(const std::string &reason);

    Options options_;
    Signals signals_;
    asio::io_context loop_;
    TemporaryDirectory temporary_;
    Directory directory_;
    Events events_;
    EventSources sources_;
    Operations operations_;
    Partitions partitions_;
    Replicas replicas_;
    Synchronisation synchronisation_;
    Background background_;
    Filters filters_;
    Names names_;
    Programs programs_;
    Privileges privileges_;
    BulkUpdates bulk_updates_;
    Backups backups_;
    std::unique_ptr<asio::ssl::context> tls_;
    Service service_{operations_, options_.max_message, {}, &sources_, tls_.get()};
    Gateway gateway_;
    std::optional<Slapd> slapd_;
    asio::posix::stream_descriptor wakeup_;
    std::optional<std::string> failure_;
};

void Sandbox::run()
{
    listen(gateway_, options_);
    slapd_.emplace(SlapdSettings{options_.slapd, options_.base, options_.admin_dn,
                                 options_.admin_password, options_.schema_files,
                                 supported_extensions(operations_, options_), options_.max_message,
                                 map_size(options_)},
                   temporary_, signals_);
    fill();
    slapd_->start();
    watch_signals();
    connect();
    loop_.run();

    // Tell the clients, and give the words a moment to leave.
    events_.close();
    gateway_.stop();
    directory_.close();
    loop_.restart();
    loop_.run_for(std::chrono::milliseconds(100));
    if (failure_)
        throw CannotStart(*failure_);
}

void Sandbox::fill()
{
    if (!options_.ldif.path.empty())
        return slapd_->load(options_.ldif);
    const std::string path = temporary_.path() / "sample.ldif";
    std::ofstream file(path);
    write_sample_tree(file, options_.base, options_.entries);
    file.close();
    if (!file)
        throw CannotStart("cannot write " + path);
    slapd_->load({path, options_.base, 0});
    std::filesystem::remove(path);
}

void Sandbox::connect()
{
    privileges_.use(
        {{slapd_->program(), "-T", "acl", "-f", slapd_->configuration()}, options_.admin_dn});
    directory_.connect(
        slapd_->socket(), options_.admin_dn, options_.admin_password,
        [this](const Result &bound) {
            if (!bound.ok())
                return fail("slapd refuses the administrator: " + bound.diagnostic);
            in_turn({[this](Directory::Done done) { partitions_.mark_base(std::move(done)); },
                     [this](Directory::Done done) { replicas_.prepare(std::move(done)); },
                     [this](Directory::Done done) { background_.prepare(std::move(done)); },
                     [this](Directory::Done done) { synchronisation_.prepare(std::move(done)); },
                     [this](Directory::Done done) {
                         sources_.learn_schema(std::move(done));
                     }},
                    [this](const Result &prepared) {
                        if (!prepared.ok())
                            return fail("cannot prepare the tree below " + options_.base + ": " +
                                        prepared.diagnostic);
                        gateway_.listen();
                        announce(gateway_, options_);
                    });
        },
        [this] { fail("slapd has ended: " + slapd_->last_words()); });
}

void Sandbox::watch_signals()
{
    wakeup_.async_wait(asio::posix::stream_descriptor::wait_read, [this](std::error_code) {
        while (const int signal = signals_.wait(0)) {
            if (Signals::means_stop(signal))
                return loop_.stop();
            if (slapd_->has_ended())
                return fail("slapd has ended: " + slapd_->last_words());
        }
        programs_.reap();
        watch_signals();
    });
}

void Sandbox::fail(const std::string &reason)
{
    failure_ = reason;
    loop_.stop();
}

} // namespace

} // namespace sandbox

int main(int argc, char **argv)
{
    sandbox::Options options;
    CLI::App app{sandbox::about, "greirige-sandbox"};
    sandbox::add_options(app, options);
    try {
        app.parse(argc, argv);
        sandbox::complete(options);
        sandbox::Sandbox(options).run();
        return 0;
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : sandbox::wrong_usage;
    } catch (const sandbox::Interrupted &) {
        return 0;
    } catch (const std::exception &error) {
        std::cerr << "greirige-sandbox: " << error.what() << "\n";
        return sandbox::cannot_start;
    }
}
