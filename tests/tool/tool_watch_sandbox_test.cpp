// greirige watch against the sandbox: an administrator watches a directory live.

#include <csignal>
#include <map>

#include <gtest/gtest.h>

#include "sandbox.h"
#include "watch.h"

using namespace tool_test;
using namespace std::chrono_literals;
using sandbox_test::admin_dn;
using sandbox_test::base;
using sandbox_test::Sandbox;
using support::Child;
using support::Finished;
using Json = nlohmann::ordered_json;

namespace {

const std::string person = "uid=jsmith,ou=people," + base;
const std::string monitor_start = "20"; // comes when the registration is in force

Arguments as_admin(const Sandbox &sandbox, const Arguments &arguments)
{
    Arguments all{"-x", "-H", sandbox.url(), "-D", admin_dn, "-w", "secret", "watch"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "200"});
    return one;
}

// A watch that is known to have begun.
class Watch {
public:
    Watch(const Sandbox &sandbox, Arguments arguments)
        : tool_((arguments.insert(arguments.begin(), {monitor_start, "--json"}),
                 command(as_admin(sandbox, arguments))),
                isolated())
    {
        EXPECT_EQ(next()["eventType"], 20);
    }
    Json next()
    {
        return Json::parse(tool_.read_line());
    }
    Child &tool()
    {
        return tool_;
    }

private:
    Child tool_;
};

std::string unit(const std::string &name)
{
    return "dn: ou=" + name + "," + base +
           "\nchangetype: add\nobjectClass: organizationalUnit\nou: " + name + "\n\n";
}

std::string removal(const std::string &name)
{
    return "dn: ou=" + name + "," + base + "\nchangetype: delete\n\n";
}

void change(const Sandbox &sandbox, const std::string &ldif)
{
    const Finished finished = sandbox.client_as_admin("ldapmodify", {}, ldif);
    EXPECT_EQ(finished.status, 0) << finished.err;
}

// ---- Samples ------------------------------------------------------------------------------------

