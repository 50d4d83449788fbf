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
Rows recordRows(const std::unordered_map<uint64_t, Record>& records) {
    constexpr size_t kWords = sizeof(Record) / sizeof(uint64_t);
    Rows rows{{"key"}, {}};
    for (size_t w = 0; w < kWords; ++w) rows.columns.push_back("data" + std::to_string(w));
    for (uint64_t key : sortedKeys(records)) {
        rows.rows.push_back({key});
        for (uint64_t word : records.at(key).data) rows.rows.back().push_back(word);
    }
    return rows;
}

template <typename Record>
Output harvest(Context& ctx, int (*service)(std::unordered_map<uint64_t, Record>&),
               const PinnedMapInfo& map, const std::string& what) {
    std::unordered_map<uint64_t, Record> records;
    check(call(service, records), "harvesting the " + what);
    // The service has emptied the map: these records exist nowhere but in this output now.
    ctx.outputHoldsOnlyCopy = countOf(records.size(), "harvested record") + " removed from " +
                              mapName(map.path) + (records.size() == 1 ? " is" : " are") + " lost";
    const Json left = entryCount(map);
    const Rows rows = recordRows(records);
    Output out{{{"rows", rows.toJson()}, {"harvested", records.size()}, {"left", left}}};
    return std::move(out.table(rows).line(countOf(records.size(), "record") +
                                          " harvested and removed from " + mapName(map.path) +
                                          " (" + left.dump() + " entries left)"));
}

Json configJson(const AppFreezeConfig& config) {
    return {{"word0", config.word0}, {"word1", config.word1}, {"word2", config.word2}};
}

Output getConfig() {
    AppFreezeConfig config{};
    check(call(bpfGetAppFreezeConfig, config), "reading the freeze configuration");
    Output out{configJson(config)};
    return std::move(
            out.table({{"word0", "word1", "word2"}, {{config.word0, config.word1, config.word2}}}));
}

// The library skips a value equal to the last one this process wrote, and each kovractl run is a
// fresh process whose last written value is all zero: 0 0 0 is never written, and needs no map.
bool skipsWrite(const uint32_t (&words)[3]) {
    return words[0] == 0 && words[1] == 0 && words[2] == 0;
}

Output setConfig(const uint32_t (&words)[3]) {
    AppFreezeConfig config{words[0], words[1], words[2]};
    const std::string text = std::to_string(config.word0) + " " + std::to_string(config.word1) +
                             " " + std::to_string(config.word2);
    const bool skipped = skipsWrite(words);
    Json details = configJson(config);
    details["written"] = !skipped;
    if (skipped) {
        check(call(bpfSetAppFreezeConfig, config), "setting the freeze configuration");
        Output out{details};
        return std::move(out.line("freeze configuration " + text +
                                  " not written: the library skips a value equal to the last one "
                                  "this process wrote, which is 0 0 0 in a fresh process; the map "
                                  "keeps its record"));
    }
    return change(call(bpfSetAppFreezeConfig, config), "set the freeze configuration to " + text,
                  details);
}

}  // namespace

void addFreezeCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<FreezeOptions>();
    CLI::App* freeze =
            app.add_subcommand("freeze", "Frozen apps' network accounting")->require_subcommand(1);

    CLI::App* syns = freeze->add_subcommand(
            "syns", "Harvest the connection-attempt records: show them, then empty the map");
    onShow(syns, ctx, {needs(maps::kAppFreezeSyn, Access::kReadWrite)}, [&ctx] {
        return harvest(ctx, bpfFetchAppFreezeSyns, rowOf(maps::kAppFreezeSyn.path),
                       "connection-attempt records");
    });
    CLI::App* stats = freeze->add_subcommand(
            "stats", "Harvest the traffic records: show them, then empty the map");
    onShow(stats, ctx, {needs(maps::kAppFreezeStats, Access::kReadWrite)}, [&ctx] {
        return harvest(ctx, bpfFetchAppFreezeStats, rowOf(maps::kAppFreezeStats.path),
                       "traffic records");
    });

    CLI::App* config = freeze->add_subcommand("config", "The freeze accounting's settings")
                               ->require_subcommand(1);
    CLI::App* get = config->add_subcommand("get", "Show the configuration record");
    const auto configMap = needs(maps::kAppFreezeConfig, Access::kReadWrite);
    onShow(get, ctx, {configMap}, getConfig);
    CLI::App* set = config->add_subcommand(
            "set",
            "Write the configuration record (skipped when it equals the last one written "
            "by this process: 0 0 0 in a fresh one, reported as not written)");
    addNumber(set, "W0", opts->words[0], "First word");
    addNumber(set, "W1", opts->words[1], "Second word");
    addNumber(set, "W2", opts->words[2], "Third word");
    onShow(
            set, ctx,
            [opts, configMap] {
                return skipsWrite(opts->words) ? MapNeeds{} : MapNeeds{configMap};
            },
            [opts] { return setConfig(opts->words); });
}

}  // namespace kovra::tool
