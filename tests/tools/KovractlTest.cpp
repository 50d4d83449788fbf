// kovractl end to end against the demo data set, seeded afresh in the test's private bpffs before
// every test: what it refuses without touching a map, what it reports of what the services
// removed, its views of the maps, watching, and the sandbox. kovractl runs as a child of the
// test process, so it sees the same bpffs.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include <kovrasandbox/Seed.h>
#include <nlohmann/json.hpp>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using nlohmann::json;

struct Outcome {
    int exitCode;  // -signal when it died of one
    std::string out;
    std::string err;
};

using Snapshot = std::map<std::string, std::map<std::vector<uint8_t>, std::vector<uint8_t>>>;

// A test on the demo data set, created afresh in the private bpffs before each test (and by
// fresh() within one).
class KovractlTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        if (IsSkipped() || HasFailure()) return;
        sandbox::createCatalogueMaps();
        sandbox::seedDemo();
    }
    void fresh() { SetUp(); }
    void TearDown() override {
        for (const std::string& path : files) unlink(path.c_str());
        files.clear();
        KernelTest::TearDown();
    }

  public:
    static inline std::vector<std::string> files;  // what saved() wrote, removed after each test
};

std::string drain(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) text.append(buffer, n);
    close(fd);
    return text;
}

std::ostream& operator<<(std::ostream& os, const Outcome& run) {
    return os << "exit " << run.exitCode << "\n--- stdout\n"
              << run.out << "--- stderr\n"
              << run.err;
}

struct Started {
    pid_t pid;
    int out, err;  // read ends of its stdout (-1 with `out` a file) and stderr
};

// Starts `command` with its stdout and stderr on pipes, or its stdout into the file `out`.
Started start(std::vector<std::string> command, const char* out = nullptr) {
    std::vector<char*> argv;
    for (std::string& arg : command) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int pipeOut[2], pipeErr[2];
    if (pipe2(pipeOut, O_CLOEXEC) != 0 || pipe2(pipeErr, O_CLOEXEC) != 0) return {-1, -1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out != nullptr) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out, O_WRONLY, 0);
    } else {
        posix_spawn_file_actions_adddup2(&actions, pipeOut[1], STDOUT_FILENO);
    }
    posix_spawn_file_actions_adddup2(&actions, pipeErr[1], STDERR_FILENO);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeOut[1]);
    close(pipeErr[1]);
    return {error == 0 ? pid : -1, pipeOut[0], pipeErr[0]};
}

