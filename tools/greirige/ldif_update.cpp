#include "ldif_update.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <strings.h>

#include <ldap.h>

#include <ldif.h>

#include "text.h"

// libldap's own reading of whole records is not used: it takes "add: mail" without a value for no
// change at all, passes over what it does not expect, and a "-" between the attributes of an entry
// ends the process (OpenLDAP 2.5).

namespace tool {

namespace {

using greirige::Attribute;
using greirige::Change;
using greirige::ChangeKind;
using greirige::Control;

bool same(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view without_blanks_before(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

// A line with its continuation lines joined.
struct Line {
    std::uint64_t number = 0;
    std::string text;

    bool is_separator() const
    {
        return text == "-";
    }
};

class RecordReader {
public:
    explicit RecordReader(const LdifRecord &record) : record_(record)
    {
        unfold();
    }

    greirige::Update read();

private:
    // "name: value", "name:: base64" or "name:< URL".
    struct Pair {
        std::string name;
        std::string value;
    };

    [[noreturn]] void fail(std::uint64_t line, const std::string &reason) const
    {
        throw LdifError({record_.place.file, line}, reason);
    }
    // At the line that was taken last.
    [[noreturn]] void fail(const std::string &reason) const
    {
        fail(lines_[at_ > 0 ? at_ - 1 : 0].number, reason);
    }

    void unfold();
    bool at_end() const
    {
        return at_ == lines_.size();
    }
    bool at_separator() const
    {
        return !at_end() && lines_[at_].is_separator();
    }
    bool next_is(std::string_view name) const
    {
        const std::string_view text = at_end() ? std::string_view() : lines_[at_].text;
        return same(text.substr(0, text.find(':')), name) && text.find(':') != std::string::npos;
    }
    Pair take();
    // The line that must come now. No name and no URL holds a zero byte.
    std::string take_value(std::string_view name, const std::string &after);
    void check_value(std::string_view kind_and_value, std::string_view name) const;
    std::string value_of(Line &line) const;

    Control take_control();
    std::vector<Attribute> take_attributes();
    std::vector<Change> take_changes();
    greirige::RenameEntry take_rename();
    void expect_end(const std::string &after) const;

    const LdifRecord &record_;
    std::vector<Line> lines_;
    std::size_t at_ = 0;
};

void RecordReader::unfold()
{
    std::uint64_t number = record_.first_line;
    bool in_comment = false;
    const std::string_view text = record_.text;
    for (std::size_t begin = 0; begin < text.size(); ++number) {
        const std::size_t end = text.find('\n', begin);
        const std::string_view line = text.substr(begin, end - begin);
        begin = end + 1;
        if (line.starts_with(' ')) {
            if (in_comment)
                continue;
            if (lines_.empty())
                fail(number, "a continuation line that continues nothing");
            lines_.back().text.append(line, 1);
            continue;
        }
        in_comment = line.starts_with('#');
        if (!in_comment)
            lines_.push_back({number, std::string(line)});
    }
}

RecordReader::Pair RecordReader::take()
{
    Line &line = lines_[at_++];
    const std::string_view text = line.text;
    if (text.find('\0') != std::string::npos)
        fail("the line holds a zero byte (values that do are written in base64)");
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0)
        fail("neither \"attribute: value\" nor a comment: " + in_quotes(text.substr(0, 60)));
    const std::string_view name = text.substr(0, colon);
    if (name.find_first_of(" \t") != std::string::npos)
        fail("the name of an attribute holds no blanks: " + in_quotes(name.substr(0, 60)));
    Pair pair{std::string(name), {}};
    check_value(text.substr(colon + 1), name);
    pair.value = value_of(line);
    return pair;
}

// What libldap would only call invalid.
void RecordReader::check_value(std::string_view kind_and_value, std::string_view name) const
{
    if (kind_and_value.empty())
        return;
    const std::string_view value = without_blanks_before(kind_and_value.substr(1));
    if (kind_and_value.front() == ':' &&
        !decode_base64(value.substr(0, value.find_last_not_of(' ') + 1)))
        fail("the value of " + in_quotes(name) + " is not base64");
    if (kind_and_value.front() == '<') {
        errno = 0;
        std::FILE *file = ldif_open_url(std::string(value).c_str());
        if (file == nullptr)
            fail("cannot read " + in_quotes(value) + ": " +
                 (errno != 0 ? std::strerror(errno) : "not a file: URL"));
        static_cast<void>(std::fclose(file));
    }
}

std::string RecordReader::value_of(Line &line) const
{
    const std::string name_only(line.text, 0, line.text.find(':')); // libldap writes into the line
    // libldap refuses an empty value in base64, which RFC 2849 allows.
    const std::string_view kind_and_value = std::string_view(line.text).substr(name_only.size());
    if (kind_and_value.starts_with("::") && without_blanks_before(kind_and_value.substr(2)).empty())
        return {};

    berval name{};
    berval value{};
    int allocated = 0;
    if (ldif_parse_line2(line.text.data(), &name, &value, &allocated) != 0)
        fail("the value of " + in_quotes(name_only) + " cannot be read");
    std::string bytes =
        value.bv_val != nullptr ? std::string(value.bv_val, value.bv_len) : std::string();
    if (allocated != 0)
        ber_memfree(value.bv_val);
    return bytes;
}

std::string RecordReader::take_value(std::string_view name, const std::string &after)
{
    const std::string wanted = '"' + std::string(name) + ":\"";
    if (at_end())
        fail(after + " is not followed by " + wanted);
    if (!next_is(name)) {
        ++at_;
        fail("here " + wanted + " is expected, not " +
             in_quotes(lines_[at_ - 1].text.substr(0, 60)));
    }
    Pair pair = take();
    if (pair.value.find('\0') != std::string::npos)
        fail("the value of " + wanted + " holds a zero byte");
    return pair.value;
}

void RecordReader::expect_end(const std::string &after) const
{
    if (!at_end())
        fail(lines_[at_].number, "nothing may follow " + after + " (is an empty line missing?)");
}

greirige::Update RecordReader::read()
{
    const std::string dn = take_value("dn", "the record");
    std::vector<Control> controls;
    while (next_is("control"))
        controls.push_back(take_control());
    if (!controls.empty() && !next_is("changetype"))
        fail("a record with controls needs a \"changetype:\" line");
    if (!next_is("changetype")) {
        if (at_end())
            fail("the entry has no attributes");
        return greirige::AddEntry{dn, take_attributes(), std::move(controls)};
    }
    const std::string type = take().value;
    if (same(type, "add")) {
        if (at_end())
            fail("the entry has no attributes");
        return greirige::AddEntry{dn, take_attributes(), std::move(controls)};
    }
    if (same(type, "delete")) {
        expect_end("\"changetype: delete\"");
        return greirige::DeleteEntry{dn, std::move(controls)};
    }
    if (same(type, "modify"))
        return greirige::ModifyEntry{dn, take_changes(), std::move(controls)};
    if (same(type, "modrdn") || same(type, "moddn")) {
        greirige::RenameEntry rename = take_rename();
        rename.dn = dn;
        rename.controls = std::move(controls);
        return rename;
    }
    fail("the change type " + in_quotes(type) +
         " is none of add, delete, modify, modrdn and moddn");
}

// "control: OID [true|false] [value]", the value as in any other line.
Control RecordReader::take_control()
{
    const std::string text = take_value("control", "the DN");
    std::string_view rest = text;
    const std::size_t end_of_oid = std::min(rest.find_first_of(" :"), rest.size());
    Control control{std::string(rest.substr(0, end_of_oid))};
    if (control.oid.empty() || control.oid.find_first_not_of("0123456789.") != std::string::npos)
        fail(in_quotes(control.oid) + " is not the OID of a control");
    rest = without_blanks_before(rest.substr(end_of_oid));
    const std::string_view word = rest.substr(0, std::min(rest.find_first_of(" :"), rest.size()));
    if (!word.empty()) {
        control.critical = same(word, "true");
        if (!control.critical && !same(word, "false"))
            fail("the criticality of a control is true or false, not " + in_quotes(word));
        rest = without_blanks_before(rest.substr(word.size()));
    }
    if (rest.empty())
        return control;
    if (rest.front() != ':')
        fail("after the control's criticality comes its value with a colon before it, not " +
             in_quotes(rest));
    check_value(rest.substr(1), "control");
    Line value{0, "control" + std::string(rest)};
    control.value = value_of(value);
    return control;
}

// An entry's attributes, the values of one attribute together wherever they stand.
std::vector<Attribute> RecordReader::take_attributes()
{
    std::vector<Attribute> attributes;
    while (!at_end()) {
        if (at_separator()) {
            ++at_;
            fail("a \"-\" in an entry (a change needs a \"changetype:\" line)");
        }
        Pair pair = take();
        if (same(pair.name, "dn") || same(pair.name, "changetype"))
            fail('"' + pair.name + ":\" inside an entry (is an empty line missing?)");
        std::size_t at = attributes.size();
        while (at > 0 && !same(attributes[at - 1].name, pair.name))
            --at;
        if (at == 0) {
            attributes.push_back({std::move(pair.name)});
            at = attributes.size();
        }
        attributes[at - 1].values.push_back(std::move(pair.value));
    }
    return attributes;
}

// "add: mail", its values, "-"; the last "-" may be missing.
std::vector<Change> RecordReader::take_changes()
{
    std::vector<Change> changes;
    while (!at_end()) {
        if (at_separator()) {
            ++at_;
            fail("a \"-\" that ends no change");
        }
        const Pair head = take();
        const std::uint64_t line = lines_[at_ - 1].number;
        Change change;
        if (same(head.name, "add"))
            change.kind = ChangeKind::add;
        else if (same(head.name, "delete"))
            change.kind = ChangeKind::remove;
        else if (same(head.name, "replace"))
            change.kind = ChangeKind::replace;
        else if (same(head.name, "increment"))
            change.kind = ChangeKind::increment;
        else
            fail("a change begins with add, delete, replace or increment, not with " +
                 in_quotes(head.name));
        change.attribute.name = head.value;
        if (head.value.empty() || head.value.find('\0') != std::string::npos)
            fail("the change names no attribute");
        while (!at_end() && !at_separator()) {
            Pair pair = take();
            if (!same(pair.name, head.value))
                fail("a value of " + in_quotes(head.value) + " or \"-\" is expected, not " +
                     in_quotes(pair.name));
            change.attribute.values.push_back(std::move(pair.value));
        }
        const std::size_t values = change.attribute.values.size();
        if (change.kind == ChangeKind::add && values == 0)
            fail(line, "no value to add to " + in_quotes(head.value) + " is given");
        if (change.kind == ChangeKind::increment && values != 1)
            fail(line, in_quotes(head.value) + " is incremented by one value");
        if (!at_end())
            ++at_;
        changes.push_back(std::move(change));
    }
    return changes;
}

greirige::RenameEntry RecordReader::take_rename()
{
    greirige::RenameEntry rename;
    rename.new_rdn = take_value("newrdn", "the change type");
    const std::string flag = take_value("deleteoldrdn", "\"newrdn:\"");
    if (flag != "0" && flag != "1")
        fail("\"deleteoldrdn:\" is 0 or 1, not " + in_quotes(flag));
    rename.delete_old_rdn = flag == "1";
    if (next_is("newsuperior"))
        rename.new_superior = take_value("newsuperior", "");
    expect_end("a rename");
    return rename;
}

} // namespace

greirige::Update read_update(const LdifRecord &record)
{
    return RecordReader(record).read();
}

} // namespace tool
