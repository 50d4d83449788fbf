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

#include "Output.h"
#include "ToolError.h"

namespace {

constexpr char kUsage[] =
        "usage: kovra-traffic [--json FILE|-] flow FLOW...\n"
        "       kovra-traffic freeze UID | thaw UID\n"
        "FLOW: uid=N,peer=N[,proto=tcp|udp][,route=lo|veth][,bytes=N][,chunk=N]"
        "[,rate=BYTES_PER_S][,conns=N][,hold=MS][,keepalive=0|1][,limit=MS]\n";

using kovra::tool::Format;
using kovra::tool::Json;
using kovra::tool::kExitEnvironment;
using kovra::tool::kExitOutput;
using kovra::tool::kExitUsage;
using kovra::traffic::Flow;
using kovra::traffic::Sent;

int usage(const std::string& problem) {
    fprintf(stderr, "kovra-traffic: %s\n%s", problem.c_str(), kUsage);
    return kExitUsage;
}

int environment(const std::string& problem) {
    fprintf(stderr, "kovra-traffic: %s\n", problem.c_str());
    return kExitEnvironment;
}

volatile sig_atomic_t stoppedBy = 0;

void stopFlows(int sig) {
    stoppedBy = sig;
    kovra::traffic::stop();
}

// Flushes and closes `out`; false (errno set) when anything written to it was lost.
bool written(FILE* out) {
    const bool ok = fflush(out) == 0 && !ferror(out);
    const int err = errno;
    const bool closed = out == stdout || fclose(out) == 0;
    if (!ok) errno = err;
    return ok && closed;
}

// The flows and what they sent: one row each, a table for a person and JSON for a program.
kovra::tool::Output report(const std::vector<Flow>& flows, const std::vector<Sent>& sent) {
    kovra::tool::Rows rows{{"flow", "uid", "peer", "proto", "route", "ifindex", "rate",
                            "connections", "bytes", "messages", "retransmitted", "received",
                            "seconds", "cookie", "port", "error", "peerError"},
                           {}};
    for (size_t i = 0; i < flows.size(); ++i) {
        const Flow& f = flows[i];
        const Sent& s = sent[i];
        const auto text = [](int error) {
            return error == 0 ? Json(nullptr) : Json(strerror(error));
        };
        rows.rows.push_back(
                {i, f.uid, f.peerUid, f.protocol == kovra::traffic::Protocol::kTcp ? "tcp" : "udp",
                 f.route == kovra::traffic::Route::kLoopback ? "lo" : "veth", s.ifindex, f.rate,
                 s.connections, s.bytes, s.messages, s.retransmitted, s.received, s.seconds,
                 s.cookie, s.port, text(s.error), text(s.peerError)});
    }
    kovra::tool::Output out{rows.toJson()};
    return std::move(out.table(rows));
}

int runFlows(const std::vector<kovra::traffic::Flow>& flows, const char* cgroup,
             const std::string& jsonFile) {
    // An unwritable FILE is found before any flow runs.
    FILE* json = nullptr;
    if (!jsonFile.empty() && jsonFile != "-" && (json = fopen(jsonFile.c_str(), "w")) == nullptr) {
        fprintf(stderr, "kovra-traffic: cannot write %s: %s\n", jsonFile.c_str(), strerror(errno));
        return kExitOutput;
    }
    struct sigaction action {};
    action.sa_handler = stopFlows;
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) sigaction(sig, &action, nullptr);
    std::vector<kovra::traffic::Sent> sent;
    try {
        sent = kovra::traffic::run(flows, cgroup);
    } catch (const std::exception& e) {
        if (json != nullptr) fclose(json);
        return environment(e.what());
    }
    const kovra::tool::Output out = report(flows, sent);
    kovra::tool::render(jsonFile == "-" ? Format::kPrettyJson : Format::kTable, out);
    if (json != nullptr) {
        kovra::tool::render(Format::kPrettyJson, out, json);
        if (!written(json)) {
            fprintf(stderr, "kovra-traffic: writing %s failed: %s\n", jsonFile.c_str(),
                    strerror(errno));
            return kExitOutput;
        }
    }
    return stoppedBy != 0 ? 128 + stoppedBy : 0;
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
        } catch (const std::invalid_argument& e) {
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
    } catch (const std::invalid_argument& e) {
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
