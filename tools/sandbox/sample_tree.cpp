#include "sample_tree.h"

#include "dn.h"
#include "process.h"

#include <array>
#include <cstdint>
#include <ldap.h>
#include <ldif.h>
#include <memory>
#include <string_view>
#include <strings.h>
#include <utility>
#include <vector>

namespace sandbox {

namespace {

constexpr std::array<std::string_view, 48> given_names = {
    "Amélie", "Anders", "Aoife",  "Beatriz", "Björn",    "Boris", "Chiara",    "Claire",
    "Daniel", "Dörte",  "Elif",   "Emma",    "François", "Freya", "Giulia",    "Hana",
    "Henrik", "Imani",  "Inès",   "Ivan",    "Jürgen",   "Kaito", "Katarzyna", "Lars",
    "Leïla",  "Liam",   "Łukasz", "Maja",    "Marta",    "Mateo", "Mehmet",    "Noor",
    "Oksana", "Oliver", "Paweł",  "Priya",   "Raúl",     "Rosa",  "Sanna",     "Søren",
    "Šárka",  "Tomás",  "Ulrike", "Víctor",  "Wei",      "Yuki",  "Zoë",       "Άννα"};
constexpr std::array<std::string_view, 48> surnames = {
    "Andersson", "Bauer",     "Bianchi",  "Brown",   "Çelik",    "Černý",        "Dubois",
    "Fernández", "Fischer",   "García",   "Gruber",  "Hansen",   "Horváth",      "Ivanova",
    "Jansen",    "Jørgensen", "Kaya",     "Keller",  "Kowalski", "Lefèvre",      "Lindqvist",
    "López",     "Martin",    "Meyer",    "Moreau",  "Müller",   "Murphy",       "Nakamura",
    "Nguyễn",    "Novák",     "O'Brien",  "Okafor",  "Olsen",    "Papadopoulos", "Patel",
    "Petrov",    "Ricci",     "Rossi",    "Sánchez", "Schäfer",  "Schmidt",      "Silva",
    "Smith",     "Tanaka",    "Virtanen", "Weiß",    "Wójcik",   "Zhang"};
constexpr std::array<std::string_view, 8> departments = {
    "engineering", "sales", "support", "finance", "marketing", "operations", "legal", "research"};
constexpr std::array<std::string_view, 6> cities = {"Berlin", "Lyon",   "Malmö",
                                                    "Oviedo", "Poznań", "Dublin"};
constexpr std::array<std::string_view, 3> titles = {"Specialist", "Senior Specialist", "Manager"};

// A small generator with a fixed start, so that every tree of a size is the same tree.
class Dice {
public:
    template <class List>
    const auto &pick(const List &list)
    {
        return list[roll() % list.size()];
    }
    std::uint32_t roll()
    {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return static_cast<std::uint32_t>(state_ >> 33);
    }

private:
    std::uint64_t state_ = 20260101;
};

class Writer {
public:
    Writer(std::ostream &out, std::string base) : out_(out), base_(std::move(base)) {}

    // Begins an entry; `below` is empty for the base and ends with a comma otherwise.
    Writer &entry(const std::string &below, std::initializer_list<std::string_view> classes)
    {
        if (count_++ > 0)
            out_ << "\n";
        put("dn", below + base_);
        for (const std::string_view name : classes)
            put("objectClass", name);
        return *this;
    }
    Writer &put(const char *name, std::string_view value)
    {
        // libldap's writer knows which values need base64, and folds lines.
        const std::unique_ptr<char, void (*)(void *)> line(
            ldif_put(LDIF_PUT_VALUE, name, value.data(), static_cast<ber_len_t>(value.size())),
            ber_memfree);
        out_ << line.get();
        return *this;
    }
    std::size_t count() const
    {
        return count_;
    }
    const std::string &base() const
    {
        return base_;
    }

private:
    std::ostream &out_;
    std::string base_;
    std::size_t count_ = 0;
};

void write_base(Writer &tree)
{
    const auto [type, value] = first_rdn(tree.base());
    const auto is = [&name = type](const char *other) {
        return strcasecmp(name.c_str(), other) == 0;
    };
    if (is("dc"))
        tree.entry("", {"organization", "dcObject"}).put("dc", value).put("o", "Example Company");
    else if (is("o"))
        tree.entry("", {"organization"}).put("o", value);
    else if (is("ou"))
        tree.entry("", {"organizationalUnit"}).put("ou", value);
    else if (is("l"))
        tree.entry("", {"locality"}).put("l", value);
    else if (is("c"))
        tree.entry("", {"country"}).put("c", value);
    else
        throw CannotStart("the base of the sample tree begins with dc=, o=, ou=, l= or c=, not "
                          "with \"" +
                          tree.base() + "\"");
    tree.put("description", "The sandbox's sample tree");
}

void write_unit(Writer &tree, std::string_view name, const std::string &below,
                std::string_view description)
{
    tree.entry("ou=" + std::string(name) + "," + below, {"organizationalUnit"})
        .put("ou", name)
        .put("description", description);
}

void write_servers(Writer &tree)
{
    write_unit(tree, "servers", "", "Servers that hold partitions");
    for (std::size_t i = 1; i <= 3; ++i) {
        const std::string name = "server" + std::to_string(i);
        tree.entry("cn=" + name + ",ou=servers,", {"directoryServer"})
            .put("cn", name)
            .put("l", cities[i - 1])
            .put("labeledURI", "ldap://" + name + ".example.com")
            .put("description", "Directory server " + std::to_string(i));
    }
}

struct Person {
    std::string dn;
    std::string department;
};

// Letters and digits of a name, lower case, for a user id; others become nothing.
std::string ascii_of(std::string_view name)
{
    std::string text;
    for (const char c : name) {
        if (c >= 'A' && c <= 'Z')
            text += static_cast<char>(c + ('a' - 'A'));
        else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))
            text += c;
    }
    return text.empty() ? "x" : text;
}

