// Encoding batches of adds of twelve attributes: the library's encoders, plain ber_printf() and a
// writer by hand that makes the same bytes in one pass. Where the bytes differ nothing is timed.

#include "ratios.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "ldapx.h"

namespace {

// A generated person and the records that the LDAP C API wants for it.
class Person {
public:
    explicit Person(int number)
    {
        const std::string id = std::to_string(100000 + number);
        dn_ = "uid=user" + id + ",ou=people,dc=example,dc=com";
        set(0, "objectClass", {"top", "person", "organizationalPerson", "inetOrgPerson"});
        set(1, "uid", {"user" + id});
        set(2, "cn", {"Jordan Example " + id});
        set(3, "sn", {"Example " + id});
        set(4, "givenName", {"Jordan"});
        set(5, "mail", {"user" + id + "@example.com"});
        set(6, "telephoneNumber", {"+49 30 5550 " + id});
        set(7, "title", {"Senior Administrator"});
        set(8, "departmentNumber", {"4711"});
        set(9, "employeeNumber", {id});
        set(10, "description", {"Generated entry number " + id + " of the bulk update benchmark"});
        set(11, "userPassword", {"{SSHA}0123456789abcdef0123456789abcdef" + id});
    }
    Person(const Person &) = delete;
    Person &operator=(const Person &) = delete;
    ~Person() = default;

    const char *dn() const
    {
        return dn_.c_str();
    }
    LDAPMod **attributes()
    {
        return pointers_.data();
    }

private:
    static constexpr std::size_t count = 12;
    struct Attribute {
        std::string type;
        std::vector<std::string> values;
        std::vector<char *> pointers;
    };

    void set(std::size_t index, const char *type, std::vector<std::string> values)
    {
        Attribute &attribute = attributes_[index];
        attribute.type = type;
        attribute.values = std::move(values);
        for (std::string &value : attribute.values)
            attribute.pointers.push_back(value.data());
        attribute.pointers.push_back(nullptr);
        mods_[index].mod_op = LDAP_MOD_ADD;
        mods_[index].mod_type = attribute.type.data();
        mods_[index].mod_values = attribute.pointers.data();
        pointers_[index] = &mods_[index];
    }

