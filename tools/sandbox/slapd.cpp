#include "slapd.h"

#include "dn.h"
#include "schema.h"

#include <regex>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace sandbox {

namespace {

constexpr char schema_directory[] = "/etc/ldap/schema";
constexpr char module_directory[] = "/usr/lib/ldap";

// A word of slapd.conf.
std::string word(std::string_view text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

std::string percent_encoded(std::string_view text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))
            encoded += c;
        else
            encoded += {'%', digits[c >> 4 & 0xf], digits[c & 0xf]};
    }
    return encoded;
}

// The base as part of a URL in authz-regexp, where "%" means a substitution and "%%" itself.
std::string substituted(std::string_view base)
{
    return std::regex_replace(percent_encoded(base), std::regex("%"), "%%");
}

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// slapd keeps a table of every descriptor that it may have, so "unlimited" costs it gigabytes.
void limit_descriptors()
{
    constexpr rlim_t enough = 8192;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = std::min(limit.rlim_max, enough);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// slapd's words for the first entry that it refused, as "file:line: reason".
std::string loading_error(const std::string &ldif, const std::string &output)
{
    std::smatch found;
    const auto at = [&](const std::string &line, const std::string &reason) {
        return ldif + ":" + std::to_string(entry_line(ldif, std::stoul(line))) + ": " + reason;
    };
    static const std::regex missing("entries missing!\\s+entry \\d+: (.*)");
    static const std::regex refused(R"re(slapadd: dn="(.*)" \(line=(\d+)\): (?:\(\d+\) )?(.*))re");
    static const std::regex unplaced(R"re(slapadd: line (\d+): .*not configured to hold "(.*)")re");
    static const std::regex twice(R"re(could not add entry dn="(.*)" \(line=(\d+)\).*KEYEXIST)re");
    static const std::regex unparsed(R"re(slapadd: could not parse entry \(line=(\d+)\))re");
    static const std::regex detail("str2entry:? (?:NULL )?(.*)");
    if (std::regex_search(output, found, missing))
        return at(std::to_string(first_line_below(ldif, found[1])),
                  "the entry above it is missing: " + found[1].str());
    if (std::regex_search(output, found, twice))
        return at(found[2], "there is an entry of this name already: " + found[1].str());
    if (std::regex_search(output, found, refused))
        return at(found[2], found[3].str() + " (entry " + found[1].str() + ")");
    if (std::regex_search(output, found, unplaced))
        return at(found[1], "entry " + found[2].str() + " is not below the first entry");
    if (std::regex_search(output, found, unparsed)) {
        std::smatch why;
        return at(found[1], std::regex_search(output, why, detail) ? why[1].str() : "not an entry");
    }
    return ldif + ": " + trimmed(output);
}

} // namespace

Slapd::Slapd(SlapdSettings settings, const TemporaryDirectory &directory, const Signals &signals)
    : settings_(std::move(settings)), directory_(directory.path()), signals_(signals),
      program_(find_program(settings_.program))
{
    if (program_.empty())
        throw CannotStart("there is no " + settings_.program +
                          ", which holds the sandbox's tree: install it (apt-get install slapd), "
                          "or name it with --slapd");
    if (socket().size() >= sizeof(sockaddr_un::sun_path))
        throw CannotStart("the temporary directory's name is too long for a socket: " +
                          directory_.string() + " (set TMPDIR to a shorter one)");
    std::filesystem::create_directory(directory_ / "tree");
    std::filesystem::create_directory(directory_ / "system");
    configure();
    check();
}