// A few bytes that are a picture to whoever looks at the first and the last of them.
std::string picture(Dice &dice)
{
    std::string bytes("\xff\xd8\xff\xe0\x00\x10JFIF", 10);
    for (std::size_t i = 0; i < 300; ++i)
        bytes += static_cast<char>(dice.roll() & 0xff);
    return bytes.append("\xff\xd9");
}

Person write_person(Writer &tree, Dice &dice, std::size_t number)
{
    const std::string given(dice.pick(given_names));
    const std::string surname(dice.pick(surnames));
    const std::string department(departments[number % departments.size()]);
    // The number makes it unique, the name makes it readable.
    const std::string uid =
        ascii_of(given).substr(0, 1) + ascii_of(surname) + std::to_string(number);
    const std::string below = "uid=" + uid + ",ou=" + department + ",ou=people,";
    tree.entry(below, {"inetOrgPerson"})
        .put("uid", uid)
        .put("cn", given + " " + surname)
        .put("givenName", given)
        .put("sn", surname)
        .put("mail", uid + "@example.com")
        .put("employeeNumber", std::to_string(10000 + number))
        .put("title", dice.pick(titles))
        .put("l", dice.pick(cities))
        .put("telephoneNumber", "+49 30 5550 " + std::to_string(1000 + dice.roll() % 9000))
        .put("userPassword", sample_password);
    if (number % 16 == 0)
        tree.put("jpegPhoto", picture(dice));
    return {below + tree.base(), department};
}

void write_group(Writer &tree, std::string_view name, std::string_view description,
                 const std::vector<std::string> &members)
{
    tree.entry("cn=" + std::string(name) + ",ou=groups,", {"groupOfNames"})
        .put("cn", name)
        .put("description", description);
    for (const std::string &member : members)
        tree.put("member", member);
}

// The people of a department, a page of them at most: a group is one entry, however large the
// company is.
std::vector<std::string> members_of(const std::vector<Person> &people, std::string_view department)
{
    constexpr std::size_t most = 200;
    std::vector<std::string> members;
    for (const Person &person : people)
        if (person.department == department && members.size() < most)
            members.push_back(person.dn);
    return members;
}

} // namespace

void write_sample_tree(std::ostream &out, const std::string &base, std::size_t entries)
{
    Writer tree(out, base);
    Dice dice;
    write_base(tree);
    write_servers(tree);
    write_unit(tree, "people", "", "Everybody");
    for (const std::string_view department : departments)
        write_unit(tree, department, "ou=people,", "The department");
    write_unit(tree, "groups", "", "Groups");
    write_unit(tree, "payroll", "", "What people earn; for the payroll group only");

    // One payroll record for each of the first people, then the groups, the rest is people.
    constexpr std::size_t records = 10;
    constexpr std::size_t groups = departments.size() + 3;
    std::vector<Person> people;
    while (tree.count() + records + groups < entries)
        people.push_back(write_person(tree, dice, people.size() + 1));
    for (std::size_t i = 0; i < records; ++i)
        tree.entry("cn=record" + std::to_string(i + 1) + ",ou=payroll,", {"organizationalRole"})
            .put("cn", "record" + std::to_string(i + 1))
            .put("roleOccupant", people[i].dn)
            .put("description", std::to_string(2000 + dice.roll() % 4000) + " EUR");
    for (const std::string_view department : departments)
        write_group(tree, department, "Members of the department", members_of(people, department));
    write_group(tree, "administrators", "May change everything", {people[0].dn});
    write_group(tree, "payroll", "Sees the payroll", {people[2].dn, people[10].dn});
    write_group(tree, "helpdesk", "Answers the telephone", {people[1].dn, people[3].dn});
}

} // namespace sandbox
