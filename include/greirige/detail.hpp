// greirige/detail.hpp - what the layer's parts share inside: owners for what the C interfaces
// allocate, arguments on their way to them, failures on their way back. Nothing here is for
// callers.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/time.h>

#include "greirige/result.hpp"
#include "ldapx.h"

namespace greirige::detail {

// Memory of the library and of the LDAP library, released by itself.
struct Release {
    void operator()(LDAPMessage *message) const noexcept
    {
        ldap_msgfree(message);
    }
    void operator()(BerElement *ber) const noexcept
    {
        ber_free(ber, 1);
    }
    void operator()(berval *value) const noexcept
    {
        ber_bvfree(value);
    }
    void operator()(char **list) const noexcept
    {
        ber_memvfree(reinterpret_cast<void **>(list));
    }
};
using Message = std::unique_ptr<LDAPMessage, Release>;
using Element = std::unique_ptr<BerElement, Release>;
using Value = std::unique_ptr<berval, Release>;
using List = std::unique_ptr<char *[], Release>;

struct MemFree {
    void operator()(char *block) const noexcept
    {
        ldapx_memfree(block);
    }
};
using Block = std::unique_ptr<char, MemFree>; // of the library

struct LdapMemFree {
    void operator()(char *string) const noexcept
    {
        ldap_memfree(string);
    }
};
using LdapString = std::unique_ptr<char, LdapMemFree>; // of the LDAP library

// A place for what a function allocates, released by itself whatever happens after the call.
template <class Owner>
class Out {
public:
    Out() = default;
    explicit Out(typename Owner::pointer held) noexcept : held_(held) {}
    Out(const Out &) = delete;
    Out &operator=(const Out &) = delete;
    ~Out()
    {
        Owner released(held_);
    }
    typename Owner::pointer *place() noexcept
    {
        return &held_;
    }
    typename Owner::pointer get() const noexcept
    {
        return held_;
    }

private:
    typename Owner::pointer held_ = nullptr;
};

[[noreturn]] inline void no_memory()
{
#if defined(__cpp_exceptions)
    throw std::bad_alloc();
#else
    std::abort();
#endif
}

inline std::string string_of(const char *text)
{
    return text ? std::string(text) : std::string();
}

inline std::string session_string(LDAP *ld, int option)
{
    char *text = nullptr;
    ldap_get_option(ld, option, &text);
    return string_of(LdapString(text).get());
}

// A failure with a result code, and what the server said of it.
inline Error failure(LDAP *ld, int code, std::string_view where)
{
    return {code, ldapx_err2string(code), std::string(where),
            session_string(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE),
            session_string(ld, LDAP_OPT_MATCHED_DN)};
}

// A failure that the layer finds itself.
inline Error refusal(int code, std::string_view text, std::string where)
{
    return {code, std::string(text), std::move(where)};
}

inline Error bad_argument(std::string_view where, std::string_view parameter, std::string_view text)
{
    std::string place(where);
    if (!parameter.empty())
        place.append(": ").append(parameter);
    return refusal(LDAPX_PARAM_ERROR, text, std::move(place));
}

// What the server said of an earlier operation must not be taken for this one's.
inline void forget_earlier(LDAP *ld) noexcept
{
    ldap_set_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, nullptr);
    ldap_set_option(ld, LDAP_OPT_MATCHED_DN, nullptr);
}

// The session's result code, for functions that report a failure only there.
inline int session_code(LDAP *ld) noexcept
{
    int code = LDAP_SUCCESS;
    ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &code);
    return code == LDAP_SUCCESS ? LDAPX_OPERATIONS_ERROR : code;
}

// A NUL-terminated copy for functions that take char * and end the string at its first zero byte.
class CString {
public:
    explicit CString(std::string_view text) : text_(text) {}
    operator char *() noexcept
    {
        return text_.data();
    }

private:
    std::string text_;
};