void Slapd::configure() const
{
    std::ostringstream root_dse;
    root_dse << "dn:\nobjectClass: top\n";
    for (const std::string &name : settings_.supported_extensions)
        root_dse << "supportedExtension: " << name << "\n";
    write_file(directory_ / "root-dse.ldif", root_dse.str());
    write_file(directory_ / "sandbox.schema", std::string(schema));

    std::ostringstream conf;
    for (const char *name : {"core", "cosine", "nis", "inetorgperson", "dyngroup", "misc"})
        conf << "include " << schema_directory << "/" << name << ".schema\n";
    conf << "include " << word((directory_ / "sandbox.schema").string()) << "\n";
    for (const std::string &file : settings_.schema_files)
        conf << "include " << word(std::filesystem::absolute(file).string()) << "\n";
    if (std::filesystem::exists(std::filesystem::path(module_directory) / "back_mdb.la"))
        conf << "modulepath " << module_directory << "\nmoduleload back_mdb\n";
    conf << "rootDSE " << word((directory_ / "root-dse.ldif").string()) << "\n"
         << "loglevel none\n"
         << "sizelimit unlimited\n"
         << "timelimit unlimited\n"
         // The gateway has limits of its own, and says so when they are reached. What it sends
         // on behalf of a client is larger by the client's name, which slapd limits to 8 KiB.
         << "sockbuf_max_incoming " << settings_.max_message + 16 * 1024 << "\n"
         << "sockbuf_max_incoming_auth " << settings_.max_message + 16 * 1024 << "\n"
         << "conn_max_pending 20000\n"
         << "conn_max_pending_auth 20000\n"
         // No security layer, since what passes must stay readable for the gateway; passwords in
         // clear, since DIGEST-MD5 and SCRAM need them.
         << "sasl-secprops noanonymous,maxssf=0\n"
         << "password-hash {CLEARTEXT}\n"
         << "authz-regexp \"uid=([^,]*),(cn=[^,]*,)?cn=[^,]*,cn=auth\" \"ldap:///"
         << substituted(settings_.base)
         << "??sub?(uid=$1)\"\n"
         // EXTERNAL would take the gateway's user for the client; the gateway refuses it.
         << "access to dn.base=\"\" attrs=supportedSASLMechanisms val.regex=\"^EXTERNAL$\" by * "
            "none\n"
         << "access to * by * read\n"
         << "\ndatabase mdb\n"
         << "suffix " << word(settings_.base) << "\n"
         << "rootdn " << word(settings_.admin_dn) << "\n"
         << "rootpw " << word(settings_.admin_password) << "\n"
         << "directory " << word((directory_ / "tree").string()) << "\n"
         << "maxsize " << settings_.map_size << "\n"
         << "dbnosync\n"
         // Each index slows every load down, substring indexes threefold.
         << "index objectClass,uid,cn,sn,mail,member,entryUUID,entryCSN,partitionState eq\n"
         << access_rules()
         // The sandbox's own entries, beside the tree so that nothing of it counts them.
         << "\ndatabase mdb\n"
         << "suffix " << word(system_base) << "\n"
         << "rootdn " << word(settings_.admin_dn) << "\n"
         << "directory " << word((directory_ / "system").string()) << "\n"
         << "maxsize " << (std::size_t{64} << 20) << "\n"
         << "dbnosync\n"
         << "index objectClass,cn,entryUUID eq\n"
         << "access to *" << administrators() << " by * read\n";
    write_file(configuration(), conf.str());
}

void Slapd::check() const
{
    const std::filesystem::path output = directory_ / "slaptest.log";
    Child slaptest({program_, "-T", "test", "-u", "-Q", "-f", configuration()}, output);
    if (slaptest.wait(signals_) != 0)
        throw CannotStart("slapd refuses its configuration: " + trimmed(read_file(output)));
}

std::string Slapd::administrators() const
{
    return " by group.exact=" + word("cn=administrators,ou=groups," + settings_.base) + " write";
}

// Everybody reads, people change their own password and telephone numbers, administrators (a
// group, if the tree has it) change everything; the payroll is for its own group only.
std::string Slapd::access_rules() const
{
    const std::string administrators = this->administrators();
    const std::string payroll =
        " by group.exact=" + word("cn=payroll,ou=groups," + settings_.base) + " write";
    std::ostringstream rules;
    rules << "access to attrs=userPassword" << administrators
          << " by self write by anonymous auth by * none\n"
          << "access to dn.subtree=" << word("ou=payroll," + settings_.base) << administrators
          << payroll << " by * none\n"
          << "access to attrs=telephoneNumber,mobile,homePhone" << administrators
          << " by self write by * read\n"
          << "access to *" << administrators << " by * read\n";
    return rules.str();
}

void Slapd::load(const LdifFile &ldif)
{
    std::string file = ldif.path;
    if (ldif.version_line > 0) {
        file = directory_ / "copy.ldif";
        copy_without_version(ldif, file);
    }
    const std::filesystem::path output = directory_ / "slapadd.log";
    Child slapadd({program_, "-T", "add", "-q", "-f", configuration(), "-l", file}, output);
    if (slapadd.wait(signals_) != 0)
        throw CannotStart(loading_error(ldif.path, read_file(output)));
    std::filesystem::remove(directory_ / "copy.ldif");
}

void Slapd::start()
{
    limit_descriptors();
    const std::string url = "ldapi://" + percent_encoded(socket());
    process_.emplace(
        std::vector<std::string>{program_, "-d", "0", "-f", configuration(), "-h", url}, log());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket().copy(address.sun_path, sizeof address.sun_path - 1);
    for (;;) {
        const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool accepted =
            connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(probe);
        if (accepted)
            return;
        if (has_ended())
            throw CannotStart("slapd does not start: " + last_words());
        if (Signals::means_stop(signals_.wait(5)))
            throw Interrupted();
    }
}

bool Slapd::has_ended()
{
    return process_ && process_->has_ended();
}

std::string Slapd::last_words() const
{
    const std::string words = trimmed(read_file(log()));
    return words.empty() ? "it says nothing" : words;
}

} // namespace sandbox