// The sandbox's sample of each type, without what differs from connection to connection.
const std::map<int, std::string> samples{
    {1, R"({"perpetratorDN":"ADMIN","entryDN":"PERSON","className":"inetOrgPerson","verb":1,)"
        R"("flags":0,"creationTime":STAMP,"newDN":null})"},
    {2, R"({"perpetratorDN":"ADMIN","entryDN":"PERSON","className":"inetOrgPerson","verb":2,)"
        R"("flags":0,"creationTime":STAMP,"newDN":null})"},
    {3, R"({"perpetratorDN":"ADMIN","entryDN":"PERSON","className":"inetOrgPerson","verb":3,)"
        R"("flags":0,"creationTime":STAMP,"newDN":"uid=john.smith,ou=people,dc=example,dc=com"})"},
    {4, R"({"perpetratorDN":"ADMIN","entryDN":"PERSON","className":"inetOrgPerson","verb":4,)"
        R"("flags":0,"creationTime":STAMP,"newDN":"uid=jsmith,ou=sales,dc=example,dc=com"})"},
    {5, R"({"perpetratorDN":"ADMIN","entryDN":"PERSON","className":"inetOrgPerson","verb":5,)"
        R"("flags":0,"creationTime":STAMP,"newDN":null})"},
    {10, R"({"verb":10,"perpetratorDN":"ADMIN","entryDN":"PERSON",)"
         R"("attributeName":"telephoneNumber","syntaxOID":"1.3.6.1.4.1.1466.115.121.1.50",)"
         R"("className":"inetOrgPerson","timeStamp":STAMP,"size":13,)"
         R"("value":{"base64":"KzQ5IDMwIDEyMzQ1Ng==","text":"+49 30 123456"}})"},
    {11, R"({"verb":11,"perpetratorDN":"ADMIN","entryDN":"PERSON",)"
         R"("attributeName":"telephoneNumber","syntaxOID":"1.3.6.1.4.1.1466.115.121.1.50",)"
         R"("className":"inetOrgPerson","timeStamp":STAMP,"size":13,)"
         R"("value":{"base64":"KzQ5IDMwIDEyMzQ1Ng==","text":"+49 30 123456"}})"},
    {20,
     R"({"dstime":1767225600,"milliseconds":250,"curProcess":42,"verb":20,)"
     R"("perpetratorDN":"ADMIN","intValues":[1,2,3,4],"strValues":["first","second","third"]})"},
    {21,
     R"({"dstime":1767225600,"milliseconds":250,"curProcess":42,"verb":21,)"
     R"("perpetratorDN":"ADMIN","intValues":[1,2,3,4],"strValues":["first","second","third"]})"},
    {30, "null"},
    {31, R"({"entryDN":"PERSON","type":1,"emuObjFlags":2,"security":49,"name":"JSMITH"})"},
    {32, R"({"entryDN":"PERSON","retryCount":3,"valueDN":"SERVER","referralCount":2,)"
         R"("referrals":[{"type":1,"length":4,"address":LOOPBACK},)"
         R"({"type":1,"length":4,"address":LOOPBACK}]})"},
    {33, R"({"connectionDN":"SERVER","flags":1,"sourceModule":"loader","name":"sample.module",)"
         R"("description":"a module that was loaded"})"},
    {34, R"({"type":1,"length":4,"data":LOOPBACK})"},
    {35, R"({"connectionDN":"SERVER","oldFlags":1,"newFlags":3,"sourceModule":"connections"})"},
    {36, R"({"flags":1,"proto":6,"addrFamily":2,"addrSize":4,"addr":LOOPBACK,"pstkname":"tcp",)"
         R"("sourceModule":"listener"})"},
    {37, R"({"type":3,"name":"logLevel","value":{"utf8Str":"verbose"}})"},
    {38, R"({"logTime":1767225600,"moduleName":"sandbox","messageLevel":"information",)"
         R"("messageEvent":"start","messageCode":"S-1","messageDesc":"the sandbox has started",)"
         R"("statusDoc":"ready"})"},
    {39, R"({"dsTime":1767225600,"milliseconds":250,"perpetratorDN":"ADMIN",)"
         R"("formatString":"%d %s %b %i %a %t %v","verb":39,"paramCount":7,"parameters":[)"
         R"({"type":1,"value":{"integer":1}},{"type":2,"value":{"utf8Str":"text"}},)"
         R"({"type":3,"value":{"binary":{"size":3,"data":)"
         R"({"base64":"AAEC","text":"\u0000\u0001\u0002"}}}},{"type":4,"value":{"integer":4}},)"
         R"({"type":5,"value":{"netAddress":{"type":1,"length":4,"data":LOOPBACK}}},)"
         R"({"type":6,"value":{"timeStamp":STAMP}},)"
         R"({"type":7,"value":{"timeStampVector":{"count":2,"timeStamps":[STAMP,STAMP]}}}]})"},
    {40, "null"},
    {41, "null"},
    {42, "null"},
    {100, R"({OPERATION,"bindDN":"ADMIN","bindType":3,"authMechanism":"SCRAM-SHA-1",CONTROL,)"
          R"("resultCode":0})"},
    {101, R"({CONNECTION})"},
    {102, R"({CONNECTION})"},
    {103, R"({OPERATION,"bindDN":"ADMIN","base":"dc=example,dc=com","scope":2,)"
          R"x("filter":"(uid=j*)","attrs":["cn","mail"],CONTROL,"resultCode":0})x"},
    {104, R"({OPERATION,"entryDN":"PERSON","className":"inetOrgPerson","attrs":["cn","mail"],)"
          R"("resultCode":0})"},
    {105, R"({OPERATION,"operation":104,"bindDN":"ADMIN","entryDN":"PERSON",)"
          R"("className":"inetOrgPerson",CONTROL,"resultCode":0})"},
    {106, R"({OPERATION,"operation":74,"bindDN":"ADMIN","entryDN":"PERSON",)"
          R"("className":"inetOrgPerson",CONTROL,"resultCode":0})"},
    {107, R"({OPERATION,"operation":102,"bindDN":"ADMIN","entryDN":"PERSON",)"
          R"("className":"inetOrgPerson",CONTROL,"resultCode":0})"},
    {108, R"({OPERATION,"bindDN":"ADMIN","compareDN":"PERSON","assertionType":"sn",)"
          R"("assertionValue":"Smith","className":"inetOrgPerson","resultCode":6})"},
    {109, R"({OPERATION,"bindDN":"ADMIN","oldRDN":"uid=jsmith","newRDN":"uid=john.smith",)"
          R"("className":"inetOrgPerson",CONTROL,"resultCode":0})"},
    {110, R"({OPERATION,"operation":7,"bindDN":"ADMIN","resultCode":0})"},
    {111, R"({OPERATION,"operation":119,"extensionOID":"1.3.6.1.4.1.4203.1.11.3",)"
          R"("bindDN":"ADMIN","resultCode":0})"},
    {112, R"({OPERATION,"operation":3,"extensionOID":"2.16.840.1.424242.1.27.100.3",)"
          R"("bindDN":"ADMIN","value1":"0","value2":"ou=people,dc=example,dc=com",)"
          R"("value3":"third","value4":"fourth","resultCode":0})"},
    {113, R"({OPERATION,"operation":99,"resultCode":0,"matchedDN":"dc=example,dc=com",)"
          R"("referral":["ldap://127.0.0.1:3890/ou=people,dc=example,dc=com"]})"},
    {114, R"({OPERATION,"bindDN":"ADMIN","entryDN":"PERSON","passwordModifyType":1,)"
          R"("resultCode":0})"},
    {115, R"({"time":1767225600,"inetAddr":"CLIENT"})"},
};

Json sample(int type)
{
    const std::vector<std::pair<std::string, std::string>> words{
        {"OPERATION", R"("connectionData":{CONNECTION},"msgID":9,"time":1767225600)"},
        {"CONNECTION", R"("connection":"NUMBER","time":1767225600,"inetAddr":"CLIENT")"},
        {"CONTROL", R"("controlOID":["2.16.840.1.113730.3.4.2"])"},
        {"ADMIN", admin_dn},
        {"PERSON", person},
        {"SERVER", sandbox_test::server1},
        {"STAMP", R"({"seconds":1767225600,"replicaNumber":1,"event":7})"},
        {"LOOPBACK", R"({"base64":"fwAAAQ==","text":"127.0.0.1"})"},
    };
    std::string text = samples.at(type);
    for (const auto &[word, meaning] : words)
        for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos;)
            text.replace(at, word.size(), meaning);
    return Json::parse(text);
}

