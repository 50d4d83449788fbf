// Typed handles on eBPF maps pinned in the BPF file system.
//
// BpfMapRO<Key, Value> opens a pinned map read-only and takes no lock; BpfMap<Key, Value> opens it
// read-write under the shared lock of bpfLock() and adds the writing operations. Either one owns
// its descriptor and closes it on destruction with errno preserved. Construction checks that the
// kernel's map has the key and value sizes of Key and Value (and suitable flags) and ends the
// process with abort() when it cannot open the map or the map does not fit: a map of the wrong
// shape is a build mismatch with the kernel side, not a condition to recover from.
//
// Error convention: every operation returns android::base::Result. An error carries a fixed
// message naming the operation ("BpfMap::readValue() failed") and, as its code, the errno of the
// failed system call; the message never holds strerror text, so callers that log it print the
// message alone or strerror of the code.
//
// Concurrency: the kernel side writes these maps while we read them. A walk is a snapshot of no
// single instant, and an entry deleted by someone else between listing its key and reading its
// value ends the walk with the readValue error (code ENOENT).
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <utility>

#include <android-base/result.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <fmt/format.h>

#include <kovrabpf/BpfSyscall.h>
#include <kovrabpf/BpfUtils.h>
#include <kovrabpf/KovraPinnedMaps.h>

namespace android::bpf {

using android::base::Result;

// The one point where the error model meets the platform's libbase: a fixed message and an errno.
// Android's libbase builds such errors with MakeResultErrorWithCode; the Debian-packaged one
// predates it, so there the error record is built directly.
inline auto bpfError(const char* message, int code) {
    std::string text = fmt::vformat(message, fmt::format_args());
#if defined(__ANDROID__)
    return android::base::MakeResultErrorWithCode(std::move(text), code);
#else
    return android::base::unexpected(android::base::ResultError(std::move(text), code));
#endif
}

template <typename Error>
int errorCode(const Error& error) {
    return error.code();
}

template <typename Key, typename Value>
class BpfMapRO {
  public:
    explicit BpfMapRO(const char* path) {
        mMapFd.reset(bpfObjGet(path, BPF_F_RDONLY));
        abortOnMismatch(false);
    }
    explicit BpfMapRO(const PinnedMap<Key, Value>& map) : BpfMapRO(map.path) {}

    BpfMapRO(const BpfMapRO&) = delete;
    BpfMapRO& operator=(const BpfMapRO&) = delete;

    const android::base::unique_fd& getMap() const { return mMapFd; }

    Result<Key> getFirstKey() const {
        Key first{};
        if (bpfGetNextKey(mMapFd.get(), nullptr, &first) != 0) {
            return bpfError("BpfMap::getFirstKey() failed", errno);
        }
        return first;
    }

    Result<Key> getNextKey(const Key& key) const {
        Key next{};
        if (bpfGetNextKey(mMapFd.get(), &key, &next) != 0) {
            return bpfError("BpfMap::getNextKey() failed", errno);
        }
        return next;
    }

    Result<Value> readValue(Key key) const {
        Value value{};
        if (bpfLookupElem(mMapFd.get(), &key, &value) != 0) {
            return bpfError("BpfMap::readValue() failed", errno);
        }
        return value;
    }

    using Callback = std::function<Result<void>(const Key&, const Value&, const BpfMapRO&)>;

    // Calls `callback` for every entry, stopping at the first error of a step or of the callback
    // and returning it unchanged. The end of the keys (ENOENT) is success.
    Result<void> iterateWithValue(const Callback& callback) const { return walk(*this, callback); }

  protected:
    BpfMapRO() = default;

    template <typename Self, typename F>
    static Result<void> walk(Self& map, const F& callback) {
        Result<Key> current = map.getFirstKey();
        while (current.ok()) {
            // The next key is fetched before the callback runs, so that the callback may delete
            // the current entry without losing its place.
            Result<Key> next = map.getNextKey(current.value());
            Result<Value> value = map.readValue(current.value());
            if (!value.ok()) return android::base::unexpected(value.error());
            Result<void> status = callback(current.value(), value.value(), map);
            if (!status.ok()) return status;
            current = std::move(next);
        }
        if (errorCode(current.error()) == ENOENT) return {};
        return android::base::unexpected(current.error());
    }

    void abortOnMismatch(bool writable) const {
        const int fd = mMapFd.get();
        if (fd < 0) abort();
        if (!isAtLeastKernelVersion4_14()) return;

        const int flags = bpfGetMapInfoWord(fd, MapInfoWord::kFlags);
        if (flags < 0) abort();
        if (flags & BPF_F_WRONLY) abort();
        if (writable && (flags & BPF_F_RDONLY)) abort();
        if (bpfGetMapInfoWord(fd, MapInfoWord::kKeySize) != static_cast<int>(sizeof(Key))) abort();
        if (bpfGetMapInfoWord(fd, MapInfoWord::kValueSize) != static_cast<int>(sizeof(Value))) {
            abort();
        }
    }

    android::base::unique_fd mMapFd;
};

template <typename Key, typename Value>
class BpfMap : public BpfMapRO<Key, Value> {
  public:
    explicit BpfMap(const char* path) {
        this->mMapFd.reset(bpfLock(bpfObjGet(path, 0), F_RDLCK));
        this->abortOnMismatch(true);
    }
    explicit BpfMap(const PinnedMap<Key, Value>& map) : BpfMap(map.path) {}

    Result<void> writeValue(const Key& key, const Value& value, uint64_t flags) const {
        if (bpfUpdateElem(this->mMapFd.get(), &key, &value, flags) != 0) {
            return bpfError("BpfMap::writeValue() failed", errno);
        }
        return {};
    }

    Result<void> deleteValue(const Key& key) const {
        if (bpfDeleteElem(this->mMapFd.get(), &key) != 0) {
            return bpfError("BpfMap::deleteValue() failed", errno);
        }
        return {};
    }

    using Callback = std::function<Result<void>(const Key&, const Value&, BpfMap&)>;

    // As BpfMapRO::iterateWithValue, with a callback that may write or delete entries.
    Result<void> iterateWithValue(const Callback& callback) {
        return BpfMapRO<Key, Value>::walk(*this, callback);
    }

    // Deletes the first key until there is none. Another deleter racing us (ENOENT) is harmless;
    // any other failure is logged here, with no tag, and returned.
    Result<void> clear() const {
        while (true) {
            Result<Key> first = this->getFirstKey();
            if (!first.ok()) {
                if (errorCode(first.error()) == ENOENT) return {};
                return android::base::unexpected(first.error());
            }
            Result<void> deleted = deleteValue(first.value());
            if (!deleted.ok() && errorCode(deleted.error()) != ENOENT) {
                logClearFailure(errorCode(deleted.error()));
                return deleted;
            }
        }
    }

  private:
    static void logClearFailure(int code) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "Failed to delete data %s", strerror(code));
    }
};

}  // namespace android::bpf
