// The file of records that failed: LDIF, each record as it stood in the input with the reason in a
// comment before it, so that it can be corrected and loaded again.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "ldif_reader.h"

namespace tool {

class Rejects {
public:
    // Keeps so many bytes of a file that is there; the rest is of no use. Throws a UsageError when
    // it cannot be written.
    Rejects(std::string path, std::uint64_t keep);

    void write(const LdifRecord &record, const std::string &reason);
    // All that was written is on the disk now; so many bytes.
    std::uint64_t sync();

private:
    [[noreturn]] void fail() const;

    struct Close {
        void operator()(std::FILE *file) const
        {
            static_cast<void>(std::fclose(file));
        }
    };
    std::string path_;
    std::unique_ptr<std::FILE, Close> file_;
    std::uint64_t size_ = 0;
};

} // namespace tool
