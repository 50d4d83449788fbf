// kovra-traffic: the desk's traffic driver, run inside `kovractl sandbox --live`.
//
//   kovra-traffic [--json FILE] flow FLOW...  run the flows at once, print what they sent as a
//                                            table, and as JSON into FILE ("-": instead of it)
//   kovra-traffic freeze UID | thaw UID   mark an app frozen on the desk, or not
//
// FLOW: uid=N,peer=N[,proto=tcp|udp][,route=lo|veth][,bytes=N][,chunk=N][,rate=BYTES_PER_S]
//       [,conns=N][,hold=MS][,keepalive=0|1][,limit=MS]
// SIGINT, SIGTERM, SIGQUIT and SIGHUP end every flow early; what ran is reported all the same.
// Exit codes, kovractl's (ToolError.h): 0 done (a flow's socket error is shown, not fatal),
// 2 usage, 3 environment, 5 the output could not be written; 128 + N after signal N ended the
// flows.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <kovralive/Live.h>
#include <kovralive/Traffic.h>

#include "Driver.h"
#include "ToolError.h"

namespace {

constexpr char kUsage[] =
        "usage: kovra-traffic [--json FILE|-] flow FLOW...\n"
        "       kovra-traffic freeze UID | thaw UID\n"
        "FLOW: uid=N,peer=N[,proto=tcp|udp][,route=lo|veth][,bytes=N][,chunk=N]"
        "[,rate=BYTES_PER_S][,conns=N][,hold=MS][,keepalive=0|1][,limit=MS]\n";

using kovra::tool::kExitOutput;
using kovra::tool::kExitUsage;
using kovra::traffic::environment;
using kovra::traffic::runFlows;
using kovra::traffic::written;

int usage(const std::string& problem) {
    fprintf(stderr, "kovra-traffic: %s\n%s", problem.c_str(), kUsage);
    return kExitUsage;
}

int run(std::vector<std::string> args) {
    std::string jsonFile;
    if (!args.empty() && args[0] == "--json") {
        if (args.size() < 2) return usage("--json needs a FILE, or - for standard output");
        jsonFile = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) return usage("no command");
    if (args[0] == "freeze" || args[0] == "thaw") {
        if (args.size() != 2) return usage(args[0] + " takes one UID");
        uint32_t uid;
        try {
            uid = static_cast<uint32_t>(kovra::traffic::parseNumber("UID", args[1], UINT32_MAX));
            kovra::live::setFrozen(uid, args[0] == "freeze");
        } catch (const kovra::traffic::FlowError& e) {
            return usage(e.what());
        } catch (const kovra::sandbox::Error& e) {
            return environment(std::string(e.what()) + " (is this a live sandbox?)");
        }
        printf("UID %u %s\n", uid, args[0] == "freeze" ? "frozen" : "thawed");
        return 0;
    }
    if (args[0] != "flow") return usage("unknown command `" + args[0] + "`");
    if (args.size() < 2) return usage("flow needs at least one FLOW");
    std::vector<kovra::traffic::Flow> flows;
    try {
        for (size_t i = 1; i < args.size(); ++i)
            flows.push_back(kovra::traffic::parseFlow(args[i]));
    } catch (const kovra::traffic::FlowError& e) {
        return usage(e.what());
    }
    const char* cgroup = getenv(kovra::live::kCgroupEnv);
    if (cgroup == nullptr || *cgroup == '\0') {
        return environment(std::string(kovra::live::kCgroupEnv) +
                           " is not set; run inside `kovractl sandbox --live`");
    }
    return runFlows(flows, cgroup, jsonFile);
}

}  // namespace

int main(int argc, char** argv) {
    // A closed pipe is an output failure like any other, reported rather than a silent death.
    signal(SIGPIPE, SIG_IGN);
    const int code = run(std::vector<std::string>(argv + 1, argv + argc));
    // Every write to stdout is checked here, at the end: a full disk or a closed stdout fails.
    if (!written(stdout)) {
        fprintf(stderr, "kovra-traffic: writing the output failed: %s\n", strerror(errno));
        return kExitOutput;
    }
    return code;
}
