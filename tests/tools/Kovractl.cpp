#include "Kovractl.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

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

[[noreturn]] void execKovractl(const std::vector<std::string>& args, int asUser, int out, int err) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (asUser != 0 && (setgid(asUser) != 0 || setuid(asUser) != 0)) _exit(125);
    std::vector<char*> argv{const_cast<char*>(KOVRACTL_PATH)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(KOVRACTL_PATH, argv.data());
    _exit(124);
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Outcome& run) {
    return os << "exit " << run.exitCode << "\n--- stdout\n"
              << run.out << "--- stderr\n"
              << run.err;
}

Outcome kovractl(const std::vector<std::string>& args, int asUser) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return {-1, "", "pipe failed"};
    const pid_t pid = fork();
    if (pid == 0) execKovractl(args, asUser, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    // Outputs are small; stderr is read after stdout without risk of the child blocking on it.
    Outcome run{0, drain(out[0]), drain(err[0])};
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
        for (const auto& key : map->rawKeys(row.keySize)) {
            std::vector<uint8_t> value(row.valueSize);
            if (map->getRaw(key.data(), value.data())) entries[key] = value;
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

std::vector<std::vector<std::string>> tableRows(const std::string& out) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::vector<std::string> row;
        for (std::string word; words >> word;) row.push_back(word);
        if (!row.empty()) rows.push_back(row);
    }
    return rows;
}

}  // namespace kovra::test
