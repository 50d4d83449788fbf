#include "Kovractl.h"

#include <fcntl.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

namespace kovra::test {

using namespace android::bpf;

namespace {

std::string drain(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) text.append(buffer, n);
    close(fd);
    return text;
}

// A copy of kovractl and the libraries it loads from the build tree, in a directory every user
// can enter: the checkout may sit where other users cannot (a 0700 home, a mktemp directory), and
// running the build tree's binary as another user would then fail before kovractl ever ran.
// Made once, removed when the test process exits. Empty when it could not be made.
const std::string& reachableCopyDir() {
    static const std::string dir = [] {
        std::error_code error;
        // Static, so that the exit handler below still finds it after `dir` is destroyed.
        static char name[] = "/tmp/kovractl-user-XXXXXX";
        if (mkdtemp(name) == nullptr) return std::string();
        std::filesystem::permissions(name, std::filesystem::perms(0755), error);
        std::istringstream libs(KOVRACTL_LIBS);
        std::vector<std::string> files{KOVRACTL_PATH};
        for (std::string lib; std::getline(libs, lib, ':');) files.push_back(lib);
        for (const std::string& file : files) {
            const auto target =
                    std::filesystem::path(name) / std::filesystem::path(file).filename();
            if (!error) std::filesystem::copy_file(file, target, error);
        }
        if (error) {
            std::filesystem::remove_all(name, error);
            return std::string();
        }
        atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(name, ignored);
        });
        return std::string(name);
    }();
    return dir;
}

// Says on the child's stderr why kovractl did not run, so that a test reports its own plumbing
// rather than an exit code kovractl never gave.
[[noreturn]] void plumbingFailed(const std::string& what, int exitCode) {
    const std::string line = "kovractl_tests: " + what + ": " + strerror(errno) + "\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
    _exit(exitCode);
}

[[noreturn]] void execKovractl(const std::vector<std::string>& args, int asUser,
                               const std::string& binary, int out, int err) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (asUser != 0) {
        if (setgroups(0, nullptr) != 0 || setgid(asUser) != 0 || setuid(asUser) != 0) {
            plumbingFailed("cannot become uid " + std::to_string(asUser), 125);
        }
        setenv("LD_LIBRARY_PATH", std::filesystem::path(binary).parent_path().c_str(), 1);
    }
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    plumbingFailed("cannot run " + binary, 124);
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Outcome& run) {
    return os << "exit " << run.exitCode << "\n--- stdout\n"
              << run.out << "--- stderr\n"
              << run.err;
}

Outcome kovractl(const std::vector<std::string>& args, int asUser, const char* out) {
    std::string binary = KOVRACTL_PATH;
    if (asUser != 0) {
        if (reachableCopyDir().empty())
            return {-1, "", "cannot copy kovractl where any user can run it"};
        binary = reachableCopyDir() + "/" + std::filesystem::path(binary).filename().string();
    }
    int pipeOut[2], pipeErr[2];
    if (pipe2(pipeOut, O_CLOEXEC) != 0 || pipe2(pipeErr, O_CLOEXEC) != 0) return {-1, "", "pipe"};
    if (out != nullptr) {
        close(pipeOut[1]);
        pipeOut[1] = open(out, O_WRONLY | O_CLOEXEC);
    }
    const pid_t pid = fork();
    if (pid == 0) execKovractl(args, asUser, binary, pipeOut[1], pipeErr[1]);
    close(pipeOut[1]);
    close(pipeErr[1]);
    // Outputs are small; stderr is read after stdout without risk of the child blocking on it.
    Outcome run{0, drain(pipeOut[0]), drain(pipeErr[0])};
    int status = 0;
    waitpid(pid, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return run;
}

nlohmann::json jsonOf(const Outcome& run) {
    nlohmann::json value = nlohmann::json::parse(run.out, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << "not JSON: " << run;
    return value;
}

Snapshot snapshotMaps() {
    Snapshot snapshot;
    for (const PinnedMapInfo& row : kPinnedMaps) {
        auto& entries = snapshot[row.path];
        std::optional<RawMap> map = RawMap::open(row.path, true);
        if (!map) continue;
        // A map that does not fit its records is read by its own sizes; a per-CPU one by keys.
        const sandbox::MapShape shape = map->shape();
        for (const auto& key : map->rawKeys(shape.keySize)) {
            std::vector<uint8_t> value(shape.valueSize);
            if (shape.type != BPF_MAP_TYPE_HASH || map->getRaw(key.data(), value.data())) {
                entries[key] = value;
            }
        }
    }
    return snapshot;
}

void KovractlTest::SetUp() {
    KernelTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    sandbox::createCatalogueMaps();
    sandbox::seedDemo();
}

}  // namespace kovra::test