// The same of an event that came.
Json without_the_client(Json data)
{
    Json &connection = data.contains("connectionData") ? data["connectionData"] : data;
    if (connection.contains("connection")) {
        EXPECT_GT(connection["connection"], 0);
        connection["connection"] = "NUMBER";
    }
    if (connection.contains("inetAddr")) {
        EXPECT_TRUE(connection["inetAddr"].get<std::string>().starts_with("127.0.0.1:"));
        connection["inetAddr"] = "CLIENT";
    }
    return data;
}

void expect_samples(const std::vector<Json> &shown, bool with_addresses)
{
    std::map<int, int> seen;
    for (const Json &event : shown) {
        SCOPED_TRACE(event.dump());
        const int type = event["eventType"];
        ++seen[type];
        EXPECT_EQ(event["eventResult"], type == 108 ? 6 : 0);
        EXPECT_EQ(without_the_client(event["eventData"]).dump(), sample(type).dump());
        const bool has_trailer = with_addresses && !event["eventData"].is_null();
        EXPECT_EQ(
            event["address"],
            has_trailer
                ? Json::parse(
                      R"({"type":1,"length":4,"data":{"base64":"fwAAAQ==","text":"127.0.0.1"}})")
                : Json());
    }
    for (const auto &[type, text] : samples)
        EXPECT_EQ(seen[type], 1) << type;
    EXPECT_EQ(seen.size(), samples.size());
}

TEST(Samples, of_every_type_are_shown_field_by_field)
{
    for (const bool with_addresses : {false, true}) {
        std::vector<std::string> options{"--emit-all", "--entries", "100"};
        if (with_addresses)
            options.emplace_back("--with-addresses");
        const Sandbox emitting(options);
        const std::string count = std::to_string(samples.size());
        const Finished json = greirige(as_admin(emitting, {"--json", "--count", count}));
        EXPECT_EQ(json.status, 0) << json.err;
        EXPECT_EQ(json.err, "");
        expect_samples(objects(json.out), with_addresses);
        const Finished text = greirige(as_admin(emitting, {"--count", count}));
        EXPECT_EQ(text.status, 0) << text.err;
        EXPECT_EQ(lines(text.out).size(), samples.size());
    }
}

