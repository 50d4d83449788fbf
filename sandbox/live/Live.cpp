#include "Live.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string_view>
#include <thread>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/Maps.h>

#include "Objects.h"

namespace kovra::live {
namespace {

std::string errnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

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

void writeFile(const std::string& path, const char* text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) throw LiveError(errnoText("opening " + path));
    const bool ok = write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
    const int err = errno;
    close(fd);
    errno = err;
    if (!ok) throw LiveError(errnoText("writing " + path));
}

void makeFolder(const char* path) {
    std::string folder(path, strrchr(path, '/'));
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw LiveError(errnoText("creating " + folder));
    }
}

}  // namespace

struct LiveSide::Loaded {
    std::vector<bpf_object*> objects;
    std::vector<bpf_link*> links;
    ~Loaded() {
        for (bpf_link* link : links) bpf_link__destroy(link);
        for (bpf_object* object : objects) bpf_object__close(object);
    }

    // Opens one program object, swaps its catalogue maps for the pinned ones, loads it and
    // attaches every program in it to the cgroup.
    void add(const ProgramObject& source, int cgroupFd) {
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
                                                          "map pinned; opening ") + path));
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
            errno = -err;
            throw LiveError(errnoText(std::string("loading the ") + source.name +
                                      " programs") + "\n" + libbpfLog);
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
};

LiveSide::LiveSide() {
    // A mount namespace of our own for the cgroup2 mount, a copy of the caller's (its private
    // bpffs included), so that the mount can never show on the machine.
    if (unshare(CLONE_NEWNS) != 0) throw LiveError(errnoText("unshare(CLONE_NEWNS)"));
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        throw LiveError(errnoText("making / private"));
    }
    libbpf_set_print(collectLibbpfLog);
    char folder[] = "/tmp/kovra-live-cgroup.XXXXXX";
    if (mkdtemp(folder) == nullptr) throw LiveError(errnoText("creating a cgroup2 mount point"));
    mMount = folder;
    if (mount("cgroup2", folder, "cgroup2", 0, nullptr) != 0) {
        const int err = errno;
        rmdir(folder);
        errno = err;
        throw LiveError(errnoText("mounting cgroup2"), true);
    }
    mCgroup = mMount + "/kovra-live." + std::to_string(getpid());
    try {
        if (mkdir(mCgroup.c_str(), 0755) != 0) throw LiveError(errnoText("creating " + mCgroup));
        mCgroupFd = open(mCgroup.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (mCgroupFd < 0) throw LiveError(errnoText("opening " + mCgroup));
        mLoaded = std::make_unique<Loaded>();
        for (const ProgramObject& object : programObjects()) mLoaded->add(object, mCgroupFd);
    } catch (...) {
        tearDown();
        throw;
    }
}

LiveSide::~LiveSide() {
    tearDown();
}

void LiveSide::tearDown() {
    mLoaded.reset();
    if (mCgroupFd >= 0) close(mCgroupFd);
    mCgroupFd = -1;
    if (!mCgroup.empty() && access(mCgroup.c_str(), F_OK) == 0) {
        // Stray members keep the cgroup busy; end them and wait until it empties.
        const std::string kill = mCgroup + "/cgroup.kill";
        if (access(kill.c_str(), F_OK) == 0) {
            try {
                writeFile(kill, "1");
            } catch (const LiveError&) {
            }
        }
        for (int tries = 0; rmdir(mCgroup.c_str()) != 0 && errno == EBUSY && tries < 200; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    mCgroup.clear();
    if (!mMount.empty()) {
        umount2(mMount.c_str(), MNT_DETACH);
        rmdir(mMount.c_str());
        unlink(kFrozenUidsPath);
    }
    mMount.clear();
}

void joinCgroup(const std::string& cgroup) {
    writeFile(cgroup + "/cgroup.procs", "0");
}

void setFrozen(uint32_t uid, bool frozen) {
    const auto map = sandbox::openMap(kFrozenUids);
    // Thawing a UID that is not frozen is no mistake.
    frozen ? map.put(uid, 1) : (void)map.erase(uid);
}

}  // namespace kovra::live
