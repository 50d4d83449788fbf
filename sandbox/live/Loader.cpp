// The live side's loader: each family's program object opened from the library, its catalogue
// maps swapped for the ones pinned at their paths, loaded and attached to the cgroup.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string_view>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <kovrabpf/KovraPinnedMaps.h>

#include "Side.h"

namespace kovra::live {
namespace {

// What libbpf said last, for the error of a load that failed.
std::string libbpfLog;

int collectLibbpfLog(libbpf_print_level level, const char* format, va_list args) {
    if (level == LIBBPF_DEBUG) return 0;
    char line[512];
    const int n = vsnprintf(line, sizeof(line), format, args);
    libbpfLog += line;
    if (libbpfLog.size() > 4096) libbpfLog.erase(0, libbpfLog.size() - 4096);
    return n;
}

// The programs name their maps by the catalogue's short names.
const char* cataloguePath(std::string_view mapName) {
    for (const android::bpf::PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        if (row.name == mapName) return row.path;
    }
    return nullptr;
}

void makeFolder(const char* path) {
    std::string folder(path, strrchr(path, '/'));
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw LiveError(errnoText("creating " + folder));
    }
}

}  // namespace

LiveSide::Loaded::Loaded() {
    libbpf_set_print(collectLibbpfLog);
}

LiveSide::Loaded::~Loaded() {
    for (bpf_link* link : links) bpf_link__destroy(link);
    for (bpf_object* object : objects) bpf_object__close(object);
}

void LiveSide::Loaded::add(const ProgramObject& source, int cgroupFd) {
    LIBBPF_OPTS(bpf_object_open_opts, options, .object_name = source.name);
    bpf_object* object = bpf_object__open_mem(source.data, source.size, &options);
    if (object == nullptr) throw LiveError(errnoText(std::string("opening ") + source.name));
    objects.push_back(object);
    bpf_map* map;
    bpf_object__for_each_map(map, object) {
        const char* name = bpf_map__name(map);
        if (const char* path = cataloguePath(name)) {
            const int fd = bpf_obj_get(path);
            if (fd < 0) {
                throw LiveError(errnoText(std::string("the live side needs every catalogue "
                                                      "map pinned; opening ") +
                                          path));
            }
            const int err = bpf_map__reuse_fd(map, fd);
            close(fd);
            if (err != 0) {
                errno = -err;
                throw LiveError(errnoText(std::string("reusing ") + path));
            }
        } else if (std::string_view(name) == kFrozenUids.name) {
            makeFolder(kFrozenUidsPath);
            bpf_map__set_pin_path(map, kFrozenUidsPath);
        }
    }
    libbpfLog.clear();
    if (const int err = bpf_object__load(object); err != 0) {
        // One line naming the family the kernel refused, the verifier's account after it.
        utsname kernel{};
        uname(&kernel);
        errno = -err;
        throw LiveError(errnoText(std::string("this kernel (") + kernel.release +
                                  ") cannot run the " + source.name + " programs") +
                        "\n" + libbpfLog);
    }
    bpf_program* program;
    bpf_object__for_each_program(program, object) {
        bpf_link* link = bpf_program__attach_cgroup(program, cgroupFd);
        if (link == nullptr) {
            throw LiveError(errnoText("this kernel cannot attach cgroup BPF programs (" +
                                      std::string(bpf_program__name(program)) + ")"),
                            true);
        }
        links.push_back(link);
    }
}

}  // namespace kovra::live
