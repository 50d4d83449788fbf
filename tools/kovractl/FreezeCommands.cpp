// kovractl freeze: harvesting the kernel side's records about frozen apps, and the freeze
// accounting's configuration record.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

struct FreezeOptions {
    uint32_t words[3] = {0, 0, 0};
};

// The records are the kernel side's: shown as their 64-bit words, in order.
template <typename Record>
void showRecords(const Context& ctx, const std::unordered_map<uint64_t, Record>& records) {
    constexpr size_t kWords = sizeof(Record) / sizeof(uint64_t);
    if (ctx.json) {
        Json rows = Json::array();
        for (uint64_t key : sortedKeys(records)) {
            const uint64_t* data = records.at(key).data;
            rows.push_back({{"key", key}, {"data", std::vector<uint64_t>(data, data + kWords)}});
        }
        printJson(rows);
        return;
    }
    std::vector<std::string> headers = {"KEY"};
    for (size_t w = 0; w < kWords; ++w) headers.push_back("DATA" + std::to_string(w));
    Table table(headers);
    for (uint64_t key : sortedKeys(records)) {
        std::vector<std::string> row = {std::to_string(key)};
        for (uint64_t word : records.at(key).data) row.push_back(std::to_string(word));
        table.add(row);
    }
    table.print();
    printf("%s\n", countOf(records.size(), "record").c_str());
}

template <typename Record>
int harvest(const Context& ctx, int (*service)(std::unordered_map<uint64_t, Record>&),
            const std::string& what) {
    requirePinned(MapFamily::kFreeze);
    std::unordered_map<uint64_t, Record> records;
    const int status = service(records);
    // A failed walk leaves the kernel map as it was; what was read is not shown.
    if (status == 0) showRecords(ctx, records);
    return finish(status, "harvesting the " + what);
}

void showConfig(const Context& ctx, const AppFreezeConfig& config) {
    if (ctx.json) {
        printJson({{"word0", config.word0}, {"word1", config.word1}, {"word2", config.word2}});
        return;
    }
    Table table({"WORD0", "WORD1", "WORD2"});
    table.add({std::to_string(config.word0), std::to_string(config.word1),
               std::to_string(config.word2)});
    table.print();
}

int getConfig(const Context& ctx) {
    requirePinned(MapFamily::kFreeze);
    AppFreezeConfig config{};
    const int status = bpfGetAppFreezeConfig(config);
    if (status == 0) showConfig(ctx, config);
    return finish(status, "reading the freeze configuration");
}

int setConfig(const Context& ctx, const uint32_t (&words)[3]) {
    requirePinned(MapFamily::kFreeze);
    AppFreezeConfig config{words[0], words[1], words[2]};
    if (config.word0 == 0 && config.word1 == 0 && config.word2 == 0) {
        // Each kovractl run is a fresh process, whose last written configuration is all zero.
        fprintf(stderr,
                "kovractl: note: 0 0 0 equals this process's last written configuration, so the "
                "library skips the write and the map keeps its record\n");
    }
    const std::string what = "set the freeze configuration to " + std::to_string(config.word0) +
                             " " + std::to_string(config.word1) + " " +
                             std::to_string(config.word2);
    return reportChange(
            ctx, bpfSetAppFreezeConfig(config), what,
            {{"word0", config.word0}, {"word1", config.word1}, {"word2", config.word2}});
}

}  // namespace

void addFreezeCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<FreezeOptions>();
    CLI::App* freeze =
            app.add_subcommand("freeze", "Frozen apps' network accounting")->require_subcommand(1);

    CLI::App* syns = freeze->add_subcommand(
            "syns", "Harvest the connection-attempt records: show them, then empty the map");
    onRun(syns, ctx,
          [&ctx] { return harvest(ctx, bpfFetchAppFreezeSyns, "connection-attempt records"); });
    CLI::App* stats = freeze->add_subcommand(
            "stats", "Harvest the traffic records: show them, then empty the map");
    onRun(stats, ctx, [&ctx] { return harvest(ctx, bpfFetchAppFreezeStats, "traffic records"); });

    CLI::App* config = freeze->add_subcommand("config", "The freeze accounting's settings")
                               ->require_subcommand(1);
    CLI::App* get = config->add_subcommand("get", "Show the configuration record");
    onRun(get, ctx, [&ctx] { return getConfig(ctx); });
    CLI::App* set = config->add_subcommand(
            "set",
            "Write the configuration record (skipped when it equals the last one written "
            "by this process: 0 0 0 in a fresh one)");
    addNumber(set, "W0", opts->words[0], "First word");
    addNumber(set, "W1", opts->words[1], "Second word");
    addNumber(set, "W2", opts->words[2], "Third word");
    onRun(set, ctx, [&ctx, opts] { return setConfig(ctx, opts->words); });
}

}  // namespace kovra::tool
