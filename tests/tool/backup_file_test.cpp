// The file of a backup: what is written is read back, and nothing else is taken for one.

#include "backup_file.h"

#include "support/ber.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <variant>
#include <vector>

using namespace tool;

namespace {

BackupFile example()
{
    std::string data("GOBJ\0\0\0\1", 8);
    for (int byte = 0; byte < 256; ++byte)
        data += static_cast<char>(byte);
    return {.dn = "uid=ada,o=x",
            .server = "ldap://127.0.0.1:3890",
            .time = "2026-11-21T00:22:30Z",
            .since = "848270000+1",
            .guarded = true,
            .backup = {.state = "848281000+3", .data = data, .chunks = {8, 200, 56}}};
}

std::variant<BackupFile, Damage> parse(std::string_view bytes)
{
    return parse_backup(std::as_bytes(std::span(bytes)));
}

// Why these bytes are refused; "taken" when they are not.
std::string fault(std::string_view bytes)
{
    const auto parsed = parse(bytes);
    const Damage *damage = std::get_if<Damage>(&parsed);
    return damage != nullptr ? damage->what : "taken";
}

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    return text.replace(text.find(from), from.size(), to);
}

std::string sha256(const std::string &bytes)
{
    std::array<unsigned char, 32> digest{};
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr),
              1);
    std::string hex = support::hex(std::string(digest.begin(), digest.end()));
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    return hex;
}

// The example with something else in its header and the digest that belongs to that: a file that
// somebody made, no accident.
std::string forged(const std::string &from, const std::string &to)
{
    const std::string bytes = format_backup(example());
    const std::size_t end = bytes.find("digest: ");
    const std::string header = replaced(bytes.substr(0, end), from, to);
    const std::string &data = example().backup.data;
    return header + "digest: sha256 " + sha256(header + data) + "\n\n" + data;
}

void expect_round_trip(const BackupFile &file)
{
    const std::string bytes = format_backup(file);
    const auto parsed = parse(bytes);
    ASSERT_TRUE(std::holds_alternative<BackupFile>(parsed)) << fault(bytes) << '\n' << bytes;
    EXPECT_EQ(std::get<BackupFile>(parsed), file);
}

TEST(BackupFile, is_read_back_as_it_was_written)
{
    expect_round_trip(example());
    BackupFile least = example();
    least.since.clear();
    least.guarded = false;
    least.backup.data.clear();
    least.backup.chunks.clear();
    expect_round_trip(least);
    BackupFile large = example();
    large.backup.data.assign(5'000'000, '\n');
    large.backup.chunks.assign(20'000, 2147483647);
    large.backup.state = "-2147483648+2147483647";
    expect_round_trip(large);
}

TEST(BackupFile, keeps_every_name)
{
    for (const std::string &dn :
         {std::string("cn=B\xc3\xbc"
                      "cher,o=x"),
          std::string("cn=two\nlines"), std::string(": :"), std::string(" "),
          std::string("cn=\xff"), std::string("cn=\0", 4), std::string()}) {
        BackupFile file = example();
        file.dn = dn;
        expect_round_trip(file);
    }
}

TEST(BackupFile, begins_with_lines_that_a_person_can_read)
{
    const std::string bytes = format_backup(example());
    const std::size_t end = bytes.find("\n\n");
    EXPECT_EQ(bytes.substr(0, end), "greirige backup 1\n"
                                    "dn: uid=ada,o=x\n"
                                    "server: ldap://127.0.0.1:3890\n"
                                    "time: 2026-11-21T00:22:30Z\n"
                                    "state: 848281000+3\n"
                                    "since: 848270000+1\n"
                                    "password: yes\n"
                                    "chunks: 3;8;200;56;\n"
                                    "size: 264\n"
                                    "digest: sha256 " +
                                        digest_of(example()));
    EXPECT_EQ(bytes.substr(end + 2), example().backup.data);
}

TEST(BackupFile, digest_is_the_sha256_of_everything_before_it_and_behind_it)
{
    const std::string bytes = format_backup(example());
    const std::size_t end = bytes.find("digest: ");
    EXPECT_EQ(digest_of(example()), sha256(bytes.substr(0, end) + example().backup.data));
    EXPECT_EQ(forged("uid", "uid"), bytes);
}

TEST(BackupFile, name_that_could_deceive_a_terminal_stands_in_base64)
{
    BackupFile file = example();
    file.dn = "cn=\x1b[2J";
    EXPECT_NE(format_backup(file).find("\ndn:: Y249G1sySg==\n"), std::string::npos);
}

TEST(BackupFile, truncated_anywhere_is_refused)
{
    const std::string bytes = format_backup(example());
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const std::string what = fault(bytes.substr(0, length));
        ASSERT_EQ(what.substr(0, 14), length == 0 ? "is no backup t" : "is truncated: ")
            << length << ": " << what;
    }
}

