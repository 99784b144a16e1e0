// backup_restore - takes one object out of a directory into a file, and puts it back.
//
//   backup_restore backup  DN FILE
//   backup_restore restore DN FILE
//
// BACKUP_PASSWORD in the environment guards the copy; a restore needs the same. A backup into a
// file of an earlier one tells the server the state that the file holds.
// Exit status: 0 done, 1 the operation failed, 2 wrong usage or a file that is none, 3 no session.

#include "connect.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>

namespace {

// ---- The file: the state, the chunks and their number in one line, then the data ----------------

std::optional<greirige::Backup> read_backup(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    greirige::Backup backup;
    std::size_t chunks = 0;
    file >> backup.state >> chunks;
    for (std::int32_t size = 0; chunks > 0 && file >> size; --chunks)
        backup.chunks.push_back(size);
    if (!file || file.get() != '\n')
        return std::nullopt;
    backup.data.assign(std::istreambuf_iterator<char>(file), {});
    return backup;
}

// A file that is there is replaced only by a whole one.
bool write_backup(const std::string &path, const greirige::Backup &backup)
{
    const std::string unfinished = path + ".new";
    std::ofstream file(unfinished, std::ios::binary | std::ios::trunc);
    file << backup.state << ' ' << backup.chunks.size();
    for (const std::int32_t size : backup.chunks)
        file << ' ' << size;
    file << '\n' << backup.data;
    file.close();
    return file && std::rename(unfinished.c_str(), path.c_str()) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string command = argc == 4 ? argv[1] : "";
    if (command != "backup" && command != "restore") {
        std::cerr << "usage: backup_restore backup|restore DN FILE\n";
        return 2;
    }
    const std::string dn = argv[2];
    const std::string path = argv[3];
    const char *word = std::getenv("BACKUP_PASSWORD");
    const greirige::Password password(word != nullptr ? word : "");
    const auto earlier = read_backup(path);
    if (command == "restore" && !earlier) {
        std::cerr << "backup_restore: " << path << " holds no backup\n";
        return 2;
    }

    auto connection = example::connect();
    if (!connection) {
        std::cerr << "backup_restore: " << to_string(connection.error()) << '\n';
        return 3;
    }
    const greirige::Session session(connection->get());

    if (command == "restore") {
        if (auto restored = session.restore_object(dn, password, *earlier); !restored) {
            std::cerr << "backup_restore: " << to_string(restored.error()) << '\n';
            return 1;
        }
        std::cout << dn << " is restored\n";
        return 0;
    }
    auto backup = session.backup_object(dn, password, earlier ? earlier->state : "");
    if (!backup) {
        std::cerr << "backup_restore: " << to_string(backup.error()) << '\n';
        return 1;
    }
    umask(077); // the copy may hold secrets
    if (!write_backup(path, *backup)) {
        std::cerr << "backup_restore: cannot write " << path << '\n';
        return 1;
    }
    std::cout << dn << " is backed up, " << backup->data.size() << " bytes\n";
    return 0;
}
