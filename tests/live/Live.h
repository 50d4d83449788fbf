// The live side under test: every catalogue map pinned in the test's private bpffs, the
// project's programs attached to a private cgroup, a network namespace of the test process's
// own, and the traffic driver sending as app UIDs.
#pragma once

#include <memory>
#include <vector>

#include <Live.h>
#include <Traffic.h>

#include "Harness.h"

namespace kovra::test {

class LiveTest : public KernelTest {
  protected:
    void SetUp() override;
    void TearDown() override;
    std::vector<traffic::Sent> drive(const std::vector<traffic::Flow>& flows) const;
    // Raw read of a pinned map, independent of the library.
    template <typename K, typename V>
    static std::optional<V> lookup(const android::bpf::PinnedMap<K, V>& map, const K& key) {
        V value;
        if (!lookupRaw(map.path, &key, &value)) return std::nullopt;
        return value;
    }
    static bool lookupRaw(const char* path, const void* key, void* value);

    // Capacity of the three sequence maps: small, so that a test can fill them.
    static constexpr uint32_t kSequenceEntries = 64;
    std::unique_ptr<live::LiveSide> mLive;
};

// A flow with its shape given in the fields that matter.
traffic::Flow flow(uint32_t uid, uint32_t peer, uint64_t bytes);

}  // namespace kovra::test
