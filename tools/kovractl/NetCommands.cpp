// kovractl net: cutting apps off the network, letting them back on, and who is cut off.
#include <limits.h>

#include <map>

#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

constexpr char kLegacyHelp[] =
        "The legacy firewall switch: RULE 1 allows the app (exit 1 when it was not blocked), any "
        "other RULE blocks it";

struct NetOptions {
    uint32_t uid = 0, rule = 0;
};

// The services take the UID as int and use its bits unchanged as the unsigned key.
int asServiceUid(uint32_t uid) {
    int value;
    memcpy(&value, &uid, sizeof(value));
    return value;
}

Output block(uint32_t uid, bool blocked) {
    const Status status = call(blocked ? bpfDisableNetwork : bpfEnableNetwork, asServiceUid(uid));
    return change(status, (blocked ? "block UID " : "unblock UID ") + std::to_string(uid),
                  {{"uid", uid}, {"action", blocked ? "block" : "unblock"}});
}

Output legacy(uint32_t uid, uint32_t rule) {
    const std::string action = rule == 1 ? "allow" : "block";
    return change(call(bpfLegacySetFirewall, asServiceUid(uid), static_cast<int>(rule)),
                  "legacy firewall " + action + " UID " + std::to_string(uid),
                  {{"uid", uid}, {"rule", rule}, {"action", action}});
}

// Every UID with an entry in either map.
Output list() {
    std::map<uint32_t, std::pair<Json, Json>> byUid;
    for (const auto& [uid, value] : readEntries(maps::kAppNetDisconnLimit))
        byUid[uid].first = value;
    for (const auto& [uid, value] : readEntries(maps::kAppVuskLimit)) byUid[uid].second = value;
    Rows rows{{"uid", "disconnected", "legacyBlocked"}, {}};
    for (const auto& [uid, values] : byUid) {
        rows.rows.push_back({uid, values.first, values.second});
    }
    return listing(rows, "UID");
}

}  // namespace

void addNetCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<NetOptions>();
    CLI::App* net = app.add_subcommand("net", "Per-app network blocking")->require_subcommand(1);

    CLI::App* listCommand = net->add_subcommand(
            "list",
            "The UIDs with an entry in the disconnect map or the legacy map, and its value");
    onShow(listCommand, ctx,
           {needs(maps::kAppNetDisconnLimit, Access::kReadOnly),
            needs(maps::kAppVuskLimit, Access::kReadOnly)},
           list);

    CLI::App* blockCommand = net->add_subcommand("block", "Cut the app off the network");
    addNumber(blockCommand, "UID", opts->uid, "The app's UID");
    const MapNeeds blocking = {needs(maps::kAppNetDisconnLimit, Access::kReadWrite)};
    onShow(blockCommand, ctx, blocking, [opts] { return block(opts->uid, true); });

    CLI::App* unblockCommand = net->add_subcommand(
            "unblock", "Let the app back on the network (exit 1 when it was not blocked)");
    addNumber(unblockCommand, "UID", opts->uid, "The app's UID");
    onShow(unblockCommand, ctx, blocking, [opts] { return block(opts->uid, false); });

    CLI::App* legacyCommand = net->add_subcommand("legacy", kLegacyHelp);
    addNumber(legacyCommand, "UID", opts->uid, "The app's UID");
    // The service takes the rule as int.
    addNumber(legacyCommand, "RULE", opts->rule, "1 allows, anything else blocks", INT_MAX);
    onShow(legacyCommand, ctx, {needs(maps::kAppVuskLimit, Access::kReadWrite)},
           [opts] { return legacy(opts->uid, opts->rule); });
}

}  // namespace kovra::tool
