// What `greirige load` makes of a file of people, against ldapadd and against slapd itself, in the
// same sandbox:
//
//   loopback   the file by ldapadd, by greirige load, and as adds that are sent to slapd without
//              the gateway and without waiting for answers: what slapd can take
//   distant    the same with 10 ms added to each round trip
//
// Rounds are short and many, each has its turns right after one another, and what is compared are
// the medians of the rounds' ratios: so it matters little what else the machine does. The program
// fails when a bar is missed: faster than ldapadd on loopback, at least ten times as fast from
// afar.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <ldap.h>
#include <nlohmann/json.hpp>

#include "support/process.h"
#include "support/relay.h"
#include "tool/sandbox.h"

namespace {

using namespace std::chrono_literals;
using sandbox_test::admin_dn;
using sandbox_test::base;
using sandbox_test::Sandbox;
using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

constexpr int rounds = 25;
constexpr int rounds_from_afar = 3;
constexpr double bar_on_loopback = 1;
constexpr double bar_from_afar = 10;

struct Person {
    std::string dn;
    Attributes attributes;
};

Person person(const std::string &parent, int number)
{
    const std::string id = std::to_string(100000 + number);
    return {"uid=user" + id + ',' + parent,
            {{"objectClass", {"top", "person", "organizationalPerson", "inetOrgPerson"}},
             {"uid", {"user" + id}},
             {"cn", {"Jordan Example " + id}},
             {"sn", {"Example " + id}},
             {"givenName", {"Jordan"}},
             {"mail", {"user" + id + "@example.com"}},
             {"telephoneNumber", {"+49 30 5550 " + id}},
             {"title", {"Senior Administrator"}},
             {"departmentNumber", {"4711"}},
             {"employeeNumber", {id}},
             {"description", {"Generated entry number " + id + " of the bulk update benchmark"}},
             {"l", {"Berlin"}}}};
}

double seconds_for(const std::function<void()> &work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

[[noreturn]] void fail(const std::string &why)
{
    std::cerr << "load_bench: " << why << '\n';
    std::exit(1);
}

support::Finished run(const std::vector<std::string> &command)
{
    support::ProcessOptions options;
    options.environment.emplace("LDAPNOINIT", "yes");
    options.timeout = 5min;
    support::Finished finished = support::run(command, options);
    if (finished.status != 0)
        fail(command.front() + ": " + finished.err.substr(0, 2000));
    return finished;
}

class Contest {
public:
    explicit Contest(int people) : people_(people)
    {
        relay_ = std::make_unique<support::DelayingRelay>(sandbox_.port(), 5ms);
    }

    void ldapadd(const std::string &name, const std::string &url)
    {
        const std::string parent = new_parent();
        const std::string file = write(parent);
        note(name, seconds_for([&] {
                 run({"ldapadd", "-x", "-H", url, "-D", admin_dn, "-w", "secret", "-f", file});
             }));
    }

    void load(const std::string &name, const std::string &url)
    {
        const std::string parent = new_parent();
        const std::string file = write(parent);
        std::string summary;
        note(name, seconds_for([&] {
                 summary = run({TOOL_PROGRAM, "-x", "-H", url, "-D", admin_dn, "-w", "secret",
                                "--json", "load", file})
                               .out;
             }));
        const auto json = nlohmann::json::parse(summary);
        if (json["added"] != people_)
            fail("greirige load added " + json["added"].dump());
        waited_[name].push_back(json["secondsWaited"].get<double>() /
                                json["seconds"].get<double>());
    }

    // As many under way as the gateway keeps in slapd.
    void slapd(const std::string &name)
    {
        constexpr int most_under_way = 32;
        const std::string parent = new_parent();
        std::vector<Person> everybody;
        for (int number = 0; number < people_; ++number)
            everybody.push_back(person(parent, number));
        const auto session = sandbox_test::connect(sandbox_.slapd_url(), admin_dn, "secret");
        note(name, seconds_for([&] {
                 int under_way = 0;
                 for (Person &each : everybody) {
                     if (under_way == most_under_way)
                         take_answer(session.get());
                     else
                         ++under_way;
                     send(session.get(), each);
                 }
                 for (; under_way > 0; --under_way)
                     take_answer(session.get());
             }));
    }

    std::string near() const
    {
        return sandbox_.url();
    }
    std::string distant() const
    {
        return relay_->url();
    }
    double seconds(const std::string &name) const
    {
        return median(times_.at(name));
    }
    // How many times as fast one was as the other, in the same round.
    double ratio(const std::string &name, const std::string &against) const
    {
        std::vector<double> ratios;
        for (std::size_t round = 0; round < times_.at(name).size(); ++round)
            ratios.push_back(times_.at(against)[round] / times_.at(name)[round]);
        return median(ratios);
    }
    void show(const std::string &name, const std::string &against) const
    {
        std::printf("  %-22s %8.3f s  %8.0f/s  %6.2f times as fast as %s", name.c_str(),
                    seconds(name), people_ / seconds(name), ratio(name, against), against.c_str());
        if (const auto waited = waited_.find(name); waited != waited_.end())
            std::printf(", %.0f %% of it spent waiting for the server",
                        100 * median(waited->second));
        std::printf("\n");
    }

private:
    static double median(std::vector<double> numbers)
    {
        std::sort(numbers.begin(), numbers.end());
        return numbers[numbers.size() / 2];
    }
    void note(const std::string &name, double seconds)
    {
        times_[name].push_back(seconds);
    }

    // People of their own for each, so that none finds what another one has made.
    std::string new_parent()
    {
        const std::string name = "contest" + std::to_string(++parents_);
        std::string dn = "ou=" + name + ',' + base;
        const support::Finished finished = sandbox_.client_as_admin(
            "ldapadd", {}, "dn: " + dn + "\nobjectClass: organizationalUnit\nou: " + name + '\n');
        if (finished.status != 0)
            fail(finished.err);
        return dn;
    }
    std::string write(const std::string &parent) const
    {
        std::string path = directory_.path() + "/people.ldif";
        std::ofstream file(path);
        for (int number = 0; number < people_; ++number) {
            const Person each = person(parent, number);
            file << "dn: " << each.dn << '\n';
            for (const auto &[type, values] : each.attributes)
                for (const std::string &value : values)
                    file << type << ": " << value << '\n';
            file << '\n';
        }
        return path;
    }

    static void send(LDAP *ld, Person &person)
    {
        std::vector<std::vector<char *>> values;
        std::vector<LDAPMod> mods;
        for (auto &[type, texts] : person.attributes) {
            std::vector<char *> &pointers = values.emplace_back();
            for (std::string &text : texts)
                pointers.push_back(text.data());
            pointers.push_back(nullptr);
            LDAPMod &mod = mods.emplace_back();
            mod.mod_op = LDAP_MOD_ADD;
            mod.mod_type = type.data();
        }
        std::vector<LDAPMod *> list;
        for (std::size_t at = 0; at < mods.size(); ++at) {
            mods[at].mod_values = values[at].data();
            list.push_back(&mods[at]);
        }
        list.push_back(nullptr);
        int id = 0;
        if (ldap_add_ext(ld, person.dn.c_str(), list.data(), nullptr, nullptr, &id) != LDAP_SUCCESS)
            fail("slapd takes no add");
    }
    static void take_answer(LDAP *ld)
    {
        LDAPMessage *message = nullptr;
        int code = LDAP_OTHER;
        if (ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, nullptr, &message) <= 0 ||
            ldap_parse_result(ld, message, &code, nullptr, nullptr, nullptr, nullptr, 1) !=
                LDAP_SUCCESS ||
            code != LDAP_SUCCESS)
            fail("slapd refuses an add");
    }

    int people_;
    Sandbox sandbox_{{"--entries", "100"}};
    std::unique_ptr<support::DelayingRelay> relay_;
    support::TemporaryDirectory directory_;
    int parents_ = 0;
    std::map<std::string, std::vector<double>> times_;
    std::map<std::string, std::vector<double>> waited_; // the share of the time
};

bool holds(const std::string &what, double ratio, double bar)
{
    std::printf("%s %.2f times as fast as ldapadd %s (bar: %.0f): %s\n", "greirige load is", ratio,
                what.c_str(), bar, ratio >= bar ? "held" : "MISSED");
    return ratio >= bar;
}

} // namespace