TEST(BackupFile, with_any_byte_altered_is_refused)
{
    const std::string bytes = format_backup(example());
    for (std::size_t at = 0; at < bytes.size(); ++at)
        for (int other = 0; other < 256; ++other) {
            std::string altered = bytes;
            altered[at] = static_cast<char>(other);
            ASSERT_EQ(fault(altered) == "taken", altered == bytes) << at << ' ' << other;
        }
}

TEST(BackupFile, with_any_byte_added_or_lost_is_refused)
{
    const std::string bytes = format_backup(example());
    for (std::size_t at = 0; at <= bytes.size(); ++at) {
        std::string longer = bytes;
        longer.insert(at, 1, at == 0 ? 'g' : bytes[at - 1]);
        ASSERT_NE(fault(longer), "taken") << at;
        std::string shorter = bytes;
        ASSERT_NE(fault(at < bytes.size() ? shorter.erase(at, 1) : ""), "taken") << at;
    }
}

TEST(BackupFile, refusal_names_what_is_wrong)
{
    const std::string bytes = format_backup(example());
    EXPECT_EQ(fault(bytes.substr(0, bytes.size() - 4)),
              "is truncated: 260 of its 264 bytes of data are there");
    EXPECT_EQ(fault(bytes + "more"), "is damaged: 4 bytes follow its data");
    EXPECT_EQ(fault(bytes.substr(0, 5)), "is truncated: it ends before or in its first line");
    EXPECT_EQ(fault(bytes.substr(0, bytes.find("size"))),
              "is truncated: it ends before or in its line \"size\"");
    EXPECT_EQ(fault("dn: o=x\n"), "is no backup that greirige made");
    EXPECT_EQ(fault(replaced(bytes, "backup 1", "backup 2")),
              "is a backup of version \"2\"; this program reads version 1");
    EXPECT_EQ(fault(replaced(bytes, "uid=ada", "uid=eve")),
              "is damaged: its digest belongs to other bytes, so it was altered");
    EXPECT_EQ(fault(replaced(bytes, "server: ", "servers: ")),
              "is damaged: the line \"server\" is not where it belongs");
    EXPECT_EQ(fault(replaced(bytes, "T00:22", " 00:22")),
              "is damaged: what its line \"time\" holds is not a time");
    EXPECT_EQ(fault(replaced(bytes, "848281000+3", "848281000")),
              "is damaged: what its line \"state\" holds is not two marks");
    EXPECT_EQ(fault(replaced(bytes, "848270000+1", "848270000+x")),
              "is damaged: what its line \"since\" holds is not two marks");
    EXPECT_EQ(fault(replaced(bytes, "password: yes", "password: y")),
              "is damaged: what its line \"password\" holds is not yes or no");
    for (const char *list : {"4;8;200;56;", "3;8;200;56", "", "3;8;-200;56;", "3;8;4294967296;56;"})
        EXPECT_EQ(fault(replaced(bytes, "3;8;200;56;", list)),
                  "is damaged: what its line \"chunks\" holds is not a list of sizes")
            << list;
    EXPECT_EQ(fault(replaced(bytes, "size: 264", "size: all")),
              "is damaged: what its line \"size\" holds is not a number");
    EXPECT_EQ(fault(replaced(bytes, "dn: uid", "dn:: uid")),
              "is damaged: what its line \"dn\" holds is not base64");
    EXPECT_EQ(fault(replaced(bytes, "\n\nGOBJ", "\nx\nGOBJ")),
              "is damaged: no empty line follows its header");
}

// The digest is no secret. The form is checked whatever it says.
TEST(BackupFile, of_another_form_is_refused_though_its_digest_is_right)
{
    EXPECT_EQ(fault(forged("uid=ada", "uid=eve")), "taken"); // another backup, in good form
    for (const auto &[from, to] : std::vector<std::pair<std::string, std::string>>{
             {"size: 264", "size: 0264"},
             {"chunks: 3;", "chunks: 03;"},
             {"state: 8", "state: -08"},
             {"dn: uid=ada,o=x", "dn:: dWlkPWFkYSxvPXg="},
             {"dn: uid", "dn: \t"},
             {"server: ldap://127.0.0.1:3890\ntime: 2026-11-21T00:22:30Z",
              "time: 2026-11-21T00:22:30Z\nserver: ldap://127.0.0.1:3890"},
             {"size: 264", "size: 264\nmore: 1"}})
        EXPECT_TRUE(fault(forged(from, to)).starts_with("is damaged: ")) << to;
}

} // namespace
