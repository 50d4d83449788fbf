// The demo data set: the catalogue's maps filled like those of a phone in use, for the sandbox,
// the demo and the tests of kovractl.
#pragma once

#include <stdint.h>

#include <kovrasandbox/Clock.h>

namespace kovra::sandbox {

// Fills the catalogue's maps, which must exist (createCatalogueMaps), with the demo data set.
// Time stamps are taken relative to `nowNs` (CLOCK_MONOTONIC nanoseconds): fresh ones a
// fraction of a second old, stale ones minutes old. Throws Error when a map is missing or a
// write fails.
void seedDemo(uint64_t nowNs = monotonicNowNs());

}  // namespace kovra::sandbox
