// A program that uses every part of the layer. Compiled by tests in many ways: with all warnings by
// both compilers, without exceptions, and with one result dropped, which must not compile.

#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include "greirige.hpp"

using namespace greirige;

namespace {

int watch(const Session &session)
{
    Result<EventStream> stream = EventStream::open(session, {{.type = 1}, {.type = 2}});
    if (!stream)
        return stream.error().code;
#ifdef DROPPED
    stream->next();
#endif
    for (const Result<Event> &event :
         stream->until(EventStream::Clock::now() + std::chrono::minutes(1))) {
        if (!event)
            continue;
        if (const auto *entry = event->get_if<EntryEvent>())
            std::cout << entry->entry_dn.value_or("?") << '\n';
        std::visit(
            [](const auto &view) {
                for_each_field(
                    view, [](std::string_view name, const auto &) { std::cout << name << '\n'; });
            },
            event->data());
    }
    return stream->end_of_stream() ? stream->end_of_stream()->code : 0;
}

int load(const Session &session)
{
    Result<BulkLoad> bulk = BulkLoad::start(session,
                                            [](const BulkFailure &failure) {
                                                std::cerr << failure.dn << ": "
                                                          << to_string(failure.error) << '\n';
                                            },
                                            {.operations = 50});
    if (!bulk)
        return bulk.error().code;
    const std::vector<Update> updates{
        AddEntry{"cn=a,o=x", {{"objectClass", {"person"}}, {"cn", {"a"}}, {"sn", {"a"}}}},
        ModifyEntry{"cn=a,o=x", {{ChangeKind::replace, {"sn", {"b"}}}}},
        RenameEntry{.dn = "cn=a,o=x", .new_rdn = "cn=b", .new_superior = "ou=c,o=x"},
        DeleteEntry{"cn=b,ou=c,o=x"}};
#ifdef DROPPED
    bulk->submit(updates[0]);
#endif
    for (const Update &update : updates)
        if (Result<void> taken = bulk->submit(update); !taken)
            return taken.error().code;
#ifdef DROPPED
    bulk->finish();
#endif
    return bulk->finish() ? 0 : 1;
}

int keep(const Session &session)
{
#ifdef DROPPED
    session.backup_object("cn=a,o=x", Password("word"));
#endif
    Result<Backup> backup = session.backup_object("cn=a,o=x", Password("word"));
    if (!backup)
        return backup.error().code;
    Result<void> restored = session.restore_object("cn=a,o=x", Password("word"), *backup);
    return restored ? 0 : restored.error().code;
}

} // namespace

int main()
{
    const Session session(nullptr);
#ifdef DROPPED
    session.refresh_server();
#endif
    const std::vector<std::string> attributes{"cn", "sn"};
    Result<std::size_t> rights =
        session.effective_privileges_list("cn=a,o=x", Subject("cn=me"), attributes)
            .transform([](const std::vector<AttributeRights> &all) { return all.size(); });
    if (!session.set_replication_filter(Server("cn=s,o=x"), "person$cn$$$"))
        std::cerr << to_string(rights.error()) << '\n';
    return watch(session) + load(session) + keep(session);
}
