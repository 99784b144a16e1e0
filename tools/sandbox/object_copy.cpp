#include "object_copy.h"

#include <array>
#include <crypt.h>
#include <cstdint>
#include <memory>

namespace sandbox {

namespace {

constexpr std::string_view magic("GOBJ\0\0\0\1", 8);

constexpr std::array<std::uint32_t, 256> crc_table = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? value >> 1 ^ 0xedb88320U : value >> 1;
        table[i] = value;
    }
    return table;
}();

std::uint32_t crc32(std::string_view bytes)
{
    std::uint32_t crc = 0xffffffffU;
    for (const char c : bytes)
        crc = crc >> 8 ^ crc_table[(crc ^ static_cast<unsigned char>(c)) & 0xff];
    return ~crc;
}

std::string number(std::size_t value)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift & 0xff);
    return bytes;
}

std::string text(std::string_view value)
{
    return number(value.size()).append(value);
}

class Parts {
public:
    Parts(std::string_view bytes, std::string whose) : rest_(bytes), whose_(std::move(whose)) {}

    std::string_view take(std::size_t size)
    {
        if (size > rest_.size())
            throw DamagedCopy(whose_ + " is cut short");
        const std::string_view found = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return found;
    }
    std::size_t number()
    {
        std::size_t value = 0;
        for (const char c : take(4))
            value = value << 8 | static_cast<unsigned char>(c);
        return value;
    }
    std::string text()
    {
        return std::string(take(number()));
    }
    std::size_t left() const
    {
        return rest_.size();
    }
    void finish() const
    {
        if (!rest_.empty())
            throw DamagedCopy(whose_ + " is longer than its content");
    }

private:
    std::string_view rest_;
    std::string whose_;
};

std::string write_attribute(const Attribute &attribute)
{
    std::string chunk = text(attribute.name) + number(attribute.values.size());
    for (const std::string &value : attribute.values)
        chunk += text(value);
    return chunk;
}

Attribute read_attribute(std::string_view chunk, const std::string &name)
{
    Parts parts(chunk, name);
    Attribute attribute{parts.text(), {}};
    for (std::size_t left = parts.number(); left > 0; --left)
        attribute.values.push_back(parts.text());
    parts.finish();
    return attribute;
}

std::string crypted(const std::string &password, const std::string &setting)
{
    if (password.find('\0') != std::string::npos)
        return {};
    const auto work = std::make_unique<crypt_data>();
    const char *hash = crypt_rn(password.c_str(), setting.c_str(), work.get(), sizeof *work);
    return hash != nullptr ? hash : "";
}

} // namespace

std::string hash_password(const std::string &password)
{
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
    if (crypt_gensalt_rn("$5$", 0, nullptr, 0, setting.data(), static_cast<int>(setting.size())) ==
        nullptr)
        return {};
    return crypted(password, setting.data());
}

bool is_password(const std::string &password, const std::string &hash)
{
    return !hash.empty() && crypted(password, hash) == hash;
}

CopyBytes write_copy(const ObjectCopy &copy)
{
    CopyBytes bytes;
    std::string content;
    std::string head = std::string(magic) + number(copy.entry.attributes.size());
    for (const Attribute &attribute : copy.entry.attributes) {
        const std::string chunk = write_attribute(attribute);
        head += number(chunk.size()) + number(crc32(chunk));
        content += chunk;
        bytes.chunks.push_back(chunk.size());
    }
    head += text(copy.entry.dn) + text(copy.password_hash);
    head += number(crc32(head));
    bytes.chunks.insert(bytes.chunks.begin(), head.size());
    bytes.data = head + content;
    return bytes;
}

ObjectCopy read_copy(std::string_view data, const std::vector<std::size_t> &chunks)
{
    Parts stream(data, "the data");
    if (chunks.empty())
        throw DamagedCopy("it has no chunk");
    const std::string_view first = stream.take(chunks.front());
    Parts head(first, "its first chunk");
    if (head.take(magic.size()) != magic)
        throw DamagedCopy("it is no copy of an object, or one of another version");
    if (first.size() < magic.size() + 4 || Parts(first.substr(first.size() - 4), "").number() !=
                                               crc32(first.substr(0, first.size() - 4)))
        throw DamagedCopy("its first chunk has been altered");
    const std::size_t count = head.number();
    if (count + 1 != chunks.size())
        throw DamagedCopy("it consists of " + std::to_string(count + 1) + " chunks, not of " +
                          std::to_string(chunks.size()));

    ObjectCopy copy;
    for (std::size_t i = 1; i <= count; ++i) {
        const std::string name = "chunk " + std::to_string(i);
        const std::size_t size = head.number();
        const std::size_t crc = head.number();
        if (size != chunks[i])
            throw DamagedCopy(name + " has " + std::to_string(size) + " bytes, not " +
                              std::to_string(chunks[i]));
        const std::string_view chunk = stream.take(size);
        if (crc32(chunk) != crc)
            throw DamagedCopy(name + " has been altered");
        copy.entry.attributes.push_back(read_attribute(chunk, name));
    }
    copy.entry.dn = head.text();
    copy.password_hash = head.text();
    head.take(4);
    head.finish();
    stream.finish();
    return copy;
}

} // namespace sandbox
