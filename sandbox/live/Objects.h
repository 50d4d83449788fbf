// The compiled eBPF objects of the live side, built into the library so that a loader needs no
// file beside it (BPF objects are the same for every little-endian host).
#pragma once

#include <stddef.h>

#include <array>

namespace kovra::live {

struct ProgramObject {
    const char* name;
    const unsigned char* data;
    size_t size;
};

// One object per family, in the order they are attached.
const std::array<ProgramObject, 5>& programObjects();

}  // namespace kovra::live
