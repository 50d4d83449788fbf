// Whole maps in as few bpf commands as the kernel allows: entries written in one batched update,
// and read, or read and deleted, batch by batch. The benchmarks seed their maps with it and take
// it as the kernel's fastest hand-over of a map. Failures throw Error (kovrasandbox/Error.h).
#pragma once

#include <stdint.h>

#include <vector>

#include <kovrasandbox/RawMap.h>

namespace kovra::sandbox {

// Writes the entries keys[i] -> values[i], all of them or none, in one batched update.
void putBatch(const RawMap& map, const void* keys, const void* values, uint32_t count);

template <typename K, typename V>
void putBatch(const RawMap& map, const std::vector<K>& keys, const std::vector<V>& values) {
    if (keys.size() != values.size()) throw Error("a batch of unequal keys and values");
    putBatch(map, keys.data(), values.data(), static_cast<uint32_t>(keys.size()));
}

enum class BatchMode { kRead, kReadAndDelete };

// Reads a map from its first entry to its last, a batch per call. With kReadAndDelete each batch
// leaves the map as it is read. An entry the kernel side adds or deletes during the read may or
// may not be in it.
class BatchReader {
  public:
    BatchReader(const RawMap& map, BatchMode mode) : mMap(map), mMode(mode) {}

    // Reads up to `room` entries into the arrays `keys` and `values`, and returns how many.
    uint32_t next(void* keys, void* values, uint32_t room);
    // Whether the map has been read to its end.
    bool done() const { return mDone; }

  private:
    const RawMap& mMap;
    BatchMode mMode;
    uint64_t mToken = 0;  // the kernel's place in the map between two batches
    bool mStarted = false;
    bool mDone = false;
};

}  // namespace kovra::sandbox
