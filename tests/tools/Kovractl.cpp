#include "Kovractl.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>


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

// Says on the child's stderr why kovractl did not run, so that a test reports its own plumbing
// rather than an exit code kovractl never gave.
[[noreturn]] void plumbingFailed(const std::string& what, int exitCode) {
    const std::string line = "kovractl_tests: " + what + ": " + strerror(errno) + "\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
    _exit(exitCode);
}

[[noreturn]] void execKovractl(const std::vector<std::string>& args, bool asNonRoot, int out,
                               int err) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    // In a user namespace of its own, with no uid mapped, the child's effective uid reads as the
    // overflow uid and it holds no capability over the machine's maps: a non-root user, as far
    // as kovractl can tell. Its files stay reachable wherever the checkout sits.
    if (asNonRoot && unshare(CLONE_NEWUSER) != 0) plumbingFailed("cannot leave root", 125);
    const std::string binary = KOVRACTL_PATH;
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

Outcome kovractl(const std::vector<std::string>& args, bool asNonRoot, const char* out) {
    int pipeOut[2], pipeErr[2];
    if (pipe2(pipeOut, O_CLOEXEC) != 0 || pipe2(pipeErr, O_CLOEXEC) != 0) return {-1, "", "pipe"};
    if (out != nullptr) {
        close(pipeOut[1]);
        pipeOut[1] = open(out, O_WRONLY | O_CLOEXEC);
    }
    const pid_t pid = fork();
    if (pid == 0) execKovractl(args, asNonRoot, pipeOut[1], pipeErr[1]);
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
