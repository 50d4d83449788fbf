// A capture: every byte of every entry of the catalogue's maps (or of some of them) as one
// machine saw them, with each map's shape and the machine's clocks at the time, so that another
// machine can replay them. Written as JSON (`kovractl -j dump`), read back whole and checked
// before anything is written from it (`kovractl load`, `kovractl sandbox --seed FILE`). The
// format is described in docs/capture.md.
#pragma once

#include <stdint.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>

#include "Output.h"
#include "RecordFields.h"

namespace kovra::tool {

// The version this code writes and the only one it reads.
inline constexpr int kCaptureFormat = 1;

using Bytes = std::vector<uint8_t>;

// A catalogue map with the fields of its key and value, from its row's types.
struct MapFields {
    const android::bpf::PinnedMapInfo* row;
    std::string name;
    Fields key;
    Fields value;
};
// In the catalogue's order.
const std::vector<MapFields>& catalogueFields();
const MapFields* fieldsNamed(const std::string& name);

struct CapturedMap {
    std::string name;
    // Why the map could not be read ("missing: not pinned"); the rest is then empty.
    std::optional<std::string> unreadable = std::nullopt;
    std::string type = "";
    uint32_t keySize = 0;
    uint32_t valueSize = 0;
    uint32_t maxEntries = 0;
    std::vector<std::pair<Bytes, Bytes>> entries = {};  // in key order, see sortEntries()
};

struct Capture {
    uint64_t monotonicNs = 0;  // the capturing machine's CLOCK_MONOTONIC
    std::string wallClock;     // and its wall clock, UTC, ISO 8601 with milliseconds
    std::vector<CapturedMap> maps = {};
};

// A capture that cannot be read: one line naming the map, the entry and the field.
class CaptureError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Orders entries by their key's fields, numerically: the same maps always capture the same.
void sortEntries(const MapFields& map, std::vector<std::pair<Bytes, Bytes>>& entries);

// A number field's value in a record's bytes (little-endian).
uint64_t readNumber(const Bytes& bytes, const Field& field);

// A record's bytes as a JSON object of its fields, and back (the latter checks every field).
Json encodeRecord(const Fields& fields, const Bytes& bytes);
Bytes decodeRecord(const Fields& fields, size_t size, const Json& record, const std::string& where);

Json toJson(const Capture& capture);
// Reads and checks a whole capture; throws CaptureError at its first problem.
Capture parseCapture(std::string_view text);

// Moves every CLOCK_MONOTONIC stamp by the same amount, so that each keeps the age it had at
// capture when read against `nowNs`. A stamp of 0 (never) stays 0; one older than this machine's
// clock can express becomes 1.
void rebaseStamps(Capture& capture, uint64_t nowNs);

}  // namespace kovra::tool
