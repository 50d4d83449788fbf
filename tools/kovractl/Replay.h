// Captures of the pinned maps, taken through read-only handles, and their replay into the maps
// through the desk's map layer: what `dump`, `load` and `sandbox --seed FILE` are made of.
#pragma once

#include <string>
#include <vector>

#include "Capture.h"

namespace kovra::tool {

// The named maps (all when none are named) as they are now; a map that cannot be read is
// recorded with why. Changes nothing.
Capture takeCapture(const std::vector<std::string>& names);

// A capture as `dump` shows it: with -j the capture itself; as a table, each map's entries field
// by field. Exit 3 when a map could not be read.
Output showCapture(const Capture& capture);

// The capture in `path`, checked whole; a fault is a ToolError (exit 2) naming the file, its line
// ending with `consequence`.
Capture readCaptureFile(const std::string& path,
                        const std::string& consequence = "; nothing was written");

// Keeps the named maps of a capture only; a name the capture lacks is a ToolError (exit 2).
void selectMaps(Capture& capture, const std::vector<std::string>& names);

// Makes each readable map of the capture hold exactly its entries. With `create`, the map is
// created first with the capture's shape (a fresh sandbox); otherwise the pinned one is written,
// after every map has been checked to take it. Returns the number of entries written per map.
std::vector<std::pair<std::string, size_t>> replay(const Capture& capture, bool create);

}  // namespace kovra::tool
