// How a flow's ends wait: never past their flow's deadline on the desk's clock, and not at all
// once a signal that stops every flow has come (each end then reports what it did).
#pragma once

#include <stdint.h>

namespace kovra::traffic {

// Lets the signals that stop every flow end this process's waits at once.
void stopOnSignals();

// Sleeps until `ns`, or until `deadline` when that is sooner.
void sleepUntil(uint64_t ns, uint64_t deadline);

// Whole milliseconds left until `deadline`, rounded up; 0 once stopping.
int remainingMs(uint64_t deadline);

// A blocking send or receive on `fd` waits at most 500 ms, and never past the deadline.
void boundTimeouts(int fd, uint64_t deadline);

// Whether `fd` becomes readable within `timeoutMs`.
bool readable(int fd, int timeoutMs);

// Waits for `fd` or `stop` to be readable; true when `fd` is.
bool awaitData(int fd, int stop, uint64_t deadline);

}  // namespace kovra::traffic
