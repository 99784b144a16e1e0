#include "backup_file.h"

#include <algorithm>
#include <charconv>
#include <concepts>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <openssl/evp.h>

#include "text.h"

namespace tool {

namespace {

constexpr std::string_view kind = "greirige backup ";
constexpr std::string_view version = "1";
constexpr std::string_view digest_name = "sha256 ";

std::string sha256(std::string_view header, std::string_view data)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), header.data(), header.size()) != 1 ||
        EVP_DigestUpdate(context.get(), data.data(), data.size()) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest, &length) != 1)
        throw std::runtime_error("this machine's libcrypto computes no SHA-256");
    std::string hex;
    for (const unsigned char byte : std::span(digest, length)) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 0x0f];
    }
    return hex;
}

std::string text_line(std::string_view name, const std::string &text)
{
    const bool plain = decode_utf8(text) && printable(text) == text;
    return std::string(name) + (plain ? ": " + text : ":: " + base64(text)) + '\n';
}

// The lines that the digest covers.
std::string header_of(const BackupFile &file)
{
    std::string header = std::string(kind).append(version) + '\n';
    header += text_line("dn", file.dn);
    header += text_line("server", file.server);
    header += "time: " + file.time + '\n';
    header += "state: " + file.backup.state + '\n';
    if (!file.since.empty())
        header += "since: " + file.since + '\n';
    header += std::string("password: ") + (file.guarded ? "yes" : "no") + '\n';
    header += "chunks: " + greirige::chunk_list(file.backup) + '\n';
    header += "size: " + std::to_string(file.backup.data.size()) + '\n';
    return header;
}

template <std::integral Number>
std::optional<Number> number(std::string_view text)
{
    Number value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || stop != text.data() + text.size())
        return std::nullopt;
    return value;
}

// "848281000+3", as the library writes it.
bool is_state(std::string_view text)
{
    const std::size_t plus = std::min(text.find('+'), text.size());
    const auto mts = number<std::int32_t>(text.substr(0, plus));
    const auto revision = number<std::int32_t>(text.substr(std::min(plus + 1, text.size())));
    return mts && revision && text == std::to_string(*mts) + '+' + std::to_string(*revision);
}

// "2026-11-21T00:22:30Z", whatever the digits say.
bool is_time(std::string_view text)
{
    constexpr std::string_view form = "0000-00-00T00:00:00Z";
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char c, char pattern) {
        return pattern == '0' ? c >= '0' && c <= '9' : c == pattern;
    });
}

std::optional<std::vector<std::int32_t>> chunks_of(std::string_view list)
{
    std::vector<std::int32_t> numbers;
    while (!list.empty()) {
        const std::size_t end = list.find(';');
        const auto one = number<std::int32_t>(list.substr(0, end));
        if (end == list.npos || !one || *one < 0)
            return std::nullopt;
        numbers.push_back(*one);
        list.remove_prefix(end + 1);
    }
    if (numbers.empty() || static_cast<std::size_t>(numbers.front()) != numbers.size() - 1)
        return std::nullopt;
    numbers.erase(numbers.begin());
    return numbers;
}

// Reads line by line. The first that is not what it should be is remembered, and from there on
// every call gives something empty.
class Reader {
public:
    explicit Reader(std::string_view bytes) : all_(bytes), rest_(bytes) {}

    void first_line()
    {
        const std::string_view start = rest_.substr(0, kind.size());
        if (start != kind.substr(0, start.size()) || rest_.empty())
            return fail("is no backup that greirige made");
        const std::string_view found = line("first");
        if (!damage_ && found.substr(kind.size()) != version)
            fail("is a backup of version " + in_quotes(found.substr(kind.size(), 20)) +
                 "; this program reads version " + std::string(version));
    }

    bool next_is(std::string_view name) const
    {
        return rest_.starts_with(std::string(name) + ':');
    }

    std::string value(std::string_view name)
    {
        const std::string_view found = line(name);
        const std::string begin = std::string(name) + ": ";
        if (!damage_ && !found.starts_with(begin))
            fail("is damaged: the line " + in_quotes(name) + " is not where it belongs");
        return std::string(damage_ ? std::string_view() : found.substr(begin.size()));
    }

