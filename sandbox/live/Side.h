// What the live side's own files share: its names, its error text, and the programs it loaded.
#pragma once

#include <string>
#include <vector>

#include <kovralive/Live.h>

#include "Objects.h"

struct bpf_link;
struct bpf_object;

namespace kovra::live {

// The cgroup2 mount's folder and the sub-cgroup's name, each followed by the folder's mkdtemp
// suffix.
inline constexpr char kFolderPrefix[] = "/tmp/kovra-live-cgroup.";
inline constexpr char kCgroupPrefix[] = "kovra-live.";

// "`what`: strerror(errno)".
std::string errnoText(const std::string& what);

// The program objects loaded and their programs' links to the cgroup, detached and closed on
// destruction. libbpf's messages are kept from here on, for the error of a load that fails.
struct LiveSide::Loaded {
    Loaded();
    ~Loaded();
    // Opens one program object, swaps its catalogue maps for the pinned ones, loads it and
    // attaches every program in it to the cgroup.
    void add(const ProgramObject& source, int cgroupFd);

    std::vector<bpf_object*> objects;
    std::vector<bpf_link*> links;
};

}  // namespace kovra::live
