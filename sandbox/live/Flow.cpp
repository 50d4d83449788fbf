#include <kovralive/Flow.h>

#include <set>
#include <sstream>

namespace kovra::traffic {

uint64_t parseNumber(const std::string& name, const std::string& text, uint64_t max) {
    uint64_t value = 0;
    bool fits = !text.empty() && (text.size() == 1 || text[0] != '0');
    for (size_t i = 0; fits && i < text.size(); ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - '0';
        fits = digit <= 9 && value <= (max - digit) / 10;
        value = value * 10 + digit;
    }
    if (!fits) {
        throw FlowError(name + "=" + text + ": expected a number 0.." + std::to_string(max) +
                        " (digits only, no leading zero)");
    }
    return value;
}

Flow parseFlow(const std::string& text) {
    Flow flow;
    bool hasUid = false, hasPeer = false;
    std::set<std::string> seen;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        const size_t eq = item.find('=');
        const std::string key = item.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
        if (!seen.insert(key).second) throw FlowError("`" + key + "` given twice");
        if (key == "uid") {
            flow.uid = static_cast<uint32_t>(parseNumber(key, value, UINT32_MAX));
            hasUid = true;
        } else if (key == "peer") {
            flow.peerUid = static_cast<uint32_t>(parseNumber(key, value, UINT32_MAX));
            hasPeer = true;
        } else if (key == "proto" && (value == "tcp" || value == "udp")) {
            flow.protocol = value == "tcp" ? Protocol::kTcp : Protocol::kUdp;
        } else if (key == "route" && (value == "lo" || value == "veth")) {
            flow.route = value == "lo" ? Route::kLoopback : Route::kVeth;
        } else if (key == "bytes") {
            flow.bytes = parseNumber(key, value, kMaxBytes);
        } else if (key == "chunk") {
            flow.chunk = static_cast<uint32_t>(parseNumber(key, value, 65000));
        } else if (key == "rate") {
            flow.rate = parseNumber(key, value, kMaxBytes);
        } else if (key == "conns") {
            flow.connections = static_cast<uint32_t>(parseNumber(key, value, kMaxConnections));
        } else if (key == "hold") {
            flow.holdMs = static_cast<uint32_t>(parseNumber(key, value, kMaxLimitMs));
        } else if (key == "keepalive") {
            flow.keepAlive = parseNumber(key, value, 1) == 1;
        } else if (key == "limit") {
            flow.limitMs = static_cast<uint32_t>(parseNumber(key, value, kMaxLimitMs));
        } else {
            throw FlowError("unknown flow setting `" + item + "`");
        }
    }
    if (!hasUid || !hasPeer) throw FlowError("a flow needs uid= and peer=");
    if (flow.chunk == 0 || flow.connections == 0 || flow.limitMs == 0) {
        throw FlowError("chunk, conns and limit must be at least 1");
    }
    return flow;
}

}  // namespace kovra::traffic
