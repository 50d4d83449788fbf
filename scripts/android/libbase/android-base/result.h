// A stand-in for the platform's newer <android-base/result.h>, used only by
// scripts/check-android-build.sh in place of the Debian-packaged one, which predates these
// declarations. It mirrors what the platform's libbase declares and the library's sources use on
// the device: errors carry an Errno code, Result<T> is expected<T, ResultError<Errno>>, and
// MakeResultErrorWithCode builds an error from a message and a code. Only the declaration of
// MakeResultErrorWithCode is here: the check compiles, it does not link.
#pragma once

#include <string.h>

#include <string>
#include <utility>

#include "android-base/expected.h"

namespace android::base {

struct Errno {
    Errno() : val_(0) {}
    Errno(int e) : val_(e) {}  // NOLINT(google-explicit-constructor)
    int value() const { return val_; }
    operator int() const { return value(); }  // NOLINT(google-explicit-constructor)
    const char* print() const { return strerror(value()); }

    int val_;
};

template <typename E = Errno>
class ResultError {
  public:
    template <typename T>
    ResultError(T&& message, E code) : message_(std::forward<T>(message)), code_(code) {}

    template <typename T>
    operator expected<T, ResultError<E>>() && {  // NOLINT(google-explicit-constructor)
        return unexpected(std::move(*this));
    }

    std::string message() const { return message_; }
    const E& code() const { return code_; }

  private:
    std::string message_;
    E code_;
};

template <typename T, typename E = Errno>
using Result = expected<T, ResultError<E>>;

ResultError<Errno> MakeResultErrorWithCode(std::string&& message, Errno code);

}  // namespace android::base