// ---- Live ---------------------------------------------------------------------------------------

TEST(Live, changes_of_any_client_are_shown_as_they_happen)
{
    Watch watch(sandbox(), {"1", "2", "10"});
    change(sandbox(), unit("watched"));
    Json event = watch.next();
    EXPECT_EQ(event["eventType"], 1);
    EXPECT_EQ(event["kind"], "entry");
    EXPECT_EQ(event["eventData"]["entryDN"], "ou=watched," + base);
    EXPECT_EQ(event["eventData"]["perpetratorDN"], admin_dn);
    event = watch.next();
    EXPECT_EQ(event["eventType"], 10);
    EXPECT_EQ(event["eventData"]["value"]["text"], "organizationalUnit");
    EXPECT_EQ(watch.next()["eventData"]["attributeName"], "ou");
    change(sandbox(), removal("watched"));
    EXPECT_EQ(watch.next()["eventType"], 2);
}

TEST(Live, status_chooses_failures)
{
    Watch watch(sandbox(), {"106:2", "105:1"}); // deletes that failed, adds that did not
    const Finished refused = sandbox().client_as_admin("ldapmodify", {"-c"},
                                                       removal("nowhere") + unit("chosen") +
                                                           unit("chosen") + removal("chosen"));
    EXPECT_NE(refused.status, 0);
    Json event = watch.next();
    EXPECT_EQ(event["eventType"], 106);
    EXPECT_EQ(event["eventResult"], LDAP_NO_SUCH_OBJECT);
    event = watch.next();
    EXPECT_EQ(event["eventType"], 105);
    EXPECT_EQ(event["eventResult"], LDAP_SUCCESS);
    change(sandbox(), unit("chosen"));
    EXPECT_EQ(watch.next()["eventType"], 105) << "nothing in between";
    change(sandbox(), removal("chosen"));
}

TEST(Live, filter_chooses_entries)
{
    Watch watch(sandbox(), {"1", "--filter", "(|(type=monitor-start)(entryDN=ou=b," + base + "))"});
    change(sandbox(), unit("a") + unit("b") + unit("c"));
    EXPECT_EQ(watch.next()["eventData"]["entryDN"], "ou=b," + base);
    change(sandbox(), removal("a") + removal("b") + removal("c") + unit("b"));
    EXPECT_EQ(watch.next()["eventData"]["entryDN"], "ou=b," + base);
    change(sandbox(), removal("b"));
}

TEST(Live, without_types_it_is_every_event_but_those_on_request)
{
    Child tool(command(as_admin(sandbox(), {"--json"})), isolated());
    // It sees itself: the bind before it is over, the next search is not.
    std::vector<int> types;
    std::string searched;
    for (int tries = 0; tries < 50 && searched.empty(); ++tries) {
        EXPECT_EQ(sandbox().client("ldapsearch", {"-b", base, "-s", "base", "1.1"}).status, 0);
        try {
            for (;;) {
                const Json event = Json::parse(tool.read_line(200ms));
                types.push_back(event["eventType"]);
                if (event["eventType"] == 103)
                    searched = event["eventData"]["base"];
            }
        } catch (const std::runtime_error &) { // nothing more for now
        }
    }
    EXPECT_EQ(searched, base);
    for (const int on_request : {20, 21, 104, 113})
        EXPECT_EQ(std::count(types.begin(), types.end(), on_request), 0) << on_request;
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST(Refusal, of_types_and_statuses_names_them_and_the_reason)
{
    const Finished finished = greirige(as_admin(sandbox(), {"1", "9999", "3:7"}));
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.err,
              "greirige: cannot watch events of type 1, 9999, 3:7 on " +
                  sandbox().url().substr(0, sandbox().url().size() - 1) +
                  ": Server is unwilling to perform (53), the server says \"event 9999: no such "
                  "event type; event 3: no such status 7\"; it rejects the events 9999, 3:7\n");
}

