/// @file
/// What the C++ wrapper's calls return: a value or a failure; and what all of its headers share.
#ifndef DEVICE_ACCESS_RESULT_HPP
#define DEVICE_ACCESS_RESULT_HPP

#if __cplusplus < 201709L || !defined(__cpp_concepts)
#error "the C++ wrapper of libcommon_device_access needs C++20: compile with -std=c++20 or newer"
#endif

#include <cassert>
#include <cerrno>
#include <concepts>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <variant>
#include <version>

#ifdef __cpp_lib_expected
#include <expected>
#endif
#if __has_include(<format>) && defined(__cpp_lib_format)
#include <format>
#endif

namespace device_access
{
inline namespace wrapper // apart from what a static library has inside
{

/// A text that ends with a NUL, as a parameter: a literal, a const char * or a std::string.
class c_string
{
public:
    c_string(const char *text) noexcept : text_(text) { assert(text); } ///< Not a null pointer.
    c_string(const std::string &text) noexcept : text_(text.c_str()) {} ///< Up to its first NUL.
    c_string(std::nullptr_t) = delete;                                  ///< There is no text.

    /// The text, as long as what it was made of.
    const char *c_str() const noexcept { return text_; }

private:
    const char *text_;
};

/// Why a call has failed.
struct failure {
    const char *call; ///< The call of the C interface that failed, or that does the same.
    int error;        ///< Its errno; 0 where it promises none and left none.

    /// The error in words, until the thread's next call of this.
    const char *reason() const noexcept;

    /// "CALL: REASON".
    std::string message() const { return std::string(call) + ": " + reason(); }

    /// The error for code that works with std::error_code.
    std::error_code code() const noexcept { return {error, std::generic_category()}; }

    /// Equal when both the call and the error are.
    friend bool operator==(const failure &one, const failure &other) noexcept
    {
        return one.error == other.error && std::string_view(one.call) == other.call;
    }
};

/// Thrown by result::value() where there is no value; where exceptions are off, it ends the program
/// with the same line.
class bad_result_access : public std::exception
{
public:
    /// Keeps the failure.
    explicit bad_result_access(const failure &error) noexcept : error_(error)
    {
        std::snprintf(text_, sizeof text_, "%s: %s", error.call, error.reason());
    }

    /// "CALL: REASON".
    const char *what() const noexcept override { return text_; }

    /// The failure that stood where a value was asked for.
    const failure &error() const noexcept { return error_; }

private:
    failure error_;
    char text_[160];
};

template <typename T>
class result;

namespace detail
{

#ifdef __cpp_exceptions
inline constexpr bool has_exceptions = true;
#else
inline constexpr bool has_exceptions = false;
#endif

template <bool Throws>
[[noreturn]] inline void no_value(const failure &error)
{
#ifdef __cpp_exceptions
    if constexpr (Throws)
        throw bad_result_access(error);
#endif
    std::fprintf(stderr, "%s\n", bad_result_access(error).what());
    std::abort();
}

// strerror_r() is GNU's or POSIX's.
inline const char *error_text(const char *message, const char *) noexcept
{
    return message;
}
inline const char *error_text(int, const char *buffer) noexcept
{
    return buffer;
}

template <typename T>
struct is_result : std::false_type {
};
template <typename T>
struct is_result<result<T>> : std::true_type {
};

// Calls f and makes what it gives, or that it has come back, a result.
template <typename F, typename... Arguments>
auto result_of(F &&f, Arguments &&...arguments)
{
    using value = std::remove_cvref_t<std::invoke_result_t<F, Arguments...>>;
    if constexpr (std::is_void_v<value>) {
        std::invoke(std::forward<F>(f), std::forward<Arguments>(arguments)...);
        return result<value>();
    } else {
        return result<value>(
            std::invoke(std::forward<F>(f), std::forward<Arguments>(arguments)...));
    }
}

// Types that have a text() and are printed and formatted as that.
template <typename T>
inline constexpr bool has_text = false;
template <>
inline constexpr bool has_text<failure> = true;

template <typename T>
requires has_text<T> std::string_view text_of(const T &value, [[maybe_unused]] std::string &room)
{
    if constexpr (std::same_as<T, failure>)
        return room = value.message();
    else
        return room = std::string(std::string_view(value.text()));
}

} // namespace detail

inline const char *failure::reason() const noexcept
{
    static thread_local char room[128];
    if (error == 0)
        return "no reason given";
    return detail::error_text(::strerror_r(error, room, sizeof room), room);
}

/// A value or a failure, in the shape of C++23's std::expected<T, failure>, to which it converts
/// where there is one. It differs in one point: what is taken out of a temporary is a value of its
/// own, so that a loop over "*pci_functions::all()" is right before C++23, too.
template <typename T>
class [[nodiscard]] result
{
public:
    using value_type = T;       ///< What a success has.
    using error_type = failure; ///< What a failure has.

    /// A success.
    result(T value) noexcept(std::is_nothrow_move_constructible_v<T>)
        : state_(std::in_place_index<0>, std::move(value))
    {
    }
    /// A failure.
    result(const failure &error) noexcept : state_(std::in_place_index<1>, error) {}

    /// Whether there is a value.
    bool has_value() const noexcept { return state_.index() == 0; }
    /// Whether there is a value.
    explicit operator bool() const noexcept { return has_value(); }

    /// The value, which must be there.
    T &operator*() &noexcept { return known(); }
    /// The value, which must be there.
    const T &operator*() const &noexcept { return known(); }
    /// The value, which must be there, taken out.
    T operator*() &&noexcept(std::is_nothrow_move_constructible_v<T>) { return std::move(known()); }
    /// A member of the value, which must be there.
    T *operator->() noexcept { return &known(); }
    /// A member of the value, which must be there.
    const T *operator->() const noexcept { return &known(); }

    /// The value; without one, throws bad_result_access, or ends the program where exceptions are
    /// off.
    template <bool Throws = detail::has_exceptions>
    T &value() &
    {
        return has_value() ? known() : (detail::no_value<Throws>(error()), known());
    }
    /// As above.
    template <bool Throws = detail::has_exceptions>
    const T &value() const &
    {
        return has_value() ? known() : (detail::no_value<Throws>(error()), known());
    }
    /// As above, taken out.
    template <bool Throws = detail::has_exceptions>
    T value() &&
    {
        return std::move(has_value() ? known() : (detail::no_value<Throws>(error()), known()));
    }

    /// The failure, which must be there.
    const failure &error() const noexcept
    {
        assert(!has_value() && "a result with a value has no error");
        return *std::get_if<1>(&state_);
    }

    /// The value, or another one.
    template <typename U>
    T value_or(U &&other) const &
    {
        return has_value() ? known() : static_cast<T>(std::forward<U>(other));
    }
    /// The value, taken out, or another one.
    template <typename U>
    T value_or(U &&other) &&
    {
        return has_value() ? std::move(known()) : static_cast<T>(std::forward<U>(other));
    }

    /// What f, which returns a result itself, makes of the value; the failure if there is none.
    template <typename F>
    auto and_then(F &&f) const &
    {
        using next = std::remove_cvref_t<std::invoke_result_t<F, const T &>>;
        static_assert(detail::is_result<next>::value, "and_then() is for what returns a result");
        return has_value() ? std::invoke(std::forward<F>(f), known()) : next(error());
    }
    /// As above; f gets the value itself.
    template <typename F>
    auto and_then(F &&f) &&
    {
        using next = std::remove_cvref_t<std::invoke_result_t<F, T>>;
        static_assert(detail::is_result<next>::value, "and_then() is for what returns a result");
        return has_value() ? std::invoke(std::forward<F>(f), std::move(known())) : next(error());
    }

    /// What f makes of the value, as a result; the failure if there is none.
    template <typename F>
    auto transform(F &&f) const &
    {
        using next = decltype(detail::result_of(std::forward<F>(f), known()));
        return has_value() ? detail::result_of(std::forward<F>(f), known()) : next(error());
    }
    /// As above; f gets the value itself.
    template <typename F>
    auto transform(F &&f) &&
    {
        using next = decltype(detail::result_of(std::forward<F>(f), std::move(known())));
        return has_value() ? detail::result_of(std::forward<F>(f), std::move(known()))
                           : next(error());
    }

    /// The value as it is, or the result that f makes of the failure.
    template <typename F>
    result or_else(F &&f) &&
    {
        return has_value() ? std::move(*this) : std::invoke(std::forward<F>(f), error());
    }

#ifdef __cpp_lib_expected
    /// The same as the standard library has it.
    operator std::expected<T, failure>() &&
    {
        if (has_value())
            return std::move(known());
        return std::unexpected(error());
    }
#endif

private:
    T &known() noexcept
    {
        assert(has_value() && "a result without a value");
        return *std::get_if<0>(&state_);
    }
    const T &known() const noexcept
    {
        assert(has_value() && "a result without a value");
        return *std::get_if<0>(&state_);
    }

    std::variant<T, failure> state_;
};

/// A success that has no value, or a failure.
template <>
class [[nodiscard]] result<void>
{
public:
    using value_type = void;    ///< There is none.
    using error_type = failure; ///< What a failure has.

    /// A success.
    result() noexcept = default;
    /// A failure.
    result(const failure &error) noexcept : error_(error), failed_(true) {}

    /// Whether it is a success.
    bool has_value() const noexcept { return !failed_; }
    /// Whether it is a success.
    explicit operator bool() const noexcept { return !failed_; }

    /// Does nothing after a success; else throws, or ends the program, as result<T>::value() does.
    template <bool Throws = detail::has_exceptions>
    void value() const
    {
        if (failed_)
            detail::no_value<Throws>(error_);
    }

    /// The failure, which must be there.
    const failure &error() const noexcept
    {
        assert(failed_ && "a success has no error");
        return error_;
    }

    /// After a success, what f returns, a result itself; else the failure.
    template <typename F>
    auto and_then(F &&f) const
    {
        using next = std::remove_cvref_t<std::invoke_result_t<F>>;
        static_assert(detail::is_result<next>::value, "and_then() is for what returns a result");
        return failed_ ? next(error_) : std::invoke(std::forward<F>(f));
    }

    /// After a success, what f returns, as a result; else the failure.
    template <typename F>
    auto transform(F &&f) const
    {
        using next = decltype(detail::result_of(std::forward<F>(f)));
        return failed_ ? next(error_) : detail::result_of(std::forward<F>(f));
    }

    /// The success as it is, or the result that f makes of the failure.
    template <typename F>
    result or_else(F &&f) const
    {
        return failed_ ? std::invoke(std::forward<F>(f), error_) : *this;
    }

#ifdef __cpp_lib_expected
    /// The same as the standard library has it.
    operator std::expected<void, failure>() const
    {
        if (failed_)
            return std::unexpected(error_);
        return {};
    }
#endif

private:
    failure error_ = {"", 0};
    bool failed_ = false;
};

/// Writes identities, addresses, slots, cards and failures as their text.
template <typename T, typename Traits>
requires detail::has_text<T> std::basic_ostream<char, Traits>
&operator<<(std::basic_ostream<char, Traits> &stream, const T &value)
{
    std::string room;
    return stream << detail::text_of(value, room);
}

namespace detail
{

inline result<void> done(bool succeeded, const char *call) noexcept
{
    return succeeded ? result<void>() : failure{call, errno};
}

template <typename T>
result<T> done(bool succeeded, T value, const char *call)
{
    if (succeeded)
        return value;
    return failure{call, errno};
}

} // namespace detail

} // namespace wrapper
} // namespace device_access

#if __has_include(<format>) && defined(__cpp_lib_format)
/// Formats identities, addresses, slots, cards and failures as their text, with a string's options.
template <typename T>
requires device_access::detail::has_text<T>
struct std::formatter<T, char> : std::formatter<std::string_view, char> {
    /// Writes the text.
    auto format(const T &value, auto &context) const
    {
        std::string room;
        return std::formatter<std::string_view, char>::format(
            device_access::detail::text_of(value, room), context);
    }
};
#endif

#endif