// Reads what it wrote and waits for it.
Outcome finish(const Started& started) {
    // Outputs are small; stderr is read after stdout without risk of the child blocking on it.
    Outcome run{0, drain(started.out), drain(started.err)};
    if (started.pid < 0) return {-1, "", "cannot start it"};
    int status = 0;
    waitpid(started.pid, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return run;
}

// Runs kovractl with `args` and waits for it, as root or as a user who is not; `out` names a file
// to take its stdout. The second runs it in a user namespace of its own (unshare(1)), where no uid
// is mapped: its effective uid reads as the overflow uid and it holds no capability over the
// machine's maps, while its files stay reachable wherever the checkout sits.
Outcome kovractl(const std::vector<std::string>& args, bool asNonRoot = false,
                 const char* out = nullptr) {
    std::vector<std::string> command{KOVRACTL_PATH};
    if (asNonRoot) command.insert(command.begin(), {"unshare", "--user"});
    command.insert(command.end(), args.begin(), args.end());
    return finish(start(command, out));
}

// kovractl's stdout parsed as JSON (a test failure when it is not).
nlohmann::json jsonOf(const Outcome& run) {
    nlohmann::json value = nlohmann::json::parse(run.out, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << "not JSON: " << run;
    return value;
}

// Every map of the catalogue as raw bytes, key -> value, to tell whether a command changed any.
Snapshot snapshotMaps() {
    Snapshot snapshot;
    for (const PinnedMapInfo& row : kPinnedMaps) {
        auto& entries = snapshot[row.path];
        // A map that does not fit its records is read by its own sizes; a per-CPU one by keys;
        // one that cannot be opened is left out.
        try {
            const RawMap map = RawMap::open(row.path, sandbox::Access::kReadOnly);
            const sandbox::MapInfo shape = map.info();
            for (const auto& key : map.rawKeys(shape.keySize)) {
                std::vector<uint8_t> value(shape.valueSize);
                if (shape.type != BPF_MAP_TYPE_HASH || map.getRaw(key.data(), value.data())) {
                    entries[key] = value;
                }
            }
        } catch (const sandbox::Error&) {
        }
    }
    return snapshot;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string line(const std::vector<std::string>& args) {
    std::string text = "kovractl";
    for (const std::string& arg : args) text += " " + arg;
    return text;
}

// What a case leaves in place for the run (a map held locked, say).
using Holder = std::shared_ptr<void>;

Holder perCpuAt(const char* path, uint32_t keySize, uint32_t valueSize) {
    RawMap(path, keySize, valueSize, 8, 0, BPF_MAP_TYPE_PERCPU_HASH);
    return nullptr;
}

Holder writeLocked(const char* path) {
    auto map = std::make_shared<RawMap>(path, 4, 4);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_start = map->info().id;
    lock.l_len = 1;
    EXPECT_EQ(0, fcntl(map->fd(), F_OFD_SETLK, &lock)) << strerror(errno);
    return map;
}

Holder directoryAt(const char* path) {
    unlink(path);
    EXPECT_EQ(0, mkdir(path, 0700)) << path;
    return nullptr;
}

struct EnvironmentCase {
    std::function<Holder()> setup;
    std::vector<std::string> args;
    bool asNonRoot;
    std::vector<std::string> lines;  // on stderr, one per problem
    std::string map, state;          // and what `kovractl maps` says of the map
};

// A table, kept as one by hand.
// clang-format off
const std::vector<EnvironmentCase> kEnvironmentCases = {
        {[] { return nullptr; }, {"net", "block", "5"}, true, {"kovractl: needs root"}, "", ""},
        {[] { return nullptr; }, {"maps"}, true, {"kovractl: needs root"}, "", ""},
        {[] { return nullptr; }, {"sandbox", "--seed", "demo"}, true,
         {"kovractl: sandbox: needs root"}, "", ""},
        {[] { unlink(maps::kNetdAppUidStats.path); return Holder(); },
         {"stats", "uids"}, false, {"app_uid_stats_map: missing: not pinned"}, "app_uid_stats", "missing"},
        {[] { return std::make_shared<RawMap>(maps::kUidPurStats.path, 4, 49); },
         {"stats", "pur"}, false,
         {"uid_pur_stats_map: wrong-size: key/value sizes 4/49, expected 4/48"}, "uid_pur_stats",
         "wrong-size"},
        {[] { return perCpuAt(maps::kAppUidSpeeds.path, 8, 88); },
         {"speeds", "uids", "--stale-ms", "1"}, false,
         {"app_uid_speeds_map: wrong-type: type percpu_hash, expected hash"}, "app_uid_speeds",
         "wrong-type"},
        {[] { return writeLocked(maps::kAppNetDisconnLimit.path); }, {"net", "block", "5"}, false,
         {"app_net_disconn_limit_map: locked: write-locked by another process"},
         "app_net_disconn_limit", "locked"},
        // Every problem of a command in one run, a line each.
        {[] {
             perCpuAt(maps::kAppSocketSpeeds.path, 8, 88);
             return directoryAt(maps::kAppSocketInfo.path);
         },
         {"speeds", "sockets", "--stale-ms", "1", "--min-kbps", "1"}, false,
         {"app_socket_speeds_map: wrong-type", "app_socket_info_map: not-a-map: a directory"},
         "app_socket_info", "not-a-map"},
};
// clang-format on

TEST_F(KovractlTest, EnvironmentProblemsExitThreeAndTouchNothing) {
    for (const EnvironmentCase& c : kEnvironmentCases) {
        fresh();
        const Holder holder = c.setup();
        const Snapshot before = snapshotMaps();
        const Outcome run = kovractl(c.args, c.asNonRoot);
        EXPECT_EQ(3, run.exitCode) << line(c.args) << run;
        for (const std::string& expected : c.lines) EXPECT_TRUE(contains(run.err, expected)) << run;
        EXPECT_TRUE(before == snapshotMaps()) << line(c.args) << " changed a map";
        if (c.map.empty()) continue;
        const Outcome maps = kovractl({"maps", "-j"});
        EXPECT_EQ(3, maps.exitCode) << maps;
        for (const json& row : jsonOf(maps)) {
            if (row["name"] == c.map) {
                EXPECT_EQ(c.state, row["state"]) << row;
            }
        }
    }
}

// A map frozen read-only by the kernel: `maps` says so, a command that writes to it is warned
// before the service runs, and a write that then fails names the errno; the map stays as it was,
// and --preview, whose copy is frozen too, foretells all of it. Exit 0: the speed configuration's
// service ignores a rejected write, and a harvest its failed deletes.
TEST_F(KovractlTest, FrozenMapsAreReportedAndFailedWritesNameTheError) {
    const std::vector<std::tuple<const char*, std::vector<std::string>, int>> cases = {
            {maps::kAppNetDisconnLimit.path, {"net", "block", "10077"}, 1},
            {maps::kAppVuskLimit.path, {"net", "legacy", "10077", "0"}, 1},
            {maps::kImAppHbLen.path, {"wakeup", "hb-len", "10077", "5"}, 1},
            {maps::kAppFreezeConfig.path, {"freeze", "config", "set", "1", "2", "3"}, 1},
            {maps::kAppSocketSpeedsIfindex.path, {"speeds", "iface", "9", "on"}, 1},
            {maps::kAppSocketSpeedsConfig.path, {"speeds", "config", "4"}, 0},
            {maps::kAppFreezeSyn.path, {"freeze", "syns"}, 0}};
    for (const auto& [path, args, exitCode] : cases) {
        fresh();
        RawMap::open(path, sandbox::Access::kReadWrite).freeze();
        const Snapshot before = snapshotMaps();
        const Outcome maps = kovractl({"-j", "maps"});
        EXPECT_EQ(3, maps.exitCode) << maps;
        for (const json& row : jsonOf(maps)) {
            EXPECT_EQ(row["path"] == path ? "frozen" : "ok", row["state"]) << row;
        }
        std::vector<std::string> inJson = {"-j", "--preview"};
        inJson.insert(inJson.end(), args.begin(), args.end());
        const Outcome preview = kovractl(inJson);
        inJson.erase(inJson.begin() + 1);
        const Outcome run = kovractl(inJson);
        EXPECT_EQ(exitCode, run.exitCode) << line(args) << run;
        EXPECT_TRUE(contains(run.err, "warning: " + std::string(path) + ": frozen")) << run;
        EXPECT_EQ(exitCode == 1, contains(run.err, "failed: Operation not permitted (status -1)"))
                << run;
        EXPECT_TRUE(before == snapshotMaps()) << line(args) << " changed a frozen map";
        EXPECT_EQ(jsonOf(preview), jsonOf(run)) << "--preview " << line(args);
    }
}

// Each removal a command reports, against what left the map.
const std::vector<
        std::pair<std::vector<std::string>, std::vector<std::pair<const char*, const char*>>>>
        kRemovals = {
                {{"-j", "freeze", "syns"}, {{"/harvested", maps::kAppFreezeSyn.path}}},
                {{"-j", "speeds", "sockets", "--stale-ms", "30000", "--min-kbps", "100"},
                 {{"/pruned/sockets", maps::kAppSocketSpeeds.path},
                  {"/pruned/socketInfo", maps::kAppSocketInfo.path}}},
                {{"-j", "speeds", "uids", "--stale-ms", "30000"},
                 {{"/pruned/pairs", maps::kAppUidSpeeds.path}}},
                {{"-j", "speeds", "iface", "22", "off"},
                 {{"/wiped/sockets", maps::kAppSocketSpeeds.path},
                  {"/wiped/pairs", maps::kAppUidSpeeds.path},
                  {"/wiped/socketInfo", maps::kAppSocketInfo.path},
                  {"/wiped/interfaces", maps::kAppSocketSpeedsIfindex.path}}},
                {{"-j", "screen", "on", "5"},
                 {{"/reset/maps/0/entries", maps::kSkTcpCookieInSeq.path},
                  {"/reset/maps/1/entries", maps::kAppTcpInwakeup.path}}},
                {{"-j", "screen", "off", "6"},
                 {{"/dropped/heartbeatLengths", maps::kImAppHbLen.path}}},
};

TEST_F(KovractlTest, RemovalsAreReportedWithTheirCounts) {
    for (const auto& [args, reports] : kRemovals) {
        const Snapshot before = snapshotMaps();
        const Outcome run = kovractl(args);
        ASSERT_EQ(0, run.exitCode) << run;
        const json out = jsonOf(run);
        const Snapshot after = snapshotMaps();
        for (const auto& [pointer, path] : reports) {
            const size_t removed = before.at(path).size() - after.at(path).size();
            EXPECT_GT(removed, 0u) << line(args) << " " << pointer;
            EXPECT_EQ(json(removed), out.at(json::json_pointer(pointer))) << line(args) << run;
        }
        if (args[1] == "screen" && args[2] == "on") {
            EXPECT_EQ(9, out["reset"]["mask"]) << run;
        }
        if (args[1] == "speeds" && args[2] == "sockets") {
            EXPECT_EQ(json({40964, 40965}), out["pruned"]["cookies"]) << run;
        }
    }

    // A write the library skips is not reported as made.
    const Snapshot before = snapshotMaps();
    const Outcome run = kovractl({"-j", "freeze", "config", "set", "0", "0", "0"});
    EXPECT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(false, jsonOf(run)["written"]) << run;
    EXPECT_TRUE(before == snapshotMaps());

    // A harvest whose output is lost says so and fails.
    fresh();
    for (const char* format : {"-j", "-v"}) {
        const Outcome full = kovractl({format, "freeze", "stats"}, false, "/dev/full");
        EXPECT_EQ(5, full.exitCode) << full;
        EXPECT_TRUE(contains(full.err,
                             "kovractl: writing the output failed: No space left on "
                             "device"))
                << full;
    }
    const Outcome blocked = kovractl({"net", "block", "10050"}, false, "/dev/full");
    EXPECT_TRUE(contains(blocked.err, "; the change was made: block UID 10050: ok")) << blocked;
}

// Services' statuses and the views that read maps without a service.
TEST_F(KovractlTest, StatusesAndViews) {
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> statuses = {
            {{"stats", "pur", "9"}, 4, "No such file or directory (status -2)"},
            {{"net", "unblock", "10050"},
             1,
             "kovractl: unblock UID 10050 failed: No such file or directory (status -1)"},
            {{"speeds", "local", "40967"}, 1, "ifc_get_info failed is null"},
    };
    for (const auto& [args, code, message] : statuses) {
        const Outcome run = kovractl(args);
        EXPECT_EQ(code, run.exitCode) << run;
        EXPECT_TRUE(contains(run.err, message)) << run;
    }
    EXPECT_EQ("unblock UID 10050 failed: No such file or directory (status -1)",
              jsonOf(kovractl({"net", "unblock", "10050", "-j"}))["error"])
            << "an error in JSON mode is an object on stdout";

    const Snapshot seeded = snapshotMaps();
    const json dump = jsonOf(kovractl({"dump", "-j"}))["maps"];
    ASSERT_EQ(kPinnedMaps.size(), dump.size());
    for (const PinnedMapInfo& row : kPinnedMaps) {
        EXPECT_EQ(seeded.at(row.path).size(), dump[row.name]["entries"].size()) << row.path;
    }
    EXPECT_EQ(json({{"word0", 1}, {"word1", 30}, {"word2", 600}}),
              dump["app_freeze_config"]["entries"][0]["value"]);
    const KovraStatsValue v = *sandbox::openMap(maps::kUidPurStats).get(10123);
    const std::vector<std::pair<std::vector<std::string>, json>> views = {
            {{"stats", "pur", "10123"},
             {{{"uid", 10123},
               {"rxPackets", v.rxPackets},
               {"rxBytes", v.rxBytes},
               {"txPackets", v.txPackets},
               {"txBytes", v.txBytes},
               {"extra0", v.extra0},
               {"extra1", v.extra1}}}},
            {{"net", "list"},
             {{{"uid", 10066}, {"disconnected", 1}, {"legacyBlocked", nullptr}},
              {{"uid", 10077}, {"disconnected", nullptr}, {"legacyBlocked", 1}}}},
            {{"speeds", "config"}, {{"config", 3}}},
            {{"wakeup", "hb-len"},
             {{{"uid", 10010}, {"hbLen", 300}},
              {{"uid", 10020}, {"hbLen", 270}},
              {{"uid", 10031}, {"hbLen", 600}}}},
    };
    for (auto [args, expected] : views) {
        args.push_back("-j");
        EXPECT_EQ(expected, jsonOf(kovractl(args))) << line(args);
    }
    EXPECT_TRUE(seeded == snapshotMaps()) << "a view changed a map";
}

// Each of these must be refused by the parser, before any service runs: some would harvest,
// prune, block or reset if they got through.
const std::vector<std::vector<std::string>> kBadCommands = {
        {},
        {"bogus"},
        {"stats", "bogus"},
        {"stats", "pur", "4294967296"},
        {"stats", "pur", "010"},
        {"stats", "pur", "1", "2"},
        {"stats", "uids", "--top", "0"},
        {"wakeup", "--interval", "1", "--count", "0"},
        {"stats", "uids", "--sort", "nosuch"},
        {"stats", "uids", "--count", "2"},
        {"sandbox", "--seed", "nosuch", "--", "true"},
        {"sandbox", "--seed"},
        {"sandbox", "--live", "--seed"},
        {"sandbox", "--seed", "demo", "--seed"},
        {"freeze", "syns", "extra"},
        {"freeze", "config", "set", "1", "2"},
        {"wakeup", "bogus"},
        {"wakeup", "inwakeup", "hb-len", "1", "2"},
        {"wakeup", "hb-len", "10044"},
        {"screen", "on"},
        {"screen", "dim", "5"},
        {"net", "block", "-1"},
        {"net", "legacy", "5", "01"},
        {"net", "legacy", "5", "+1"},
        {"net", "legacy", "5", " 1"},
        {"net", "legacy", "5", "-5"},
        {"speeds", "sockets", "--stale-ms", "1", "--min-kbps", "4294968"},
        {"speeds", "sockets", "--stale-ms", "1", "--min-kbps", "1", "--watch", "1,x"},
        {"speeds", "iface", "22"},
        {"speeds", "iface", "22", "off", "--local"},
};

TEST_F(KovractlTest, BadArgumentsAreRefusedAndTouchNothing) {
    const Snapshot before = snapshotMaps();
    for (const auto& args : kBadCommands) {
        const Outcome run = kovractl(args);
        EXPECT_EQ(2, run.exitCode) << line(args) << run;
        EXPECT_EQ("", run.out) << line(args);
        EXPECT_EQ(0u, run.err.rfind("kovractl: ", 0)) << line(args) << run;
    }
    EXPECT_TRUE(before == snapshotMaps()) << "a rejected command changed a map";

    for (const auto& args : std::vector<std::vector<std::string>>{
                 {"help"}, {"speeds", "sockets", "help"}, {"maps", "-h"}, {"--version"}}) {
        const Outcome run = kovractl(args);
        EXPECT_EQ(0, run.exitCode) << run;
        EXPECT_TRUE(contains(run.out, args[0] == "--version" ? "1.0.0" : "Usage:")) << run;
    }
}

TEST_F(KovractlTest, IntervalListsCountTimesWithRates) {
    Outcome run = kovractl({"-j", "stats", "uids", "--interval", "0.1", "--count", "3"});
    ASSERT_EQ(0, run.exitCode) << run;
    std::istringstream lines(run.out);
    std::vector<json> listings;
    for (std::string text; std::getline(lines, text);) listings.push_back(json::parse(text));
    ASSERT_EQ(3u, listings.size()) << run;
    EXPECT_EQ(307u, listings[2]["rows"].size());
    EXPECT_EQ(nullptr, listings[0]["rows"][0]["rxBytesPerSec"]) << "no rate before a delta";
    EXPECT_EQ(0, listings[1]["rows"][0]["rxBytesPerSec"]) << "the demo's counters stand still";

    run = kovractl({"wakeup", "--interval", "0.1", "--count", "2", "--top", "1"});
    size_t blocks = 0;
    for (size_t at = 0; (at = run.out.find("(Ctrl-C ends)", at)) != std::string::npos; ++at)
        ++blocks;
    EXPECT_EQ(2u, blocks) << run;
}

TEST_F(KovractlTest, SandboxHasItsOwnBpffsAndPassesOnTheCommandUntouched) {
    const Snapshot ours = snapshotMaps();
    // kovractl is on the sandbox's PATH, and -j goes to the inner command.
    Outcome run = kovractl({"sandbox", "--seed", "demo", "kovractl", "-j", "maps"});
    ASSERT_EQ(0, run.exitCode) << run;
    for (const json& row : jsonOf(run)) EXPECT_EQ("ok", row["state"]) << row;

    run = kovractl({"sandbox", "--", "sh", "-c",
                    "test \"$KOVRA_SANDBOX\" = empty && kovractl sandbox true && "
                    "rm /sys/fs/bpf/map_kovra-netd_app_vusk_limit_map && exit 7"});
    EXPECT_EQ(7, run.exitCode) << run;
    EXPECT_TRUE(contains(run.err, "warning: already inside a sandbox (empty)")) << run;
    EXPECT_TRUE(ours == snapshotMaps()) << "the sandbox reached outside its own bpffs";
    EXPECT_EQ(127, kovractl({"sandbox", "--", "/nonexistent/command"}).exitCode);
    const Outcome help = kovractl({"sandbox", "help"});
    EXPECT_TRUE(help.exitCode == 0 && contains(help.out, "Usage: kovractl sandbox")) << help;
    for (const auto& [words, offered] :
         std::vector<std::pair<std::string, std::string>>{{"screen", "help\non\noff\n"},
                                                          {"sandbox", "demo\n"},
                                                          {"dump", "\nscreen_state\n"}}) {
        EXPECT_TRUE(contains(kovractl({"__complete", words}).out, offered)) << words;
    }
    // After --sort: the columns of the listing's rows, as a watch prints them (rates included).
    fresh();
    for (std::vector<std::string> listing :
         {std::vector<std::string>{"stats", "pur"},
          {"speeds", "sockets", "--stale-ms", "600000", "--min-kbps", "0"},
          {"wakeup"}}) {
        std::vector<std::string> watch = {"-j", "--interval", "0.1", "--count", "1"};
        watch.insert(watch.begin() + 1, listing.begin(), listing.end());
        const Outcome listed = kovractl(watch);
        const json rows = jsonOf(listed)["rows"];
        ASSERT_TRUE(rows.is_array()) << listed;
        std::set<std::string> columns;
        for (const auto& [column, value] : rows.at(0).items()) columns.insert(column);
        listing.insert(listing.begin(), "__complete");
        listing.push_back("--sort");
        std::set<std::string> offered;
        std::istringstream lines(kovractl(listing).out);
        for (std::string word; std::getline(lines, word);) offered.insert(word);
        EXPECT_EQ(columns, offered) << line(listing);
    }
}

// The live sandbox and the traffic driver it runs: a command starts with every signal at its
// default (also in a sandbox without --live, here inside the live one); the driver reports what it
// could not write (exit 5, before any flow for a --json FILE it cannot open), refuses what kovractl
// would (leading zeros, signs, blanks, a key twice, limit 0) and stops its flows on SIGTERM,
// reporting what ran.
TEST_F(KovractlTest, LiveCommandsStartCleanAndTheDriverChecksEveryWrite) {
    const std::string driver = std::string(KOVRA_TRAFFIC_PATH) + " ", none = "0000000000000000\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
            {"grep -E '^Sig(Blk|Ign)' /proc/self/status; kovractl sandbox -- grep -E "
             "'^Sig(Blk|Ign)' /proc/self/status",
             "SigBlk:\t" + none + "SigIgn:\t" + none + "SigBlk:\t" + none + "SigIgn:\t" + none},
            {driver + "--json /nonexistent/x flow uid=10071,peer=10079; echo $?; kovractl stats " +
                     "pur 10071 2>/dev/null; echo $?; " + driver + "--json /dev/full flow " +
                     "uid=10072,peer=10079 >/dev/null; echo $?; " + driver +
                     "flow uid=10073,peer=10079 >/dev/full; echo $?",
             "5\n4\n5\n5\n"},
            {"for f in uid=01,peer=2 uid=1,peer=2,bytes=+5 'uid=1,peer=2,bytes=\t5' uid=1,peer=2,"
             "bytes=-1 uid=1,peer=2,uid=3 uid=1,peer=2,limit=0 uid=1,peer=2,limit=120001; do " +
                     driver + "flow \"$f\" 2>/dev/null; echo -n $?; done",
             "2222222"},
            {driver + "--json - flow uid=10074,peer=10079,bytes=1000000,rate=100000 & until " +
                     "kovractl stats pur 10074 >/dev/null 2>&1; do sleep 0.05; done; " +
                     "kill -TERM $!; wait $!; echo $?",
             "143\n"},
    };
    for (const auto& [command, tail] : cases) {
        const Outcome run = kovractl({"sandbox", "--live", "--", "sh", "-c", command});
        const size_t at = run.out.size() - std::min(run.out.size(), tail.size());
        EXPECT_EQ(tail, run.out.substr(at)) << command << run;
        if (tail != "143\n") continue;
        const json sent = json::parse(run.out.substr(0, at));
        EXPECT_TRUE(sent[0]["bytes"] > 0 && sent[0]["bytes"] < 1000000) << "stopped early" << run;
    }
}

// kill -9 of a live sandbox before, during and after a flow: within a second its folder is gone,
// which its guard removes only once the sub-cgroup is, empty: nothing of it runs. Killed as the
// init of a PID namespace of its own, it takes its guard with it: the next sandbox removes what is
// left (its line is not checked: a live test running beside may sweep first). Two sandboxes in PID
// namespaces of their own each count only their own traffic.
TEST_F(KovractlTest, LiveSandboxKilledLeavesNothingAndSandboxesNeverCollide) {
    const std::string flow = std::string(KOVRA_TRAFFIC_PATH) + " flow uid=10081,peer=10082,";
    const std::string go = "; echo go ${KOVRA_LIVE_CGROUP##*.}; ";
    const std::vector<std::pair<bool, std::string>> moments = {
            {false, "true" + go + "exec sleep 60"},
            {false, flow + "bytes=1000000,rate=100000 uid=10083,peer=10084,proto=udp,route=veth," +
                            "bytes=1000000,rate=100000 & until kovractl stats pur 10083 " +
                            ">/dev/null 2>&1; do sleep 0.05; done" + go + "wait"},
            {false, flow + "bytes=1000 >/dev/null" + go + "exec sleep 60"},
            {true, "true" + go + "exec sleep 60"},
    };
    for (const auto& [pidNs, command] : moments) {
        std::vector<std::string> args{KOVRACTL_PATH, "sandbox", "--live", "--",
                                      "sh",          "-c",      command};
        if (pidNs) args.insert(args.begin(), {"unshare", "--pid", "--fork"});
        const Started sandbox = start(args);
        std::string suffix;  // its first line: "go SUFFIX"
        for (char c; read(sandbox.out, &c, 1) == 1 && c != '\n';) suffix += c;
        ASSERT_EQ(0u, suffix.rfind("go ", 0)) << command << finish(sandbox);
        suffix.erase(0, 3);
        const std::string task = std::to_string(sandbox.pid);
        pid_t victim = sandbox.pid;
        if (pidNs) std::ifstream("/proc/" + task + "/task/" + task + "/children") >> victim;
        ASSERT_EQ(0, kill(victim, SIGKILL));
        const std::string folder = "/tmp/kovra-live-cgroup." + suffix;
        bool gone = false;
        for (int i = 0; i < 20 && !gone; ++i) {
            usleep(50000);
            gone = pidNs || access(folder.c_str(), F_OK) != 0;
        }
        EXPECT_TRUE(gone) << command;
        finish(sandbox);
        if (!pidNs) continue;
        const Outcome next = kovractl({"sandbox", "--live", "--", "true"});
        EXPECT_NE(0, access(folder.c_str(), F_OK)) << next;
    }

    std::vector<Started> both;
    for (int uid : {10091, 10092}) {
        both.push_back(start(
                {"unshare", "--pid", "--fork", KOVRACTL_PATH, "sandbox", "--live", "--", "sh", "-c",
                 flow.substr(0, flow.find("uid=") + 4) + std::to_string(uid) +
                         ",peer=10099,bytes=3000,rate=3000 >/dev/null && kovractl -j stats uids"}));
    }
    for (int uid : {10091, 10092}) {
        const Outcome run = finish(both[uid - 10091]);
        json uids = json::array();
        for (const json& row : jsonOf(run)) uids.push_back(row["uid"]);
        EXPECT_EQ(json({uid, 10099}), uids) << run;
    }
}

}  // namespace
}  // namespace kovra::test