TEST(Refusal, of_a_filter_says_what_is_wrong_with_it)
{
    for (const auto &[filter, told] : std::map<std::string, std::string>{
             {"(foo", "compares nothing"}, {"(nonsense=1)", "nonsense"}}) {
        const Finished finished = greirige(as_admin(sandbox(), {"1", "--filter", filter}));
        EXPECT_EQ(finished.status, 1) << filter;
        EXPECT_NE(finished.err.find("cannot watch events of type 1 that match \"" + filter + "\""),
                  std::string::npos)
            << finished.err;
        EXPECT_NE(finished.err.find(told, finished.err.find("the server says")), std::string::npos)
            << finished.err;
        EXPECT_TRUE(finished.err.ends_with("; it rejects the events 1\n")) << finished.err;
    }
}

TEST(Refusal, of_somebody_anonymous_says_so)
{
    const Finished finished = greirige({"-x", "-H", sandbox().url(), "watch"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("Insufficient access (50)"), std::string::npos) << finished.err;
}

// ---- Comings and goings -------------------------------------------------------------------------

TEST(Signal, ends_the_registration_at_the_server)
{
    Watch other(sandbox(), {"21"});
    Watch watch(sandbox(), {"1"});
    EXPECT_EQ(other.next()["eventType"], 20) << "the second registration";
    watch.tool().signal(SIGINT);
    EXPECT_EQ(watch.tool().wait().status, 128 + SIGINT);
    EXPECT_EQ(other.next()["eventType"], 21) << "is over";
}

TEST(Stop, of_the_server_is_told)
{
    Sandbox stopping({"--entries", "100"});
    Watch watch(stopping, {"1"});
    EXPECT_TRUE(stopping.ends_cleanly());
    const Finished finished = watch.tool().wait();
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("has ended the watch: Server is unavailable (52)"),
              std::string::npos)
        << finished.err;
}

TEST(Reconnect, goes_on_when_the_server_comes_back)
{
    auto first = std::make_unique<Sandbox>(std::vector<std::string>{"--entries", "100"});
    const std::string port = std::to_string(first->port());
    Watch watch(*first, {"1", "--reconnect"});
    change(*first, unit("before"));
    const Json before = watch.next();
    EXPECT_EQ(before["eventData"]["entryDN"], "ou=before," + base);
    first->process().signal(SIGKILL); // no closing response
    first.reset();

    Sandbox second({"--entries", "100", "--port", port});
    Json gap = watch.next();
    EXPECT_EQ(gap["gap"]["from"], before["received"]) << gap;
    EXPECT_LT(gap["gap"]["from"], gap["gap"]["to"]) << gap;
    EXPECT_EQ(watch.next()["eventType"], 20) << "registered again";
    change(second, unit("after"));
    const Json after = watch.next();
    EXPECT_EQ(after["eventData"]["entryDN"], "ou=after," + base);
    EXPECT_GT(after["received"], gap["gap"]["to"]);
    watch.tool().signal(SIGTERM);
    EXPECT_EQ(watch.tool().wait().status, 128 + SIGTERM);
}

TEST(Reconnect, goes_on_after_the_server_has_dropped_a_watch_that_was_not_read)
{
    Sandbox impatient({"--entries", "1000", "--event-queue", "20000"});
    Watch watch(impatient, {"104", "105", "--reconnect"});
    // The tool stands still, and the sandbox has more to say than it and the connection keep.
    watch.tool().signal(SIGSTOP);
    const sandbox_test::Session other = impatient.admin();
    for (int round = 0; round < 60; ++round)
        EXPECT_EQ(sandbox_test::search(other, base, "(objectClass=*)").size(), 1000U);
    watch.tool().signal(SIGCONT);
    Json event = watch.next();
    while (!event.contains("gap"))
        event = watch.next();
    EXPECT_NE(event["gap"]["reason"].get<std::string>().find("Administrative limit exceeded (11)"),
              std::string::npos)
        << event;
    EXPECT_EQ(watch.next()["eventType"], 20) << "registered again";
    change(impatient, unit("more"));
    event = watch.next();
    while (event["eventType"] == 104) // the tool's own search, by which it knows that it is back
        event = watch.next();
    EXPECT_EQ(event["eventType"], 105);
}

} // namespace
