// A capture's records field by field, their order, and the rebasing of their stamps.
#include "Capture.h"

#include <algorithm>

#include <kovrabpf/KovraKernelContract.h>

namespace kovra::tool {

using android::bpf::PinnedMap;

namespace {

template <typename T>
Fields checkedFields(const char* label) {
    Fields all = fields::of<T>(label);
    if (!fields::coversRecord<T>(all)) {
        throw std::logic_error(std::string("the field list of '") + label +
                               "' does not cover its record");
    }
    return all;
}

void writeNumber(Bytes& bytes, const Field& field, uint64_t value) {
    for (size_t i = 0; i < field.size; ++i, value >>= 8) {
        bytes[field.offset + i] = static_cast<uint8_t>(value);
    }
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The screen state map keeps the stamps of the latest changes under two of its keys.
bool holdsStamp(const CapturedMap& map, const Bytes& key) {
    if (map.name != "screen_state") return false;
    const uint32_t code = key[0] | key[1] << 8 | key[2] << 16 | uint32_t{key[3]} << 24;
    return code == KOVRA_SCREEN_OFF_STAMP_KEY || code == KOVRA_SCREEN_ON_STAMP_KEY;
}

uint64_t rebased(uint64_t stamp, uint64_t capturedNs, uint64_t nowNs) {
    if (stamp == 0) return 0;
    if (nowNs >= capturedNs) return stamp + (nowNs - capturedNs);
    const uint64_t back = capturedNs - nowNs;
    return stamp > back ? stamp - back : 1;
}

}  // namespace

uint64_t readNumber(const Bytes& bytes, const Field& field) {
    uint64_t value = 0;
    for (size_t i = field.size; i-- > 0;) value = value << 8 | bytes[field.offset + i];
    return value;
}

const std::vector<MapFields>& catalogueFields() {
    static const std::vector<MapFields> all = [] {
        std::vector<MapFields> maps;
        android::bpf::forEachMap([&](const auto& map) {
            using Row = std::decay_t<decltype(map)>;
            maps.push_back({&android::bpf::kPinnedMaps[maps.size()], map.name,
                            checkedFields<typename Row::Key>(map.keyLabel),
                            checkedFields<typename Row::Value>(map.valueLabel)});
        });
        return maps;
    }();
    return all;
}

const MapFields* fieldsNamed(const std::string& name) {
    for (const MapFields& map : catalogueFields()) {
        if (map.name == name) return &map;
    }
    return nullptr;
}

void sortEntries(const MapFields& map, std::vector<std::pair<Bytes, Bytes>>& entries) {
    const auto fieldsOf = [&](const Bytes& key) {
        std::vector<std::pair<uint64_t, Bytes>> out;
        for (const Field& field : map.key) {
            out.emplace_back(field.opaque ? 0 : readNumber(key, field),
                             field.opaque ? Bytes(key.begin() + field.offset,
                                                  key.begin() + field.offset + field.size)
                                          : Bytes());
        }
        return out;
    };
    std::sort(entries.begin(), entries.end(),
              [&](const auto& a, const auto& b) { return fieldsOf(a.first) < fieldsOf(b.first); });
}

Json encodeRecord(const Fields& fields, const Bytes& bytes) {
    static const char kHex[] = "0123456789abcdef";
    Json record = Json::object();
    for (const Field& field : fields) {
        if (!field.opaque) {
            record[field.name] = readNumber(bytes, field);
            continue;
        }
        std::string hex;
        for (size_t i = 0; i < field.size; ++i) {
            hex += kHex[bytes[field.offset + i] >> 4];
            hex += kHex[bytes[field.offset + i] & 15];
        }
        record[field.name] = hex;
    }
    return record;
}

Bytes decodeRecord(const Fields& fields, size_t size, const Json& record,
                   const std::string& where) {
    if (!record.is_object()) throw CaptureError(where + ": not an object of fields");
    for (const auto& item : record.items()) {
        if (std::none_of(fields.begin(), fields.end(),
                         [&](const Field& f) { return item.key() == f.name; })) {
            throw CaptureError(where + ", field " + item.key() + ": not a field of this record");
        }
    }
    Bytes bytes(size);
    for (const Field& field : fields) {
        const std::string at = where + ", field " + field.name;
        if (!record.contains(field.name)) throw CaptureError(at + ": missing");
        const Json& value = record.at(field.name);
        if (field.opaque) {
            const std::string hex = value.is_string() ? value.get<std::string>() : "";
            if (!value.is_string() || hex.size() != 2 * field.size) {
                throw CaptureError(at + ": expected " + std::to_string(2 * field.size) +
                                   " hex digits");
            }
            for (size_t i = 0; i < field.size; ++i) {
                const int high = hexDigit(hex[2 * i]), low = hexDigit(hex[2 * i + 1]);
                if (high < 0 || low < 0) throw CaptureError(at + ": not hex digits");
                bytes[field.offset + i] = static_cast<uint8_t>(high << 4 | low);
            }
            continue;
        }
        const uint64_t max = field.size == 8 ? UINT64_MAX : (uint64_t{1} << 8 * field.size) - 1;
        if (!value.is_number_unsigned() || value.get<uint64_t>() > max) {
            throw CaptureError(at + ": expected a whole number 0.." + std::to_string(max));
        }
        writeNumber(bytes, field, value.get<uint64_t>());
    }
    return bytes;
}

void rebaseStamps(Capture& capture, uint64_t nowNs) {
    for (CapturedMap& map : capture.maps) {
        const MapFields* fields = fieldsNamed(map.name);
        for (auto& [key, value] : map.entries) {
            for (const Field& field : fields->value) {
                if (!field.monotonic && !holdsStamp(map, key)) continue;
                writeNumber(value, field,
                            rebased(readNumber(value, field), capture.monotonicNs, nowNs));
            }
        }
    }
}

}  // namespace kovra::tool
