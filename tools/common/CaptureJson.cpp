// A capture as JSON, and the reader that checks one whole: every map, entry and field, so that
// nothing is written from a capture with a fault anywhere in it.
#include <algorithm>
#include <set>

#include "Capture.h"

namespace kovra::tool {
namespace {

// Refuses any key of `object` that is not one of `known`.
void onlyKeys(const Json& object, std::initializer_list<const char*> known,
              const std::string& where) {
    for (const auto& item : object.items()) {
        if (std::none_of(known.begin(), known.end(),
                         [&](const char* key) { return item.key() == key; })) {
            throw CaptureError(where + ": unknown field " + item.key());
        }
    }
}

const Json& member(const Json& object, const char* key, const std::string& where) {
    if (!object.contains(key)) throw CaptureError(where + ": missing field " + key);
    return object.at(key);
}

uint32_t smallNumber(const Json& object, const char* key, const std::string& where) {
    const Json& value = member(object, key, where);
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
        throw CaptureError(where + ", field " + key + ": expected a whole number 0..4294967295");
    }
    return value.get<uint32_t>();
}

std::string text(const Json& object, const char* key, const std::string& where) {
    const Json& value = member(object, key, where);
    if (!value.is_string()) throw CaptureError(where + ", field " + key + ": expected a string");
    return value.get<std::string>();
}

void readEntries(const MapFields& fields, const Json& entries, CapturedMap& map) {
    const std::string where = "map " + map.name;
    if (!entries.is_array()) throw CaptureError(where + ", field entries: expected an array");
    if (entries.size() > map.maxEntries) {
        throw CaptureError(where + ": " + std::to_string(entries.size()) +
                           " entries, more than its maxEntries " + std::to_string(map.maxEntries));
    }
    std::set<Bytes> keys;
    for (size_t i = 0; i < entries.size(); ++i) {
        const std::string at = where + ", entry " + std::to_string(i);
        if (!entries[i].is_object()) throw CaptureError(at + ": not an object");
        onlyKeys(entries[i], {"key", "value"}, at);
        Bytes key =
                decodeRecord(fields.key, map.keySize, member(entries[i], "key", at), at + " key");
        Bytes value = decodeRecord(fields.value, map.valueSize, member(entries[i], "value", at),
                                   at + " value");
        if (!keys.insert(key).second) throw CaptureError(at + ": the key of an earlier entry");
        map.entries.emplace_back(std::move(key), std::move(value));
    }
}

CapturedMap readMap(const std::string& name, const Json& object) {
    const std::string where = "map " + name;
    const MapFields* fields = fieldsNamed(name);
    if (fields == nullptr) throw CaptureError(where + ": not a map of the catalogue");
    if (!object.is_object()) throw CaptureError(where + ": not an object");
    CapturedMap map{name};
    if (object.contains("unreadable")) {
        onlyKeys(object, {"unreadable"}, where);
        map.unreadable = text(object, "unreadable", where);
        return map;
    }
    onlyKeys(object, {"type", "keySize", "valueSize", "maxEntries", "entries"}, where);
    map.type = text(object, "type", where);
    map.keySize = smallNumber(object, "keySize", where);
    map.valueSize = smallNumber(object, "valueSize", where);
    map.maxEntries = smallNumber(object, "maxEntries", where);
    if (map.keySize != fields->row->keySize || map.valueSize != fields->row->valueSize) {
        throw CaptureError(where + ": key/value sizes " + std::to_string(map.keySize) + "/" +
                           std::to_string(map.valueSize) + ", the catalogue's are " +
                           std::to_string(fields->row->keySize) + "/" +
                           std::to_string(fields->row->valueSize));
    }
    readEntries(*fields, member(object, "entries", where), map);
    return map;
}

}  // namespace

Json toJson(const Capture& capture) {
    Json maps = Json::object();
    for (const CapturedMap& map : capture.maps) {
        if (map.unreadable) {
            maps[map.name] = {{"unreadable", *map.unreadable}};
            continue;
        }
        const MapFields* fields = fieldsNamed(map.name);
        Json entries = Json::array();
        for (const auto& [key, value] : map.entries) {
            entries.push_back({{"key", encodeRecord(fields->key, key)},
                               {"value", encodeRecord(fields->value, value)}});
        }
        maps[map.name] = {{"type", map.type},
                          {"keySize", map.keySize},
                          {"valueSize", map.valueSize},
                          {"maxEntries", map.maxEntries},
                          {"entries", std::move(entries)}};
    }
    return {{"format", kCaptureFormat},
            {"monotonicNs", capture.monotonicNs},
            {"wallClock", capture.wallClock},
            {"maps", std::move(maps)}};
}

Capture parseCapture(std::string_view source) {
    const Json json = Json::parse(source.begin(), source.end(), nullptr, false);
    if (json.is_discarded()) throw CaptureError("not JSON, or cut short");
    if (!json.is_object()) throw CaptureError("not a capture: expected a JSON object");
    const Json& format = member(json, "format", "capture");
    if (format != kCaptureFormat) {
        throw CaptureError("format " + format.dump() + " is not one this kovractl reads (" +
                           std::to_string(kCaptureFormat) + ")");
    }
    onlyKeys(json, {"format", "monotonicNs", "wallClock", "maps"}, "capture");
    Capture capture;
    const Json& stamp = member(json, "monotonicNs", "capture");
    if (!stamp.is_number_unsigned()) {
        throw CaptureError("capture, field monotonicNs: expected a whole number");
    }
    capture.monotonicNs = stamp.get<uint64_t>();
    capture.wallClock = text(json, "wallClock", "capture");
    const Json& maps = member(json, "maps", "capture");
    if (!maps.is_object()) throw CaptureError("capture, field maps: expected an object");
    for (const auto& item : maps.items()) capture.maps.push_back(readMap(item.key(), item.value()));
    return capture;
}

}  // namespace kovra::tool
