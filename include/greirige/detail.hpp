// greirige/detail.hpp - what the layer's parts share inside: owners for what the C interfaces
// allocate, arguments on their way to them, failures on their way back. Nothing here is for
// callers.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
class Text {
public:
    explicit Text(std::string_view text) : text_(text) {}
    operator char *() noexcept
    {
        return text_.data();
    }

private:
    std::string text_;
};

// A NULL-terminated array of them.
class TextList {
public:
    template <class Strings>
    explicit TextList(const Strings &strings) : texts_(strings.begin(), strings.end())
    {
        for (std::string &text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    TextList(const TextList &) = delete;
    TextList &operator=(const TextList &) = delete;
    operator char **() noexcept
    {
        return pointers_.data();
    }

private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

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
    Text text(std::string_view parameter, std::string_view value)
    {
        if (value.find('\0') != value.npos)
            refuse(parameter, "the string holds a zero byte");
        return Text(value);
    }
    template <class Strings>
    TextList texts(std::string_view parameter, const Strings &values)
    {
        for (std::string_view value : values)
            if (value.find('\0') != value.npos)
                refuse(parameter, "a string holds a zero byte");
        return TextList(values);
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
