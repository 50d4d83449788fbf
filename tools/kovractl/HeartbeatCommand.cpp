// kovractl wakeup hb-len: the IM heartbeat lengths the wake-up detector knows apps by.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

Output listHeartbeats() {
    Rows rows{{"uid", "hbLen"}, {}};
    for (const auto& [uid, length] : readEntries(maps::kImAppHbLen))
        rows.rows.push_back({uid, length});
    std::sort(rows.rows.begin(), rows.rows.end());
    return listing(rows, "heartbeat length");
}

Output addHeartbeat(uint32_t uid, uint32_t hbLen) {
    return change(call(bpfAddAppImHbLenMap, uid, hbLen),
                  "set the heartbeat length of UID " + std::to_string(uid) + " to " +
                          std::to_string(hbLen),
                  {{"uid", uid}, {"hbLen", hbLen}});
}

// The arguments of `hb-len UID LEN`.
struct HeartbeatOptions {
    uint32_t uid = 0;
    uint32_t hbLen = 0;
};

}  // namespace

void addHeartbeatCommand(CLI::App* wakeup, Context& ctx, const CLI::Option* counterNames) {
    auto opts = std::make_shared<HeartbeatOptions>();
    CLI::App* hbLen = wakeup->add_subcommand(
            "hb-len", "Without arguments, list the IM heartbeat lengths; with them, register one");
    CLI::Option* uid = addNumber(hbLen, "UID", opts->uid, "The app's UID");
    CLI::Option* length = addNumber(hbLen, "LEN", opts->hbLen,
                                    "The heartbeat length, as the kernel side expects it");
    allOrNone(hbLen, {uid, length}, [counterNames] {
        if (counterNames->count() > 0) {
            throw CLI::ValidationError("hb-len", "takes no counter map names before it");
        }
    });
    onShow(
            hbLen, ctx,
            [uid] {
                return MapNeeds{needs(maps::kImAppHbLen,
                                      uid->count() > 0 ? Access::kReadWrite : Access::kReadOnly)};
            },
            [opts, uid] {
                return uid->count() > 0 ? addHeartbeat(opts->uid, opts->hbLen) : listHeartbeats();
            });
}

}  // namespace kovra::tool
