// Result<T>: a value, or an Error with a text for people. Used where no fixed 32-bit status code applies.
#pragma once

#include <boost/system/result.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace rq {

// What went wrong, in words that name the thing (file, field) and the remedy where there is one.
// Made by Fail() only: a constructor from text would make Result<std::string> ambiguous.
struct Error {
    Error() = default;

    std::string message;
};

// Called by Result<T>::value() on an error; code in this project tests first and never gets here.
[[noreturn]] inline void throw_exception_from_error(const Error& error, const boost::source_location&) {
    throw std::runtime_error(error.message);
}

template <class T>
using Result = boost::system::result<T, Error>;

inline Error Fail(std::string message) {
    Error error;
    error.message = std::move(message);
    return error;
}

// 32-bit signed status codes of the worker's operations.
inline constexpr std::int32_t kStatusOk = 0;
inline constexpr std::int32_t kStatusMissing = -1;  // a needed object is not there
inline constexpr std::int32_t kStatusFail =
    static_cast<std::int32_t>(0x80004005u);  // null argument, load failure

}  // namespace rq
