// The capture reader over any bytes: it either refuses them with a CaptureError (one line, which
// kovractl prints with exit 2) or returns a capture that writes back to the same JSON and reads
// again to the same capture. Any other exception, a crash or a sanitizer report is a fault.
// Rebasing a capture that was read must hold too, whatever its stamps.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string_view>

#include "Capture.h"

using namespace kovra::tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Capture capture;
    try {
        capture = parseCapture(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const CaptureError&) {
        return 0;
    }
    const Json written = toJson(capture);
    if (toJson(parseCapture(written.dump())) != written) {
        fprintf(stderr, "broken: a capture read back differs from what was written\n");
        abort();
    }
    rebaseStamps(capture, capture.monotonicNs / 2);
    rebaseStamps(capture, UINT64_MAX);
    return 0;
}
