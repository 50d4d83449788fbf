// A pinned map by raw bytes, the ground of the desk's map layer (kovrasandbox/Maps.h says what
// the layer is for and how a walk goes). Failures throw Error (kovrasandbox/Error.h).
#pragma once

#include <linux/bpf.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/Error.h>

namespace kovra::sandbox {

using Access = android::bpf::MapAccess;
using Bytes = std::vector<uint8_t>;

// Room in a map the sandbox creates, unless its creator asks for another.
inline constexpr uint32_t kDefaultMaxEntries = 4096;

// What the kernel reports about a map.
struct MapInfo {
    uint32_t id;
    uint32_t type;
    uint32_t keySize;
    uint32_t valueSize;
    uint32_t maxEntries;
    uint32_t flags;
};

// libbpf's name of a map type ("hash", "percpu_hash"), or "type N".
std::string mapTypeName(uint32_t type);

// An open map descriptor, closed on destruction, read by raw bytes.
class RawMap {
  public:
    // Creates a map (a hash map unless `type` says otherwise) and pins it at `path`, replacing
    // whatever was pinned there and creating the folders the path needs.
    RawMap(const char* path, uint32_t keySize, uint32_t valueSize,
           uint32_t maxEntries = kDefaultMaxEntries, uint32_t mapFlags = 0,
           bpf_map_type type = BPF_MAP_TYPE_HASH);
    // The map pinned at `path`, opened read-only (no write through it) or read-write.
    static RawMap open(const char* path, Access access);
    // The same, or nullopt when nothing is pinned at `path`.
    static std::optional<RawMap> find(const char* path, Access access);

    RawMap(RawMap&& other) noexcept
        : mFd(std::exchange(other.mFd, -1)), mPath(std::move(other.mPath)) {}
    RawMap& operator=(RawMap&&) = delete;
    RawMap(const RawMap&) = delete;
    ~RawMap();

    int fd() const { return mFd; }
    MapInfo info() const;
    // Pins the map at `path` too, replacing whatever was pinned there.
    void pin(const char* path) const;
    // False when `key` has no entry.
    bool getRaw(const void* key, void* value) const;
    // The keys in the kernel's walk order, each `keySize` bytes.
    std::vector<Bytes> rawKeys(uint32_t keySize) const;
    // Every entry by the map's own key and value sizes.
    std::vector<std::pair<Bytes, Bytes>> rawEntries() const;
    // True when the map is frozen (BPF_MAP_FREEZE): the kernel refuses every write from user
    // space, through any descriptor, while its programs still write. Asked of a read-write
    // descriptor; changes nothing.
    bool frozen() const;
    // Freezes the map: from now on the kernel refuses every write to it from user space.
    void freeze() const;
    // Throws Error "`what` <the map's path>: strerror(errno)".
    [[noreturn]] void fail(const char* what) const;

  protected:
    RawMap(int fd, const char* path) : mFd(fd), mPath(path) {}
    void putRaw(const void* key, const void* value, uint64_t flags) const;
    // False when `key` had no entry.
    bool eraseRaw(const void* key) const;

  private:
    int mFd;
    std::string mPath;  // for the errors
};

}  // namespace kovra::sandbox
