// The server's answer to a synchronous operation: one byte chooses the operation, one the answer's
// name, code and whether it has a value; the rest is the value. Whatever comes, the result is one
// that the operation may give, and nothing is left behind.

#include "fuzz.h"

#include <algorithm>
#include <array>
#include <functional>
#include <set>

#include "support/administration.h"
#include "support/peer.h"
#include "wire/partition_operations.h"

namespace {

// Some operations write as much as the server says: to a place that is large enough for any input
// of this size.
constexpr std::size_t largest_value = 4096;

char dn[] = "o=x";
char server[] = "cn=srv";
char attribute[] = "cn";
char *attributes[] = {attribute, nullptr};

int replica_info(LDAP *ld)
{
    struct {
        LDAPReplicaInfo info;
        char beyond[largest_value];
    } wide{};
    return ldap_get_replica_info(ld, dn, server, &wide.info);
}

int privileges(LDAP *ld)
{
    static std::array<int, largest_value> numbers;
    return ldap_get_effective_privileges_list(ld, server, dn, attributes, numbers.data());
}

int backup(LDAP *ld)
{
    char *state = nullptr, *info = nullptr, *chunks = nullptr;
    int size = 0;
    const int code = ldap_backup_object(ld, dn, nullptr, &state, &info, &chunks, &size);
    if (code == LDAP_SUCCESS) {
        fuzz::require(info != nullptr && chunks != nullptr && size >= 0, "a backup");
        // All of it can be read.
        fuzz::require(std::count(info, info + size, '\0') >= 0);
    }
    ldapx_memfree(state);
    ldapx_memfree(info);
    ldapx_memfree(chunks);
    return code;
}

int restore(LDAP *ld)
{
    char data[] = "data";
    char chunks[] = "1;4;";
    return ldap_restore_object(ld, dn, nullptr, data, chunks, 4);
}

struct Row {
    std::string response_name;
    std::string answer; // empty where none is wanted
    std::set<int> codes;
    std::function<int(LDAP *)> call;
    bool lenient = false;
};

// The results that the library adds to success and to what libldap says.
std::set<int> codes(bool answered, int undecodable)
{
    return answered ? std::set<int>{0, LDAPX_OPERATIONS_ERROR, undecodable, LDAPX_NO_MEMORY,
                                    LDAPX_NOT_SUPPORTED}
                    : std::set<int>{0, LDAPX_NOT_SUPPORTED};
}

std::vector<Row> make_rows()
{
    std::vector<Row> rows;
    for (const support::Operation &operation : support::operations()) {
        std::function<int(LDAP *)> call = [f = operation.call](LDAP *ld) {
            support::Outputs out;
            return f(ld, out);
        };
        if (operation.function == "ldap_get_replica_info")
            call = replica_info;
        if (operation.function == "ldap_get_effective_privileges_list")
            call = privileges;
        std::set<int> allowed = codes(operation.answer.has_value(), operation.undecodable);
        if (operation.function == "ldap_get_effective_privileges_list_ext")
            allowed.insert(LDAPX_DECODING_ERROR); // more of them than there is room for
        rows.push_back({operation.response_name, operation.answer.value_or(""), allowed, call,
                        operation.lenient});
    }
    for (const Operation &operation : partition::operations())
        rows.push_back({operation.response, operation.answer, codes(operation.decodes(), 0x53),
                        operation.call});

    const std::string table = support::sequence(
        support::integer(2), support::set(support::sequence(support::integer(3)),
                                          support::sequence(support::integer(1))));
    const std::string copy = support::concat(support::integer(4), support::integer(11),
                                             support::integer(12), support::octets("data"), table);
    rows.push_back({LDAPX_BACKUP_OBJECT_RESPONSE, copy, codes(true, 0x54), backup});
    rows.push_back({LDAPX_RESTORE_OBJECT_RESPONSE, "", codes(false, 0), restore});
    return rows;
}

const std::vector<Row> &rows()
{
    static const std::vector<Row> all = make_rows();
    return all;
}

enum class Name { right, missing, longer, shorter };

} // namespace

std::vector<std::string> fuzz::seeds()
{
    std::vector<std::string> all;
    for (std::size_t i = 0; i < rows().size(); ++i)
        for (const char shape : {'\0', '\1', '\2', '\4'})
            all.push_back(static_cast<char>(i) + std::string(1, shape) + rows()[i].answer);
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, std::min(size, largest_value));
    const Row &row = rows()[input.below(rows().size())];
    const unsigned char shape = input.byte();
    const auto name = static_cast<Name>(shape % 4);

    support::Response response;
    response.code = (shape & 0x38) == 0x38 ? shape >> 6 : 0;
    if (name != Name::missing)
        response.name = row.response_name;
    if (name == Name::longer)
        *response.name += '1';
    if (name == Name::shorter)
        response.name->pop_back();
    if ((shape & 4) == 0)
        response.value = input.rest();

    support::Peer peer;
    peer.respond(response);
    peer.finish();
    const int code = row.call(peer.ld());

    if (response.code != 0 && code == response.code)
        return 0;
    fuzz::require(row.codes.contains(code), "a result that the operation does not give");
    const bool name_will_do = row.lenient ? name != Name::missing : name == Name::right;
    fuzz::require(name_will_do || code == LDAPX_NOT_SUPPORTED, "a name that will not do");
    fuzz::require(!name_will_do || code != LDAPX_NOT_SUPPORTED, "a name that will do");
    return 0;
}
