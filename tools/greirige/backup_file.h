// The file that greirige backup writes and greirige restore reads: a header that a person can read
// with head(1), an empty line, and the object's data as the server gave it.
//
//     greirige backup 1
//     dn: uid=ada,ou=people,dc=example,dc=com
//     server: ldap://ldap.example.com
//     time: 2026-11-21T00:22:30Z
//     state: 848281000+3
//     since: 848270000+1          (only when an earlier backup's state was given)
//     password: yes               (whether one guards it; the password itself is nowhere here)
//     chunks: 3;512;512;17;       (their number, then the size of each)
//     size: 1041
//     digest: sha256 8f0e...
//
//     ... 1041 bytes
//
// Every line ends in one newline. A name that cannot be shown as it is stands in base64 behind two
// colons. The digest is of everything else: the lines before it and the data. So any byte that is
// lost, added or changed shows.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <variant>

#include "greirige/session.hpp"

namespace tool {

struct BackupFile {
    std::string dn;
    std::string server;      // its URI
    std::string time;        // UTC, "2026-11-21T00:22:30Z"
    std::string since;       // the state that was given, or empty
    bool guarded = false;    // by a password
    greirige::Backup backup; // state, data, chunks

    friend bool operator==(const BackupFile &, const BackupFile &) = default;
};

// Why some bytes are no backup, in words that follow the file's name: "is truncated: ...".
struct Damage {
    std::string what;
};

std::string format_backup(const BackupFile &file);
// Reads nothing but these bytes, and takes them only when they are what format_backup() made.
std::variant<BackupFile, Damage> parse_backup(std::span<const std::byte> bytes);

// The digest of such a file, for people: 64 hex digits.
std::string digest_of(const BackupFile &file);

} // namespace tool
