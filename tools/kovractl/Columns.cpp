#include "Columns.h"

#include <ctype.h>

#include <algorithm>

namespace kovra::tool {
namespace {

// "rx_bytes", "RX-BYTES" and "rxBytes" all name the column rxBytes.
std::string normalized(const std::string& name) {
    std::string out;
    for (char c : name) {
        if (c != '_' && c != '-') out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

size_t indexOf(const Rows& rows, const std::string& column) {
    return std::find(rows.columns.begin(), rows.columns.end(), column) - rows.columns.begin();
}

}  // namespace

size_t columnIndex(const std::vector<std::string>& columns, const std::string& name) {
    for (size_t c = 0; c < columns.size(); ++c) {
        if (normalized(columns[c]) == normalized(name)) return c;
    }
    std::string known;
    for (const std::string& column : columns) known += " " + column;
    throw ToolError(kExitUsage, "--sort: no column '" + name + "'; the columns are:" + known);
}

void sortAndCut(Rows& rows, const ListOptions& options) {
    if (!options.sort.empty()) {
        const size_t c = columnIndex(rows.columns, options.sort);
        // Largest first; rows without a value last.
        std::stable_sort(rows.rows.begin(), rows.rows.end(), [c](const auto& a, const auto& b) {
            if (a[c].is_null() || b[c].is_null()) return !a[c].is_null() && b[c].is_null();
            return b[c] < a[c];
        });
    }
    if (options.top > 0 && rows.rows.size() > options.top) rows.rows.resize(options.top);
}

void Rates::add(const View& view, Rows& rows, double now) {
    std::map<std::string, std::vector<Json>> current;
    for (auto& row : rows.rows) {
        const std::string key = row.front().dump();
        std::vector<Json>& values = current[key];
        for (const std::string& counter : view.rated) {
            const Json value = row[indexOf(rows, counter)];
            values.push_back(value);
            row.push_back(rate(key, values.size() - 1, value, now));
        }
    }
    for (const std::string& counter : view.rated) rows.columns.push_back(counter + "PerSec");
    mPrevious = std::move(current);
    mTime = now;
}

Json Rates::rate(const std::string& key, size_t counter, const Json& value, double now) const {
    auto before = mPrevious.find(key);
    if (before == mPrevious.end() || !value.is_number_unsigned() ||
        !before->second[counter].is_number_unsigned() || now <= mTime) {
        return nullptr;
    }
    const uint64_t then = before->second[counter].get<uint64_t>();
    const uint64_t current = value.get<uint64_t>();
    // A counter that went down was reset; its rate starts again with the next listing.
    if (current < then) return nullptr;
    return static_cast<double>(current - then) / (now - mTime);
}

}  // namespace kovra::tool
