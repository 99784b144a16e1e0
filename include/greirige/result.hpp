// greirige/result.hpp - what an operation gives back: a value, or what went wrong and where.
//
// An operation returns Result<T>, which holds either its value or an Error; no operation throws
// for a failure of the server, the connection or an argument. It is used like std::expected of
// C++23: test it, then take *result or result.error(), or chain and_then() and transform().
// Nobody overlooks a failure: a result that is dropped draws a compiler warning, and taking the
// value of a failed one throws BadResultAccess with the whole error (ends the process where
// exceptions are off), so a program that prefers exceptions simply writes .value().
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <cstdlib>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "ldapx.h"

namespace greirige {

// Why an operation failed.
struct Error {
    // The result code: of the server (RFC 4511, 4.1.9), one of the LDAPX_ codes of ldapx.h, or one
    // of the LDAP library's negative codes. Never LDAP_SUCCESS.
    int code = LDAPX_OPERATIONS_ERROR;
    // The code in words, or for an argument that the layer refuses what is wrong with it.
    std::string text;
    // The operation, as the function is called here: "split_partition"; for a refused argument
    // also which one: "split_partition: dn".
    std::string where;
    // The server's own message and the part of the name that it found; empty where it sent none.
    std::string diagnostic = {};
    std::string matched_dn = {};

    friend bool operator==(const Error &, const Error &) = default;
};

// All of it on one line: "split_partition: No such object (32): no such entry (matched o=x)".
inline std::string to_string(const Error &error)
{
    std::string line = error.where + ": " + error.text + " (" + std::to_string(error.code) + ")";
    if (!error.diagnostic.empty())
        line += ": " + error.diagnostic;
    if (!error.matched_dn.empty())
        line += " (matched " + error.matched_dn + ")";
    return line;
}

// Thrown where the value of a failed result is taken, or the error of a good one.
class BadResultAccess : public std::logic_error {
public:
    explicit BadResultAccess(Error error)
        : std::logic_error(to_string(error)), error_(std::move(error))
    {
    }
    const Error &error() const noexcept
    {
        return error_;
    }

private:
    Error error_;
};

template <class T>
class Result;

namespace detail {

[[noreturn]] inline void bad_access(const Error &error)
{
#if defined(__cpp_exceptions)
    throw BadResultAccess(error);
#else
    static_cast<void>(error);
    std::abort();
#endif
}

[[noreturn]] inline void no_error()
{
    bad_access({LDAPX_PARAM_ERROR, "the result holds no error", "Result::error"});
}

template <class T>
inline constexpr bool is_result = false;
template <class T>
inline constexpr bool is_result<Result<T>> = true;

} // namespace detail

// A value of type T or an Error.
template <class T>
class [[nodiscard("the operation may have failed")]] Result
{
    static_assert(std::is_object_v<T> && !std::is_same_v<T, Error>);

public:
    using value_type = T;

    // From a value, or anything that makes one.
    template <class U = T>
    requires std::constructible_from<T, U> &&(!std::same_as<std::remove_cvref_t<U>, Result>)&&(
        !std::same_as<std::remove_cvref_t<U>, Error>)Result(U && value)
        : state_(std::in_place_index<0>, std::forward<U>(value))
    {
    }
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

    bool has_value() const noexcept
    {
        return state_.index() == 0;
    }
    explicit operator bool() const noexcept
    {
        return has_value();
    }

    // The value; throws BadResultAccess where there is none.
    T &value() &
    {
        return access(*this);
    }
    const T &value() const &
    {
        return access(*this);
    }
    T &&value() &&
    {
        return std::move(access(*this));
    }
    T &operator*() &
    {
        return access(*this);
    }
    const T &operator*() const &
    {
        return access(*this);
    }
    T &&operator*() &&
    {
        return std::move(access(*this));
    }
    T *operator->()
    {
        return &access(*this);
    }
    const T *operator->() const
    {
        return &access(*this);
    }
    template <class U>
    T value_or(U && other) const &
    {
        return has_value() ? **this : static_cast<T>(std::forward<U>(other));
    }
    template <class U>
    T value_or(U && other) &&
    {
        return has_value() ? *std::move(*this) : static_cast<T>(std::forward<U>(other));
    }

    // The error; throws BadResultAccess where there is none.
    const Error &error() const &
    {
        if (const Error *error = std::get_if<1>(&state_))
            return *error;
        detail::no_error();
    }
    Error &&error() &&
    {
        if (Error *error = std::get_if<1>(&state_))
            return std::move(*error);
        detail::no_error();
    }

    // Goes on with the value: function gets it and returns another Result. An error passes on.
    template <class Function>
    auto and_then(Function && function) &&
    {
        using Next = std::remove_cvref_t<std::invoke_result_t<Function, T &&>>;
        static_assert(detail::is_result<Next>);
        if (!has_value())
            return Next(std::move(*this).error());
        return std::invoke(std::forward<Function>(function), *std::move(*this));
    }
    // Turns the value into another: function gets it and returns the new one.
    template <class Function>
    auto transform(Function && function) &&
    {
        using Next = Result<std::remove_cvref_t<std::invoke_result_t<Function, T &&>>>;
        if (!has_value())
            return Next(std::move(*this).error());
        return Next(std::invoke(std::forward<Function>(function), *std::move(*this)));
    }

private:
    template <class Self>
    static auto &access(Self & self)
    {
        if (auto *value = std::get_if<0>(&self.state_))
            return *value;
        detail::bad_access(self.error());
    }

    std::variant<T, Error> state_;
};

// Success without a value, or an Error.
template <>
class [[nodiscard("the operation may have failed")]] Result<void>
{
public:
    using value_type = void;

    Result() = default;
    Result(Error error) : error_(std::move(error)) {}

    bool has_value() const noexcept
    {
        return !error_;
    }
    explicit operator bool() const noexcept
    {
        return has_value();
    }

    // Nothing; throws BadResultAccess where the operation failed.
    void value() const
    {
        if (error_)
            detail::bad_access(*error_);
    }
    const Error &error() const &
    {
        if (error_)
            return *error_;
        detail::no_error();
    }
    Error &&error() &&
    {
        if (error_)
            return std::move(*error_);
        detail::no_error();
    }

    template <class Function>
    auto and_then(Function && function) &&
    {
        using Next = std::remove_cvref_t<std::invoke_result_t<Function>>;
        static_assert(detail::is_result<Next>);
        if (error_)
            return Next(*std::move(error_));
        return std::invoke(std::forward<Function>(function));
    }
    template <class Function>
    auto transform(Function && function) &&
    {
        using Next = Result<std::remove_cvref_t<std::invoke_result_t<Function>>>;
        if (error_)
            return Next(*std::move(error_));
        return Next(std::invoke(std::forward<Function>(function)));
    }

private:
    std::optional<Error> error_;
};

} // namespace greirige
