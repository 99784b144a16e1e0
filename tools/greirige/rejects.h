// The file of records that failed: LDIF, each record as it stood in the input with the reason in a
// comment before it, so that it can be corrected and loaded again.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "ldif_reader.h"
#include "load_journal.h"

namespace tool {

class Rejects {
public:
    // Of a file that is there, keeps what an earlier run has written and noted; the rest, which may
    // be written again, goes. Throws a UsageError when the file cannot be written, or holds
    // something else than what was noted.
    Rejects(std::string path, const Written &noted);

    void write(const LdifRecord &record, const std::string &reason);
    // All that was written is on the disk now.
    Written sync();

private:
    void find(const Written &noted);
    [[noreturn]] void fail() const;

    struct Close {
        void operator()(std::FILE *file) const
        {
            static_cast<void>(std::fclose(file));
        }
    };
    std::string path_;
    std::unique_ptr<std::FILE, Close> file_;
    Written written_;
};

} // namespace tool