    std::string dn_;
    std::array<Attribute, count> attributes_;
    std::array<LDAPMod, count> mods_{};
    std::array<LDAPMod *, count + 1> pointers_{};
};

class Batch {
public:
    explicit Batch(int size)
    {
        for (int i = 0; i < size; ++i)
            people_.push_back(std::make_unique<Person>(i));
    }
    auto begin() const
    {
        return people_.begin();
    }
    auto end() const
    {
        return people_.end();
    }

private:
    std::vector<std::unique_ptr<Person>> people_;
};

constexpr int sequenceNumber = 17;

// What the encoders are given; they only look whether it is there.
LDAP *session()
{
    static LDAP *ld = [] {
        LDAP *made = nullptr;
        ldap_initialize(&made, nullptr);
        return made;
    }();
    return ld;
}

// A finished value, in the form in which it goes to the LDAP library.
class Value {
public:
    explicit Value(BerElement *ber)
    {
        ber_flatten(ber, &value_);
        ber_free(ber, 1);
    }
    Value(const Value &) = delete;
    Value &operator=(const Value &) = delete;
    ~Value()
    {
        ber_bvfree(value_);
    }
    std::string_view bytes() const
    {
        return {value_->bv_val, value_->bv_len};
    }

private:
    berval *value_ = nullptr;
};

Value library(const Batch &batch)
{
    BerElement *ber = ber_alloc_t(0);
    ber_printf(ber, "{i", sequenceNumber);
    for (const auto &person : batch)
        LBURPEncodeAdd(session(), person->dn(), person->attributes(), nullptr, ber);
    ber_printf(ber, "}");
    return Value(ber);
}

Value plain_ber_printf(const Batch &batch)
{
    BerElement *ber = ber_alloc_t(0);
    ber_printf(ber, "{i", sequenceNumber);
    for (const auto &person : batch) {
        ber_printf(ber, "{t{s{", LDAP_REQ_ADD, person->dn());
        for (LDAPMod **mod = person->attributes(); *mod != nullptr; ++mod)
            ber_printf(ber, "{s[v]}", (*mod)->mod_type, (*mod)->mod_values);
        ber_printf(ber, "}}");
        ber_printf(ber, "}");
    }
    ber_printf(ber, "}");
    return Value(ber);
}

// One pass over the data: every byte is written once, and each constructed element's length, in
// the five bytes that the BER layer gives it, once its content is there.
class OnePass {
public:
    std::size_t open(unsigned char tag)
    {
        char *at = room(6);
        at[0] = static_cast<char>(tag);
        at[1] = static_cast<char>(0x84);
        size_ += 6;
        return size_;
    }
    void close(std::size_t start)
    {
        const std::size_t length = size_ - start;
        for (std::size_t i = 0; i < 4; ++i)
            buffer_.get()[start - 1 - i] = static_cast<char>(length >> (8 * i));
    }
    void octets(const char *text)
    {
        const std::size_t length = std::strlen(text);
        char *at = room(length + 6);
        *at++ = 0x04;
        if (length < 0x80) {
            *at++ = static_cast<char>(length);
        } else {
            std::size_t width = 1;
            while (length >> (8 * width) != 0)
                ++width;
            *at++ = static_cast<char>(0x80 | width);
            while (width-- > 0)
                *at++ = static_cast<char>(length >> (8 * width));
        }
        std::memcpy(at, text, length);
        size_ = static_cast<std::size_t>(at - buffer_.get()) + length;
    }
    void small_integer(int value)
    {
        char *at = room(3);
        at[0] = 0x02;
        at[1] = 1;
        at[2] = static_cast<char>(value);
        size_ += 3;
    }
    std::string_view bytes() const
    {
        return {buffer_.get(), size_};
    }

private:
    char *room(std::size_t more)
    {
        if (capacity_ - size_ < more) {
            capacity_ = 2 * (capacity_ + more);
            buffer_.reset(static_cast<char *>(std::realloc(buffer_.release(), capacity_)));
        }
        return buffer_.get() + size_;
    }

    struct Free {
        void operator()(char *block) const
        {
            std::free(block);
        }
    };
    std::unique_ptr<char, Free> buffer_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
};

OnePass one_pass(const Batch &batch)
{
    OnePass writer;
    const auto list = writer.open(0x30);
    writer.small_integer(sequenceNumber);
    for (const auto &person : batch) {
        const auto operation = writer.open(0x30);
        const auto add = writer.open(LDAP_REQ_ADD);
        writer.octets(person->dn());
        const auto attributes = writer.open(0x30);
        for (LDAPMod **mod = person->attributes(); *mod != nullptr; ++mod) {
            const auto attribute = writer.open(0x30);
            writer.octets((*mod)->mod_type);
            const auto values = writer.open(0x31);
            for (char **value = (*mod)->mod_values; *value != nullptr; ++value)
                writer.octets(*value);
            writer.close(values);
            writer.close(attribute);
        }
        writer.close(attributes);
        writer.close(add);
        writer.close(operation);
    }
    writer.close(list);
    return writer;
}

template <class Encoder>
void time_encoder(benchmark::State &state, Encoder encode)
{
    const Batch batch(static_cast<int>(state.range(0)));
    if (encode(batch).bytes() != plain_ber_printf(batch).bytes()) {
        state.SkipWithError("the bytes differ");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(encode(batch).bytes().size());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<bench::Ratio> ratios;
    for (const long size : {1, 100, 10000}) {
        const auto add = [size](const char *name, auto encode) {
            benchmark::RegisterBenchmark(name, time_encoder<decltype(encode)>, encode)->Arg(size);
        };
        add("library", &library);
        add("ber_printf", &plain_ber_printf);
        add("one_pass", &one_pass);
        const std::string suffix = std::string("/").append(std::to_string(size));
        ratios.push_back({"library" + suffix, "ber_printf" + suffix});
        ratios.push_back({"library" + suffix, "one_pass" + suffix});
    }
    return bench::run(argc, argv, ratios);
}
