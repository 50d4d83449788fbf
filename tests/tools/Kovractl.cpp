#include "Kovractl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

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

// The checkout may sit where another user cannot enter: that user runs a copy of kovractl and
// the libraries beside it from a directory of its own.
std::string reachableCopy() {
    static std::string copy;
    if (!copy.empty()) return copy;
    namespace fs = std::filesystem;
    char dir[] = "/tmp/kovractl.XXXXXX";
    if (mkdtemp(dir) == nullptr || chmod(dir, 0755) != 0) return KOVRACTL_PATH;
    const fs::path binary(KOVRACTL_PATH);
    for (const fs::path& file : {binary, binary.parent_path() / "../../libkovrabpf.so.1",
                                 binary.parent_path() / "../../libkovra_netutils.so"}) {
        fs::copy_file(file, fs::path(dir) / file.filename());
    }
    return copy = std::string(dir) + "/kovractl";
}

[[noreturn]] void execKovractl(const std::vector<std::string>& args, int asUser, int out, int err) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    std::string path = KOVRACTL_PATH;
    if (asUser != 0) {
        path = reachableCopy();
        setenv("LD_LIBRARY_PATH", path.substr(0, path.rfind('/')).c_str(), 1);
        if (setgid(asUser) != 0 || setuid(asUser) != 0) _exit(125);
    }
    std::vector<char*> argv{path.data()};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(124);
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Outcome& run) {
    return os << "exit " << run.exitCode << "\n--- stdout\n"
              << run.out << "--- stderr\n"
              << run.err;
}

Outcome kovractl(const std::vector<std::string>& args, int asUser, const char* out) {
    if (asUser != 0) reachableCopy();
    int pipeOut[2], pipeErr[2];
    if (pipe2(pipeOut, O_CLOEXEC) != 0 || pipe2(pipeErr, O_CLOEXEC) != 0) return {-1, "", "pipe"};
    if (out != nullptr) {
        close(pipeOut[1]);
        pipeOut[1] = open(out, O_WRONLY | O_CLOEXEC);
    }
    const pid_t pid = fork();
    if (pid == 0) execKovractl(args, asUser, pipeOut[1], pipeErr[1]);
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
        std::optional<tool::RawMap> map = tool::RawMap::open(row.path, true);
        if (!map) continue;
        // A map that does not fit its records is read by its own sizes; a per-CPU one by keys.
        const tool::MapShape shape = map->shape();
        for (const auto& key : map->keys(shape.keySize)) {
            std::vector<uint8_t> value(shape.valueSize);
            if (shape.type != BPF_MAP_TYPE_HASH || map->get(key.data(), value.data())) {
                entries[key] = value;
            }
        }
    }
    return snapshot;
}

void KovractlTest::SetUp() {
    KernelTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    tool::createCatalogueMaps();
    tool::seedDemo(tool::monotonicNowNs());
}

}  // namespace kovra::test
