#include "kovrasandbox/MapBatch.h"

#include <bpf/bpf.h>
#include <errno.h>

namespace kovra::sandbox {

void putBatch(const RawMap& map, const void* keys, const void* values, uint32_t count) {
    uint32_t written = count;
    if (bpf_map_update_batch(map.fd(), keys, values, &written, nullptr) != 0) {
        map.fail("writing a batch of entries into");
    }
}

uint32_t BatchReader::next(void* keys, void* values, uint32_t room) {
    if (mDone) return 0;
    const auto read =
            mMode == BatchMode::kRead ? bpf_map_lookup_batch : bpf_map_lookup_and_delete_batch;
    uint32_t count = room;
    // The call that reaches the end fails with ENOENT and still hands over its last entries.
    if (read(mMap.fd(), mStarted ? &mToken : nullptr, &mToken, keys, values, &count, nullptr) !=
        0) {
        if (errno != ENOENT) mMap.fail("reading a batch of entries of");
        mDone = true;
    }
    mStarted = true;
    return count;
}

}  // namespace kovra::sandbox
