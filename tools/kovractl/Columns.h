// A listing's columns as --sort and a watch use them: named in any spelling, sorted by, and the
// per-second rates of the counters that a watch adds beside them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Watch.h"

namespace kovra::tool {

// The index of the column `name` names ("rx_bytes", "RX-BYTES" and "rxBytes" all name rxBytes);
// a ToolError (exit 2) that lists the columns when none does.
size_t columnIndex(const std::vector<std::string>& columns, const std::string& name);

// Sorts the rows by --sort, largest first and rows without a value last, and keeps --top of them.
void sortAndCut(Rows& rows, const ListOptions& options);

// Per-second rates of the rated counters against the previous listing, matched by the first
// column; null for a row that was not there before.
class Rates {
  public:
    // Adds a <counter>PerSec column for each of the view's rated counters, read at `now` seconds.
    void add(const View& view, Rows& rows, double now);

  private:
    Json rate(const std::string& key, size_t counter, const Json& value, double now) const;
    std::map<std::string, std::vector<Json>> mPrevious;
    double mTime = 0;
};

}  // namespace kovra::tool
