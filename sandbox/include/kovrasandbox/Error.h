// How the desk's kernel side reports failure, everywhere in the sandbox library: a function that
// cannot do what it says throws Error, which tells what failed, where and why ("pinning
// /sys/fs/bpf/...: File exists") and keeps the errno behind it. Nothing returns a status, a message
// or an empty value for a failure. What is merely absent (no entry under a key, nothing pinned at
// a path a caller only looks for) is an answer, not a failure, and comes back as nullopt or false.
#pragma once

#include <stdexcept>
#include <string>

namespace kovra::sandbox {

class Error : public std::runtime_error {
  public:
    explicit Error(const std::string& what, int code = 0) : std::runtime_error(what), mCode(code) {}
    // The errno of the failed call; 0 when none was involved.
    int code() const { return mCode; }

  private:
    int mCode;
};

// Throws an Error "`what` `where`: strerror(errno)" carrying errno.
[[noreturn]] void fail(const std::string& what, const std::string& where);

}  // namespace kovra::sandbox