int main(int argc, char **argv)
{
    const int people = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int people_afar = std::max(1, people / 2);

    Contest near(people);
    Contest afar(people_afar);
    for (int round = 0; round < rounds; ++round) {
        near.ldapadd("ldapadd", near.near());
        near.load("greirige load", near.near());
        near.slapd("slapd itself");
    }
    for (int round = 0; round < rounds_from_afar; ++round) {
        afar.ldapadd("ldapadd", afar.distant());
        afar.load("greirige load", afar.distant());
    }
    std::printf("%d people on loopback, the median of %d rounds:\n", people, rounds);
    for (const char *name : {"ldapadd", "greirige load", "slapd itself"})
        near.show(name, "ldapadd");
    std::printf("%d people with 10 ms added to each round trip, the median of %d rounds:\n",
                people_afar, rounds_from_afar);
    for (const char *name : {"ldapadd", "greirige load"})
        afar.show(name, "ldapadd");
    std::printf("greirige load comes to %.0f %% of the rate that slapd itself can take\n",
                100 * near.ratio("greirige load", "slapd itself"));
    const bool fast = holds("on loopback", near.ratio("greirige load", "ldapadd"), bar_on_loopback);
    const bool far = holds("from afar", afar.ratio("greirige load", "ldapadd"), bar_from_afar);
    return fast && far ? 0 : 1;
}
