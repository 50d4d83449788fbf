// What the demo data set's seeding shares between its families' files.
#pragma once

#include <stdint.h>

namespace kovra::sandbox {

// Deterministic spread of counter values (splitmix64), so every sandbox holds the same numbers.
uint64_t mix(uint64_t x);

// A stamp `ageMs` before `nowNs`, never before the clock's start on a machine that just booted.
uint64_t ago(uint64_t nowNs, uint64_t ageMs);

// The speed maps: sockets and (UID, interface) pairs, fresh and stale.
void seedSpeeds(uint64_t nowNs);

}  // namespace kovra::sandbox
