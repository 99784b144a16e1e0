// The file of a backup. The input is a file, with the digest made right when the first byte is not
// zero, so that what stands behind the digest's check is reached. Nothing is taken but what the
// tool itself writes, to the byte.

#include "fuzz.h"

#include <array>
#include <span>
#include <variant>

#include <openssl/evp.h>

#include "backup_file.h"
#include "support/ber.h"

namespace {

const tool::BackupFile example = {
    .dn = "uid=ada,o=x",
    .server = "ldap://127.0.0.1:3890",
    .time = "2026-11-21T00:22:30Z",
    .since = "848270000+1",
    .guarded = true,
    .backup = {.state = "848281000+3", .data = std::string("\0\xff\n", 3), .chunks = {2, 1}}};

std::string sha256(const std::string &bytes)
{
    std::array<unsigned char, 32> digest{};
    fuzz::require(
        EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1);
    std::string hex = support::hex(std::string(digest.begin(), digest.end()));
    std::erase(hex, ' ');
    return hex;
}

// With the digest of the lines before the digest's and of what follows the empty line.
std::string with_digest(const std::string &file)
{
    const std::string name = "\ndigest: sha256 ";
    const std::size_t line = file.find(name);
    const std::size_t empty = file.find("\n\n", line == std::string::npos ? 0 : line + 1);
    if (line == std::string::npos || empty == std::string::npos)
        return file;
    const std::string header = file.substr(0, line + 1);
    const std::string data = file.substr(empty + 2);
    return header + name.substr(1) + sha256(header + data) + "\n\n" + data;
}

std::variant<tool::BackupFile, tool::Damage> parse(std::string_view bytes)
{
    return tool::parse_backup(std::as_bytes(std::span(bytes)));
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    tool::BackupFile plain = example;
    plain.since.clear();
    plain.guarded = false;
    plain.backup.chunks.clear();
    tool::BackupFile odd = example;
    odd.dn = "cn=\xff\n";
    odd.backup.data = std::string(300, 'x');
    std::vector<std::string> all;
    for (const tool::BackupFile &file : {example, plain, odd})
        for (const char *shape : {"0", "1"})
            all.push_back((*shape == '0' ? std::string(1, '\0') : std::string("1")) +
                          tool::format_backup(file));
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const bool make_right = input.byte() != 0;
    const std::string rest = input.rest();
    const std::string bytes = make_right ? with_digest(rest) : rest;
    const auto parsed = parse(bytes);
    if (const auto *damage = std::get_if<tool::Damage>(&parsed)) {
        fuzz::require(!damage->what.empty(), "a reason");
        return 0;
    }
    const auto &file = std::get<tool::BackupFile>(parsed);
    fuzz::require(tool::format_backup(file) == bytes, "what the tool writes");
    return 0;
}
