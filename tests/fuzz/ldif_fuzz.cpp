// An LDIF file as greirige load reads it. Whatever it holds, each record is an update or is refused
// at one of its own lines, records lie in the file one after the other, and an update that is
// written out again, with every value in base64, reads the same.

#include "fuzz.h"

#include <cstdio>
#include <variant>

#include <sys/mman.h>
#include <unistd.h>

#include "error.h"
#include "ldif_update.h"
#include "text.h"

namespace {

// A file that is nowhere on a disk.
class File {
public:
    explicit File(std::string_view bytes) : fd_(memfd_create("fuzz", MFD_CLOEXEC))
    {
        fuzz::require(fd_ >= 0 &&
                      write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    }
    ~File()
    {
        close(fd_);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    std::string path() const
    {
        return "/proc/self/fd/" + std::to_string(fd_);
    }

private:
    int fd_;
};

// ---- Writing updates ----------------------------------------------------------------------------

std::string line(const std::string &name, const std::string &value)
{
    return name + ":: " + tool::base64(value) + '\n';
}

std::string text_of(const std::vector<greirige::Control> &controls)
{
    std::string text;
    for (const greirige::Control &control : controls) {
        text += "control: " + control.oid + (control.critical ? " true" : " false");
        if (control.value)
            text += ":: " + tool::base64(*control.value);
        text += '\n';
    }
    return text;
}

std::string values_of(const greirige::Attribute &attribute)
{
    std::string text;
    for (const std::string &value : attribute.values)
        text += line(attribute.name, value);
    return text;
}

struct Writer {
    std::string operator()(const greirige::AddEntry &entry) const
    {
        std::string text = line("dn", entry.dn) + text_of(entry.controls) + "changetype: add\n";
        for (const greirige::Attribute &attribute : entry.attributes)
            text += values_of(attribute);
        return text;
    }
    std::string operator()(const greirige::DeleteEntry &entry) const
    {
        return line("dn", entry.dn) + text_of(entry.controls) + "changetype: delete\n";
    }
    std::string operator()(const greirige::ModifyEntry &entry) const
    {
        std::string text = line("dn", entry.dn) + text_of(entry.controls) + "changetype: modify\n";
        for (const greirige::Change &change : entry.changes) {
            constexpr const char *kinds[] = {"add", "delete", "replace", "increment"};
            text += line(kinds[static_cast<std::size_t>(change.kind)], change.attribute.name) +
                    values_of(change.attribute) + "-\n";
        }
        return text;
    }
    std::string operator()(const greirige::RenameEntry &entry) const
    {
        return line("dn", entry.dn) + text_of(entry.controls) + "changetype: modrdn\n" +
               line("newrdn", entry.new_rdn) +
               "deleteoldrdn: " + (entry.delete_old_rdn ? "1\n" : "0\n") +
               (entry.new_superior ? line("newsuperior", *entry.new_superior) : "");
    }
};

// ---- Reading ------------------------------------------------------------------------------------

// The updates as one text, which is the same for the same updates.
std::string read_all(const File &file, std::size_t size, bool all_good)
{
    std::string text;
    std::uint64_t position = 0, last_line = 0;
    try {
        tool::LdifReader reader({file.path()});
        fuzz::require(reader.size() == size, "the size of a file");
        while (const auto record = reader.next()) {
            fuzz::require(record->position > position && record->position <= size,
                          "a record behind the one before");
            fuzz::require(record->first_line > last_line &&
                              record->place.line >= record->first_line,
                          "the lines of a record");
            position = record->position;
            last_line = record->place.line;
            try {
                text += std::visit(Writer(), tool::read_update(*record)) + '\n';
            } catch (const tool::LdifError &error) {
                fuzz::require(!all_good, error.what());
                fuzz::require(error.place.line >= record->first_line, "the line of an error");
            }
        }
    } catch (const tool::LdifError &error) {
        fuzz::require(!all_good && error.place.line > 0, "what is wrong with a file");
    } catch (const tool::Failure &) {
        fuzz::require(!all_good, "a file that can be read"); // an included directory cannot
    }
    return text;
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    return {
        "version: 1\n\n# a comment\n  goes on\ndn: ou=people,o=x\nobjectClass: organizationalUnit\n"
        "ou: people\nDESCRIPTION: two\n  lines\ndescription:: dGhyZWU=\njpegPhoto:: AP8A\n",
        "dn: cn=a,o=x\nchangetype: add\nobjectClass: person\ncn: a\nsn:\n\n"
        "dn:: Y249YSxvPXg=\nchangetype: delete\n",
        "dn: cn=a,o=x\r\ncontrol: 1.2.3 true: value\r\ncontrol: 1.2.4\r\ncontrol: 1.2.5 false:: "
        "AP8=\r\nchangetype: modify\r\nadd: mail\r\nmail: a@x\r\nmail: b@x\r\n-\r\ndelete: sn\r\n"
        "-\r\nreplace: cn;lang-de\r\ncn;lang-de: b\r\n-\r\nincrement: uidNumber\r\nuidNumber: 1",
        "dn: cn=a,o=x\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\nnewsuperior: o=y\n\n"
        "dn: cn=c\nchangetype: moddn\nnewrdn:< file:///nonexistent\ndeleteoldrdn: 0\n",
        "include: file:///nonexistent\n\ndn: o=x\n-\n\n\n continued\n",
        "dn: o=x\nchangetype: modify\n-\n\ndn: o=x\nobjectClass\n\ndn:: *\n",
    };
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string bytes = fuzz::Input(data, size).rest();
    // No other file of this machine, and no device, shall be read by chance.
    if (bytes.find("file:/") != std::string::npos &&
        bytes.find("file:///nonexistent") == std::string::npos)
        return 0;
    const File file(bytes);
    const std::string updates = read_all(file, bytes.size(), false);
    const File again(updates);
    fuzz::require(read_all(again, updates.size(), true) == updates, "the same updates again");
    return 0;
}
