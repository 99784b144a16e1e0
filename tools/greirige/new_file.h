// A file that is there whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Throws the UsageError that belongs to a file that is there already, or could not be replaced.
void check_new_file(const std::string &path, bool replace);

// Written under another name beside the one it shall have, for its owner alone. The name is taken
// when everything is on the disk; until then, and when that never happens, nothing is there but
// what was there before. Throws a UsageError when the file cannot be made, a Failure later.
class NewFile {
public:
    // Without `replace` a file of that name is an error, now or when it appears in the meantime.
    NewFile(std::string path, bool replace);
    ~NewFile();
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    void write(std::string_view bytes);
    void commit();

private:
    void take_name();
    [[noreturn]] void fail(const char *what) const;

    std::string path_;
    std::string temporary_; // empty when it has got its name
    int file_ = -1;
    bool replace_;
};

} // namespace tool
