// The texts of backup and restore: a state and a chunk list, divided by the first zero byte of the
// input. Nothing is sent for a state without two marks; what is sent otherwise, and for any chunk
// list, is what an independent reader makes of them.

#include "fuzz.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ldapx.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

char data[] = "data";
constexpr int size_of_data = 4;

// The number that a text begins with, as strtol() reads it, in its low 32 bits.
std::int32_t number_in(const std::string &text)
{
    return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

// The pieces between the signs that are not empty, as strtok() finds them.
std::vector<std::string> pieces(const std::string &text, char sign)
{
    std::vector<std::string> all;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(sign, at), text.size());
        if (end > at)
            all.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return all;
}

void backup(const std::string &text)
{
    const std::vector<std::string> marks = pieces(text, '+');
    const std::int32_t mts = marks.empty() ? 0 : number_in(marks[0]);
    const std::int32_t revision = marks.size() < 2 ? 0 : number_in(marks[1]);

    Peer peer;
    peer.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE,
                  .value = concat(integer(size_of_data), integer(1200), integer(3), octets(data),
                                  sequence(integer(0), support::set()))});
    char *state = strdup(text.c_str());
    char *info = nullptr, *chunks = nullptr;
    int size = 0;
    const int code = ldap_backup_object(peer.ld(), "o=x", "pw", &state, &info, &chunks, &size);
    if (mts == 0 || revision == 0) {
        fuzz::require(code == LDAPX_ENCODING_ERROR && peer.quiet(), "a state without two marks");
        fuzz::require(info == nullptr && chunks == nullptr, "nothing handed out");
    } else {
        fuzz::require(code == LDAP_SUCCESS && std::string(state) == "1200+3", "the new state");
        fuzz::require(peer.take_request().value ==
                          concat(octets("o=x"), integer(mts), integer(revision), octets("pw")),
                      "the marks that are sent");
    }
    ldapx_memfree(state);
    ldapx_memfree(info);
    ldapx_memfree(chunks);
}

void restore(const std::string &text)
{
    const std::vector<std::string> numbers = pieces(text, ';');
    std::string chunks;
    for (std::size_t i = 1; i < numbers.size(); ++i)
        chunks += element(0x30, integer(number_in(numbers[i])), 4);
    const std::string table = element(
        0x30,
        concat(integer(numbers.empty() ? 0 : number_in(numbers[0])), element(0x31, chunks, 4)), 4);

    Peer peer;
    peer.respond({.name = LDAPX_RESTORE_OBJECT_RESPONSE});
    std::string list = text;
    fuzz::require(ldap_restore_object(peer.ld(), "o=x", "pw", data, list.data(), size_of_data) ==
                      LDAP_SUCCESS,
                  "any list can be sent");
    fuzz::require(peer.take_request().value == concat(octets("o=x"), octets("pw"),
                                                      integer(size_of_data), octets(data), table),
                  "the chunks that are sent");
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    std::vector<std::string> all;
    for (const char *state : {"1200+3", "1+1", "-7+2147483647", "1200", "+3", "1200+0", "7+x", ""})
        for (const char *chunks : {"3;512;512;17;", "0;", "", "1;-1;", "x;9999999999;;5"})
            all.push_back(state + std::string(1, '\0') + chunks);
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    const std::string whole = fuzz::Input(bytes, size).rest();
    const std::string state = whole.c_str();
    const std::string rest = whole.substr(std::min(state.size() + 1, whole.size()));
    backup(state);
    restore(rest.c_str());
    return 0;
}
