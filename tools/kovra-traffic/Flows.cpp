// A run of flows as kovra-traffic makes it: every flow at once, ended early by a stopping
// signal, and what each sent reported as a table, and as JSON into a file or instead of it.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <kovralive/Traffic.h>

#include "Driver.h"
#include "Output.h"
#include "ToolError.h"

namespace kovra::traffic {
namespace {

using tool::Format;
using tool::Json;
using tool::kExitEnvironment;
using tool::kExitOutput;

volatile sig_atomic_t stoppedBy = 0;

void stopFlows(int sig) {
    stoppedBy = sig;
    stop();
}

// The flows and what they sent: one row each, a table for a person and JSON for a program.
tool::Output report(const std::vector<Flow>& flows, const std::vector<Sent>& sent) {
    tool::Rows rows{{"flow", "uid", "peer", "proto", "route", "ifindex", "rate", "connections",
                     "bytes", "messages", "retransmitted", "received", "seconds", "cookie", "port",
                     "error", "peerError"},
                    {}};
    for (size_t i = 0; i < flows.size(); ++i) {
        const Flow& f = flows[i];
        const Sent& s = sent[i];
        const auto text = [](int error) {
            return error == 0 ? Json(nullptr) : Json(strerror(error));
        };
        rows.rows.push_back({i, f.uid, f.peerUid, f.protocol == Protocol::kTcp ? "tcp" : "udp",
                             f.route == Route::kLoopback ? "lo" : "veth", s.ifindex, f.rate,
                             s.connections, s.bytes, s.messages, s.retransmitted, s.received,
                             s.seconds, s.cookie, s.port, text(s.error), text(s.peerError)});
    }
    tool::Output out{rows.toJson()};
    return std::move(out.table(rows));
}

}  // namespace

int environment(const std::string& problem) {
    fprintf(stderr, "kovra-traffic: %s\n", problem.c_str());
    return kExitEnvironment;
}

// Flushes and closes `out`; false (errno set) when anything written to it was lost.
bool written(FILE* out) {
    const bool ok = fflush(out) == 0 && !ferror(out);
    const int err = errno;
    const bool closed = out == stdout || fclose(out) == 0;
    if (!ok) errno = err;
    return ok && closed;
}

int runFlows(const std::vector<Flow>& flows, const char* cgroup, const std::string& jsonFile) {
    // An unwritable FILE is found before any flow runs.
    FILE* json = nullptr;
    if (!jsonFile.empty() && jsonFile != "-" && (json = fopen(jsonFile.c_str(), "w")) == nullptr) {
        fprintf(stderr, "kovra-traffic: cannot write %s: %s\n", jsonFile.c_str(), strerror(errno));
        return kExitOutput;
    }
    struct sigaction action {};
    action.sa_handler = stopFlows;
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) sigaction(sig, &action, nullptr);
    std::vector<Sent> sent;
    try {
        sent = run(flows, cgroup);
    } catch (const std::exception& e) {
        if (json != nullptr) fclose(json);
        return environment(e.what());
    }
    const tool::Output out = report(flows, sent);
    tool::render(jsonFile == "-" ? Format::kPrettyJson : Format::kTable, out);
    if (json != nullptr) {
        tool::render(Format::kPrettyJson, out, json);
        if (!written(json)) {
            fprintf(stderr, "kovra-traffic: writing %s failed: %s\n", jsonFile.c_str(),
                    strerror(errno));
            return kExitOutput;
        }
    }
    return stoppedBy != 0 ? 128 + stoppedBy : 0;
}

}  // namespace kovra::traffic