// A NULL-terminated array of them.
class CStrings {
public:
    template <class Strings>
    explicit CStrings(const Strings &strings) : texts_(strings.begin(), strings.end())
    {
        for (std::string &text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    CStrings(const CStrings &) = delete;
    CStrings &operator=(const CStrings &) = delete;
    operator char **() noexcept
    {
        return pointers_.data();
    }

private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

// A handle of one's own on a session's connection (ldap_dup): what outlives a call keeps one, and
// so may outlive the session too.
struct CloseHandle {
    void operator()(LDAP *ld) const noexcept
    {
        ldap_destroy(ld);
    }
};
using Handle = std::unique_ptr<LDAP, CloseHandle>;

// How long to wait for a point in time: nothing when it is past, never more than a day at once.
inline timeval time_until(std::chrono::steady_clock::time_point deadline) noexcept
{
    using namespace std::chrono;
    const auto now = steady_clock::now();
    microseconds left = hours(24);
    if (deadline <= now)
        left = microseconds::zero();
    else if (deadline < now + hours(24))
        left = duration_cast<microseconds>(deadline - now) + microseconds(1); // not too early
    timeval wait{};
    wait.tv_sec = static_cast<time_t>(left.count() / 1000000);
    wait.tv_usec = static_cast<suseconds_t>(left.count() % 1000000);
    return wait;
}

// Reads the elements of a value one after the other, copying nothing. The first element that is not
// what it should be ends the reading: ok() is false from there on, and every call does nothing.
class Reader {
public:
    // The value must outlive the reader.
    explicit Reader(const berval &value) : ber_(ber_alloc_t(0))
    {
        if (!ber_)
            no_memory();
        berval bytes = value;
        ber_init2(ber_.get(), &bytes, 0);
        peek();
    }

    bool ok() const noexcept
    {
        return ok_;
    }
    void fail() noexcept
    {
        ok_ = false;
    }
    // The next element, with ok(): its tag, or none where the value ends or its header is damaged.
    bool next_is(ber_tag_t tag) const noexcept
    {
        return ok_ && tag_ == tag && tag != none;
    }
    ber_tag_t tag() const noexcept
    {
        return tag_;
    }
    std::string_view contents() const noexcept
    {
        return {contents_.bv_val, contents_.bv_len};
    }
    // The same for a reader of its own, which does not read past them.
    const berval &content() const noexcept
    {
        return contents_;
    }
    std::size_t unread() const noexcept
    {
        ber_len_t left = 0;
        ber_get_option(ber_.get(), LBER_OPT_BER_REMAINING_BYTES, &left);
        return left;
    }

    // Past the next element, whatever its tag.
    void pass() noexcept
    {
        if (!found())
            return;
        berval passed{};
        ber_skip_element(ber_.get(), &passed);
        peek();
    }
    // Into it. Its length bounds nothing: what follows its contents is read on.
    void enter() noexcept
    {
        if (!found())
            return;
        ber_len_t length = 0;
        ber_skip_tag(ber_.get(), &length);
        peek();
    }
    // A number in at most four bytes, whatever its tag, as the LDAP library reads it.
    std::int32_t number() noexcept
    {
        return static_cast<std::int32_t>(bits(contents()));
    }
    // One in five bytes too, where the first only keeps the sign away from the other four.
    std::uint32_t unsigned_number() noexcept
    {
        std::string_view bytes = contents();
        if (bytes.size() == 5 && bytes[0] == 0 && (bytes[1] & 0x80) != 0)
            bytes.remove_prefix(1);
        return bits(bytes);
    }
    // The contents of an element with this tag.
    std::string_view string(ber_tag_t tag = LBER_OCTETSTRING) noexcept
    {
        if (!next_is(tag))
            fail();
        const std::string_view bytes = ok_ ? contents() : std::string_view();
        pass();
        return bytes;
    }

    // The contents of an element with any tag.
    std::string_view any_string() noexcept
    {
        const std::string_view bytes = contents();
        pass();
        return bytes;
    }

    static constexpr ber_tag_t none = LBER_DEFAULT;

private:
    struct ReleaseHead {
        void operator()(BerElement *ber) const noexcept
        {
            ber_free(ber, 0);
        }
    };

    bool found() noexcept
    {
        ok_ = ok_ && tag_ != none;
        return ok_;
    }
    void peek() noexcept
    {
        contents_ = {};
        tag_ = ber_peek_element(ber_.get(), &contents_);
        if (tag_ == none)
            contents_ = {}; // what a cut element claims to hold is not there
    }
    std::uint32_t bits(std::string_view bytes) noexcept
    {
        if (bytes.size() > 4)
            fail();
        std::uint32_t number = !bytes.empty() && (bytes[0] & 0x80) != 0 ? ~0U : 0U;
        if (ok_)
            for (const char byte : bytes)
                number = number << 8 | static_cast<unsigned char>(byte);
        pass();
        return number;
    }

    std::unique_ptr<BerElement, ReleaseHead> ber_;
    berval contents_{};
    ber_tag_t tag_ = none;
    bool ok_ = true;
};

// The response to an asynchronous extended request, taken apart.
struct Answer {
    int code = LDAP_SUCCESS; // the server's for the request as a whole
    std::string message;
    std::string matched_dn;
    LdapString name;
    Value value;
};

// The answer in a message, or the LDAP library's failure to read it.
inline Result<Answer> read_answer(LDAP *ld, LDAPMessage *message, std::string_view where)
{
    Answer answer;
    char *matched = nullptr;
    char *text = nullptr;
    int rc = ldap_parse_result(ld, message, &answer.code, &matched, &text, nullptr, nullptr, 0);
    const LdapString owned_matched(matched);
    const LdapString owned_text(text);
    answer.matched_dn = string_of(matched);
    answer.message = string_of(text);
    if (rc == LDAP_SUCCESS) {
        char *name = nullptr;
        berval *value = nullptr;
        rc = ldap_parse_extended_result(ld, message, &name, &value, 0);
        answer.name.reset(name);
        answer.value.reset(value);
    }
    if (rc != LDAP_SUCCESS)
        return failure(ld, rc, where);
    return answer;
}

// What the server said of a request that it refused.
inline Error refused(const Answer &answer, std::string_view where)
{
    return {answer.code, ldapx_err2string(answer.code), std::string(where), answer.message,
            answer.matched_dn};
}

// One call of the C interface: takes the arguments over, runs it unless one of them was refused,
// and turns its result code into a Result.
class Call {
public:
    Call(LDAP *ld, std::string_view name) : ld_(ld), name_(name)
    {
        if (!ld)
            refuse("", "the session is a null pointer");
    }

    void refuse(std::string_view parameter, std::string_view text)
    {
        if (ready_)
            ready_ = bad_argument(name_, parameter, text);
    }
    // A string that holds a zero byte would arrive cut: it is refused.
    CString text(std::string_view parameter, std::string_view value)
    {
        if (value.find('\0') != value.npos)
            refuse(parameter, "the string holds a zero byte");
        return CString(value);
    }
    template <class Strings>
    CStrings texts(std::string_view parameter, const Strings &values)
    {
        for (std::string_view value : values)
            if (value.find('\0') != value.npos)
                refuse(parameter, "a string holds a zero byte");
        return CStrings(values);
    }

    // Holds the first refusal.
    const Result<void> &ready() const noexcept
    {
        return ready_;
    }
    template <class Function>
    Result<void> run(Function &&function)
    {
        if (!ready_)
            return ready_;
        forget_earlier(ld_);
        const int code = function();
        if (code != LDAP_SUCCESS)
            return failure(code);
        return {};
    }
    Error failure(int code) const
    {
        return detail::failure(ld_, code, name_);
    }
    // The server's answer is not what the operation promises.
    Error undecodable(std::string_view text) const
    {
        return refusal(LDAPX_DECODING_ERROR, text, std::string(name_));
    }

private:
    LDAP *ld_;
    std::string_view name_;
    Result<void> ready_;
};

} // namespace greirige::detail