namespace kovra::test {
namespace {

// Writes `text` to a file of the test's own and returns its path.
std::string saved(const std::string& text, const std::string& name = "capture.json") {
    const std::string path = "/tmp/kovractl-test-" + std::to_string(getpid()) + "-" + name;
    std::ofstream(path) << text;
    KovractlTest::files.push_back(path);
    return path;
}

// Every map holds two entries whose every byte differs from its neighbours' in the record, so a
// byte moved, dropped or decoded through the wrong field shows.
void fillEveryByte() {
    uint8_t next = 1;
    forEachMap([&](const auto& row) {
        using Row = std::decay_t<decltype(row)>;
        const auto map = sandbox::openMap(row);
        for (const auto& key : map.keys()) map.erase(key);
        for (int entry = 0; entry < 2; ++entry) {
            typename Row::Key key;
            typename Row::Value value;
            for (auto* bytes :
                 {reinterpret_cast<uint8_t*>(&key), reinterpret_cast<uint8_t*>(&value)}) {
                const size_t size =
                        bytes == reinterpret_cast<uint8_t*>(&key) ? sizeof(key) : sizeof(value);
                for (size_t i = 0; i < size; ++i, next = next % 251 + 1) bytes[i] = next;
            }
            map.put(key, value);
        }
    });
}

// Capture, replay into a fresh sandbox, capture again: the same maps, byte for byte. Rebased,
// the stamps keep their age, so the services answer in the sandbox as they did here.
TEST_F(KovractlTest, CaptureReplaysLosslesslyWithStampsKeepingTheirAge) {
    fillEveryByte();
    const Outcome taken = kovractl({"-j", "dump"});
    ASSERT_EQ(0, taken.exitCode) << taken;
    const std::string file = saved(taken.out);
    const json again = jsonOf(kovractl(
            {"sandbox", "--seed", file, "--raw-stamps", "--", KOVRACTL_PATH, "-j", "dump"}));
    EXPECT_EQ(jsonOf(taken)["maps"], again["maps"]);
    ASSERT_EQ(kPinnedMaps.size(), again["maps"].size());
    for (const auto& map : again["maps"]) EXPECT_EQ(2u, map["entries"].size()) << map;

    fresh();
    const std::string demo = saved(kovractl({"-j", "dump"}).out);
    const std::vector<std::string> report = {"-j",    "speeds",     "sockets", "--stale-ms",
                                             "60000", "--min-kbps", "0"};
    std::vector<std::string> inSandbox = {"sandbox", "--seed", demo, "--", KOVRACTL_PATH};
    inSandbox.insert(inSandbox.end(), report.begin(), report.end());
    json here = jsonOf(kovractl(report)), there = jsonOf(kovractl(inSandbox));
    // Every stamp moved by the time between the capture and the replay, and by that alone.
    const int64_t shift = there["rows"][0]["firstStamp"].get<int64_t>() -
                          here["rows"][0]["firstStamp"].get<int64_t>();
    EXPECT_TRUE(shift > 0 && shift < 5000000000) << shift;
    for (json* rows : {&here, &there}) {
        for (json& row : (*rows)["rows"]) {
            for (const char* stamp : {"firstStamp", "secondStamp"}) {
                row[stamp] = row[stamp].get<int64_t>() - (rows == &there ? shift : 0);
            }
        }
    }
    EXPECT_EQ(here, there);
}

// A faulty capture is refused whole: one line naming map, entry and field, exit 2, no map
// written. Each case mends the demo's capture in one place.
TEST_F(KovractlTest, BadCapturesAreRefusedWholeAndWriteNothing) {
    const json good = jsonOf(kovractl({"-j", "dump"}));
    sandbox::RawMap(maps::kScreenState.path, 4, 8, 1);  // too small for the capture's two entries
    const Snapshot before = snapshotMaps();
    const auto with = [&](const std::function<void(json&)>& change) {
        json capture = good;
        change(capture);
        return capture.dump();
    };
    const auto entry = [](json& c, const char* map, int i) -> json& {
        return c["maps"][map]["entries"][i];
    };
    const std::vector<std::pair<std::string, std::string>> cases = {
            {good.dump().substr(0, 900), "capture.json: not JSON, or cut short"},
            {"[1]", "not a capture"},
            {with([](json& c) { c["format"] = 2; }), "format 2 is not one this kovractl reads"},
            {with([](json& c) { c["maps"]["no_such"] = c["maps"]["screen_state"]; }),
             "map no_such: not a map of the catalogue"},
            {with([&](json& c) { entry(c, "app_socket_info", 1)["value"].erase("opaque2"); }),
             "map app_socket_info, entry 1 value, field opaque2: missing"},
            {with([&](json& c) { entry(c, "app_socket_info", 1)["value"]["opaque2"] = "00"; }),
             "entry 1 value, field opaque2: expected 80 hex digits"},
            {with([&](json& c) {
                 entry(c, "app_socket_info", 0)["value"]["opaque1"] = "zz00000000000000";
             }),
             "field opaque1: not hex digits"},
            {with([&](json& c) { entry(c, "app_uid_speeds", 2)["key"]["extra"] = 1; }),
             "map app_uid_speeds, entry 2 key, field extra: not a field"},
            {with([&](json& c) { entry(c, "app_tcp_fin_drop", 0)["value"]["count"] = 4294967296; }),
             "map app_tcp_fin_drop, entry 0 value, field count: expected a whole number "
             "0..4294967295"},
            {with([&](json& c) { entry(c, "app_uid_stats", 0)["value"]["rxBytes"] = -1; }),
             "field rxBytes: expected a whole number"},
            {with([&](json& c) {
                 entry(c, "app_uid_stats", 1)["key"] = entry(c, "app_uid_stats", 0)["key"];
             }),
             "map app_uid_stats, entry 1: the key of an earlier entry"},
            {with([](json& c) { c["maps"]["app_tcp_fin_drop"]["maxEntries"] = 1; }),
             "map app_tcp_fin_drop: 20 entries, more than its maxEntries 1"},
            {with([](json& c) { c["maps"]["screen_state"]["valueSize"] = 4; }),
             "map screen_state: key/value sizes 4/4, the catalogue's are 4/8"},
            {good.dump(), "map screen_state: 2 entries, more than the map holds (1)"},
    };
    for (const auto& [text, message] : cases) {
        const Outcome run = kovractl({"load", "--force", saved(text)});
        EXPECT_EQ(2, run.exitCode) << message << run;
        EXPECT_TRUE(contains(run.err, message)) << message << run;
    }
    const Outcome outside = kovractl({"load", saved(good.dump())});
    EXPECT_EQ(2, outside.exitCode) << outside;
    EXPECT_TRUE(contains(outside.err, "load writes only into a kovractl sandbox")) << outside;
    EXPECT_TRUE(before == snapshotMaps()) << "a refused capture changed a map";
}

// diff lists what was added, removed and changed per map, with the deltas of numbers; exit 1 when
// the maps differ, 0 when they do not.
TEST_F(KovractlTest, DiffListsEachMapsChangesWithDeltas) {
    const std::string before = saved(kovractl({"-j", "dump"}).out, "before.json");
    const size_t syns = snapshotMaps().at(maps::kAppFreezeSyn.path).size();
    const auto stats = sandbox::openMap(maps::kUidPurStats);
    KovraStatsValue value = *stats.get(10123);
    value.rxBytes -= 5;
    stats.put(10123, value);
    ASSERT_EQ(0, kovractl({"net", "block", "10099"}).exitCode);
    ASSERT_EQ(0, kovractl({"freeze", "syns"}).exitCode);
    const std::string after = saved(kovractl({"-j", "dump"}).out, "after.json");

    const Outcome run = kovractl({"-j", "diff", before, after});
    EXPECT_EQ(1, run.exitCode) << run;
    const json diff = jsonOf(run);
    EXPECT_EQ(3u, diff.size()) << diff;  // the three maps changed, no other
    EXPECT_EQ(json({{"from", value.rxBytes + 5}, {"to", value.rxBytes}, {"delta", -5}}),
              diff["uid_pur_stats"]["changed"][0]["fields"]["rxBytes"]);
    EXPECT_EQ(syns, diff["app_freeze_syn"]["removed"].size());
    EXPECT_EQ(json({{"key", {{"uid", 10099}}}, {"value", {{"value", 1}}}}),
              diff["app_net_disconn_limit"]["added"][0]);
    EXPECT_EQ(0, kovractl({"diff", after, after}).exitCode);
}

// uid shows one app's entries of every per-app map and nothing else; with -j, as a capture.
TEST_F(KovractlTest, UidShowsOneAppAcrossEveryFamily) {
    sandbox::openMap(maps::kAppTcpInwakeup).put(10031, 4);
    sandbox::openMap(maps::kAppFreezeStats).put(10031, {{1, 2, 3, 4, 5}});
    sandbox::openMap(maps::kAppVuskLimit).put(10031, 1);
    const json app = jsonOf(kovractl({"-j", "uid", "10031"}))["maps"];
    const std::map<std::string, size_t> expected = {
            {"app_uid_stats", 1},    {"uid_pur_stats", 1}, {"app_socket_speeds", 2},
            {"app_uid_speeds", 1},   {"im_app_hb_len", 1}, {"app_tcp_inwakeup", 1},
            {"app_freeze_stats", 1}, {"app_vusk_limit", 1}};
    for (const auto& [name, map] : app.items()) {
        const auto count = expected.find(name);
        EXPECT_EQ(count == expected.end() ? 0 : count->second, map["entries"].size()) << name;
    }
    EXPECT_FALSE(app.contains("app_socket_info") || app.contains("screen_state")) << app;
    EXPECT_EQ(10031, app["app_socket_speeds"]["entries"][1]["value"]["tag"]);
}

// --preview runs the real service on a copy: the maps stay as they were, and what it reported is
// what the same command then does to them.
TEST_F(KovractlTest, PreviewLeavesTheMapsAndShowsWhatTheServiceRemoves) {
    // The demo data set's stale speed records are minutes old, its fresh ones under a second: a
    // minute's threshold prunes the same records in the copy and, a moment later, for real.
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"freeze", "syns"},
          {"freeze", "stats"},
          {"screen", "on", "5"},
          {"speeds", "sockets", "--stale-ms", "60000", "--min-kbps", "0"},
          {"speeds", "uids", "--stale-ms", "60000"}}) {
        fresh();
        const Snapshot before = snapshotMaps();
        std::vector<std::string> args = {"-j", "--preview"};
        args.insert(args.end(), command.begin(), command.end());
        const Outcome preview = kovractl(args);
        EXPECT_EQ(0, preview.exitCode) << preview;
        EXPECT_TRUE(before == snapshotMaps()) << "--preview changed a map: " << line(args);
        args.erase(args.begin() + 1);
        EXPECT_EQ(jsonOf(preview), jsonOf(kovractl(args))) << line(args);
        EXPECT_FALSE(before == snapshotMaps()) << "the command removed nothing: " << line(args);
    }
}

}  // namespace
}  // namespace kovra::test
