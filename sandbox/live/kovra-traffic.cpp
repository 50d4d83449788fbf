// kovra-traffic: the desk's traffic driver, run inside `kovractl sandbox --live`.
//
//   kovra-traffic [--json FILE] flow FLOW...  run the flows at once, print what they sent as a
//                                            table, and as JSON into FILE ("-": instead of it)
//   kovra-traffic freeze UID | thaw UID   mark an app frozen on the desk, or not
//
// FLOW: uid=N,peer=N[,proto=tcp|udp][,route=lo|veth][,bytes=N][,chunk=N][,rate=BYTES_PER_S]
//       [,conns=N][,hold=MS][,keepalive=0|1][,limit=MS]
// Exit codes: 0 done (a flow's socket error is shown, not fatal), 2 usage, 3 environment.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "Live.h"
#include "Traffic.h"

namespace {

constexpr char kUsage[] =
        "usage: kovra-traffic [--json FILE|-] flow FLOW...\n"
        "       kovra-traffic freeze UID | thaw UID\n"
        "FLOW: uid=N,peer=N[,proto=tcp|udp][,route=lo|veth][,bytes=N][,chunk=N]"
        "[,rate=BYTES_PER_S][,conns=N][,hold=MS][,keepalive=0|1][,limit=MS]\n";

int usage(const std::string& problem) {
    fprintf(stderr, "kovra-traffic: %s\n%s", problem.c_str(), kUsage);
    return 2;
}

int environment(const std::string& problem) {
    fprintf(stderr, "kovra-traffic: %s\n", problem.c_str());
    return 3;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string jsonFile;
    if (!args.empty() && args[0] == "--json") {
        if (args.size() < 2) return usage("--json needs a FILE, or - for standard output");
        jsonFile = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) return usage("no command");
    const char* cgroup = getenv(kovra::live::kCgroupEnv);
    if (args[0] == "freeze" || args[0] == "thaw") {
        if (args.size() != 2) return usage(args[0] + " takes one UID");
        char* end = nullptr;
        const unsigned long uid = strtoul(args[1].c_str(), &end, 10);
        if (*end != '\0' || args[1].empty() || uid > UINT32_MAX) return usage("not a UID: " + args[1]);
        try {
            kovra::live::setFrozen(static_cast<uint32_t>(uid), args[0] == "freeze");
        } catch (const kovra::sandbox::Error& e) {
            return environment(std::string(e.what()) + " (is this a live sandbox?)");
        }
        printf("UID %lu %s\n", uid, args[0] == "freeze" ? "frozen" : "thawed");
        return 0;
    }
    if (args[0] != "flow") return usage("unknown command `" + args[0] + "`");
    if (args.size() < 2) return usage("flow needs at least one FLOW");
    std::vector<kovra::traffic::Flow> flows;
    try {
        for (size_t i = 1; i < args.size(); ++i) flows.push_back(kovra::traffic::parseFlow(args[i]));
    } catch (const std::invalid_argument& e) {
        return usage(e.what());
    }
    if (cgroup == nullptr || *cgroup == '\0') {
        return environment(std::string(kovra::live::kCgroupEnv) +
                           " is not set; run inside `kovractl sandbox --live`");
    }
    try {
        const auto sent = kovra::traffic::run(flows, cgroup);
        if (jsonFile != "-") fputs(kovra::traffic::table(flows, sent).c_str(), stdout);
        if (jsonFile == "-") fputs(kovra::traffic::json(flows, sent).c_str(), stdout);
        if (!jsonFile.empty() && jsonFile != "-") {
            FILE* out = fopen(jsonFile.c_str(), "w");
            if (out == nullptr) return environment("cannot write " + jsonFile + ": " + strerror(errno));
            fputs(kovra::traffic::json(flows, sent).c_str(), out);
            fclose(out);
        }
    } catch (const std::exception& e) {
        return environment(e.what());
    }
    return 0;
}
