// The sandbox's stand-in for the kernel side: the maps the programs would pin, and a data set
// like the one a phone in use would have gathered.
#pragma once

#include <stdint.h>

namespace kovra::tool {

// Room in each created map; well above what the demo data set puts in any of them.
inline constexpr uint32_t kSandboxMapEntries = 1024;

// Creates every map of the catalogue, empty, at its path (and the folders the paths need).
// Expects a bpffs at /sys/fs/bpf that holds none of them yet.
void createCatalogueMaps();

// Fills the maps with the demo data set. Time stamps are taken relative to `nowNs`
// (CLOCK_MONOTONIC nanoseconds): fresh ones a fraction of a second old, stale ones minutes old.
void seedDemo(uint64_t nowNs);

// CLOCK_MONOTONIC in nanoseconds, the clock of the speed records' stamps.
uint64_t monotonicNowNs();

}  // namespace kovra::tool
