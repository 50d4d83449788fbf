// --preview: the command runs, through the library's real services, on a copy of the maps in a
// private bpffs of this process's own (the sandbox's machinery), so that what a harvest, a prune
// or a reset would return and remove is shown while the maps themselves stay as they are.
#include <unistd.h>

#include <kovrasandbox/Bpffs.h>

#include "Commands.h"
#include "Replay.h"

namespace kovra::tool {

void enterPreview() {
    if (geteuid() != 0) requireMaps({});
    // Stamps stay as they are: the copy is read on the same machine, against the same clock.
    const Capture capture = takeCapture({});
    // A frozen map's copy is frozen too, so that what the service cannot remove stays there.
    std::vector<const char*> frozen;
    for (const android::bpf::PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        if (inspectMap(row, Access::kReadWrite).state == "frozen") frozen.push_back(row.path);
    }
    try {
        sandbox::enterPrivateBpffs();
        replay(capture, true);
        for (const char* path : frozen) sandbox::RawMap::open(path, Access::kReadWrite).freeze();
    } catch (const sandbox::Error& error) {
        throw ToolError(kExitEnvironment, std::string("preview: ") + error.what());
    }
    for (const CapturedMap& map : capture.maps) {
        if (map.unreadable) {
            fprintf(stderr, "kovractl: preview: %s is not in the copy: %s\n", map.name.c_str(),
                    map.unreadable->c_str());
        }
    }
    fprintf(stderr,
            "kovractl: preview: on a copy of the maps; what it removes or changes stays in the "
            "copy, the maps are not touched\n");
}

}  // namespace kovra::tool
