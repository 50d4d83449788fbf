// Steps every service shares: logging under the library's tag, the check of a freshly opened
// handle, copying a walked map into the caller's table, and reporting a failed walk.
#pragma once

#include <errno.h>
#include <string.h>

#include <optional>

#include <android/log.h>

#include <kovrabpf/KovraBpfNetworkStats.h>

namespace android::bpf {

inline constexpr char kLogTag[] = "KovraBpfNetworkStats";

template <typename... Args>
void logError(const char* format, Args... args) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, format, args...);
}

template <typename... Args>
void logDebug(const char* format, Args... args) {
    __android_log_print(ANDROID_LOG_DEBUG, kLogTag, format, args...);
}

// Handle construction already aborts when a map cannot be opened, so today a negative descriptor
// never gets here; the services keep the check so that they stay correct should construction
// ever report instead of abort. Returns the status for an unusable handle, -errno, after logging
// `openFormat` with the path and strerror(errno) (no line when it is null); nothing for a usable
// handle.
template <typename Handle, typename K, typename V>
std::optional<int> openFailure(const Handle& handle, const PinnedMap<K, V>& map,
                               const char* openFormat = nullptr) {
    if (handle.getMap().get() >= 0) return std::nullopt;
    const int err = errno;
    if (openFormat != nullptr) logError(openFormat, map.path, strerror(err));
    return -err;
}

// Inserts every entry of `handle` into `out` as key -> convert(value), keeping whatever `out`
// already holds under a key: the caller's table is only ever added to.
template <typename Handle, typename Table, typename Convert>
Result<void> copyInto(Handle& handle, Table& out, Convert convert) {
    return handle.iterateWithValue(
            [&](const auto& key, const auto& value, const auto&) -> Result<void> {
                out.try_emplace(typename Table::key_type(key), convert(value));
                return {};
            });
}

template <typename Handle, typename Table>
Result<void> copyInto(Handle& handle, Table& out) {
    return copyInto(handle, out, [](const auto& value) { return value; });
}

// Logs a failed walk with the error's message (never strerror: the message names the step).
inline bool walkFailed(const Result<void>& walk, const char* format) {
    if (walk.ok()) return false;
    logError(format, walk.error().message().c_str());
    return true;
}

}  // namespace android::bpf
