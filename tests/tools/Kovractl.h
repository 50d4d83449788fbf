// Running kovractl from the tests: as a child of the test process, so it sees the test's private
// bpffs, seeded with the sandbox's demo data set before every test.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <kovrasandbox/Seed.h>

#include "Harness.h"

namespace kovra::test {

struct Outcome {
    int exitCode;  // -signal when it died of one
    std::string out;
    std::string err;
};
std::ostream& operator<<(std::ostream& os, const Outcome& run);

// Runs kovractl with `args` and waits for it, as root or as a user who is not; `out` names a file
// to take its stdout.
Outcome kovractl(const std::vector<std::string>& args, bool asNonRoot = false,
                 const char* out = nullptr);

// kovractl's stdout parsed as JSON (a test failure when it is not).
nlohmann::json jsonOf(const Outcome& run);

// Every map of the catalogue as raw bytes, key -> value, to tell whether a command changed any.
using Snapshot = std::map<std::string, std::map<std::vector<uint8_t>, std::vector<uint8_t>>>;
Snapshot snapshotMaps();

// A test on the demo data set, created afresh in the private bpffs before each test (and by
// fresh() within one).
class KovractlTest : public KernelTest {
  protected:
    void SetUp() override;
    void fresh() { SetUp(); }
};

}  // namespace kovra::test