    // A name, as it is or in base64.
    std::string text(std::string_view name)
    {
        if (!rest_.starts_with(std::string(name) + "::"))
            return value(name);
        const std::string both = std::string(name) + ':';
        const auto decoded = decode_base64(value(both));
        if (!decoded)
            fail_at(name, "base64");
        return decoded.value_or("");
    }

    // A value that `fits` takes; `form` says what it should have been.
    template <class Fits>
    std::string checked(std::string_view name, const char *form, Fits fits)
    {
        std::string found = value(name);
        if (!fits(found))
            fail_at(name, form);
        return found;
    }

    // How much of the whole is read.
    std::string_view so_far() const
    {
        return all_.substr(0, all_.size() - rest_.size());
    }

    void empty_line()
    {
        if (!line("empty").empty())
            fail("is damaged: no empty line follows its header");
    }

    std::string_view data(std::size_t size)
    {
        if (rest_.size() < size)
            fail("is truncated: " + std::to_string(rest_.size()) + " of its " +
                 std::to_string(size) + " bytes of data are there");
        else if (rest_.size() > size)
            fail("is damaged: " + std::to_string(rest_.size() - size) + " bytes follow its data");
        return rest_;
    }

    void fail(const std::string &what)
    {
        if (!damage_)
            damage_ = Damage{what};
    }
    void fail_at(std::string_view name, const char *form)
    {
        fail("is damaged: what its line " + in_quotes(name) + " holds is not " + form);
    }
    const std::optional<Damage> &damage() const
    {
        return damage_;
    }

private:
    std::string_view line(std::string_view name)
    {
        if (damage_)
            return {};
        const std::size_t end = rest_.find('\n');
        if (end == rest_.npos) {
            fail("is truncated: it ends before or in its " + (name == "first" || name == "empty"
                                                                  ? std::string(name) + " line"
                                                                  : "line " + in_quotes(name)));
            return {};
        }
        const std::string_view found = rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        return found;
    }

    std::string_view all_;
    std::string_view rest_;
    std::optional<Damage> damage_;
};

} // namespace

std::string digest_of(const BackupFile &file)
{
    return sha256(header_of(file), file.backup.data);
}

std::string format_backup(const BackupFile &file)
{
    return header_of(file)
        .append("digest: ")
        .append(digest_name)
        .append(digest_of(file))
        .append("\n\n")
        .append(file.backup.data);
}

std::variant<BackupFile, Damage> parse_backup(std::span<const std::byte> bytes)
{
    Reader reader({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    BackupFile file;
    reader.first_line();
    file.dn = reader.text("dn");
    file.server = reader.text("server");
    file.time = reader.checked("time", "a time", is_time);
    file.backup.state = reader.checked("state", "two marks", is_state);
    if (reader.next_is("since"))
        file.since = reader.checked("since", "two marks", is_state);
    file.guarded = reader.checked("password", "yes or no", [](const std::string &word) {
        return word == "yes" || word == "no";
    }) == "yes";
    const auto chunks = chunks_of(reader.value("chunks"));
    if (!chunks)
        reader.fail_at("chunks", "a list of sizes");
    const auto size = number<std::size_t>(reader.value("size"));
    if (!size)
        reader.fail_at("size", "a number");
    const std::string_view header = reader.so_far();
    const std::string digest = reader.value("digest");
    reader.empty_line();
    const std::string_view data = reader.data(size.value_or(0));
    if (!reader.damage() && digest != std::string(digest_name) + sha256(header, data))
        reader.fail("is damaged: its digest belongs to other bytes, so it was altered");
    file.backup.chunks = chunks.value_or(std::vector<std::int32_t>());
    file.backup.data = data;
    if (!reader.damage() && header_of(file) != header)
        reader.fail("is damaged: greirige writes another header");
    if (reader.damage())
        return *reader.damage();
    return file;
}

} // namespace tool
