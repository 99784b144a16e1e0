// The copy of one entry that a backup hands out and a restore takes: a block of bytes in chunks,
// the first of which describes the others. All numbers have four bytes, the highest first; a text
// is its length and its bytes.
//
//   chunk 0   "GOBJ", 0, 0, 0, 1                       the form and its version
//             number of chunks that follow; of each its size and its CRC-32
//             the entry's name (text)
//             the password that guards the copy, hashed (text; see crypt(5))
//             CRC-32 of everything in this chunk so far
//   chunk n   an attribute: its name (text), the number of its values, the values (texts)
#pragma once

#include "directory.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

struct DamagedCopy : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A password as it is kept, under a salt of its own; empty when it cannot be hashed (a zero byte,
// hundreds of characters).
std::string hash_password(const std::string &password);
bool is_password(const std::string &password, const std::string &hash);

struct ObjectCopy {
    Entry entry;
    std::string password_hash;
};

struct CopyBytes {
    std::string data;
    std::vector<std::size_t> chunks; // their sizes, which add up to the data's
};

CopyBytes write_copy(const ObjectCopy &copy);
// DamagedCopy with the reason when it is none, or not as it was written.
ObjectCopy read_copy(std::string_view data, const std::vector<std::size_t> &chunks);

} // namespace sandbox
