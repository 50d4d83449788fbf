#include "Cli.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace kovra::tool {

namespace {

// Decimal without a leading zero, or 0x-hexadecimal. Octal is refused: a UID written with a
// leading zero must not silently change its value.
bool isUnsignedNumber(const std::string& text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
    return !digits.empty() && digits.find_first_not_of(allowed) == std::string::npos &&
           (hex || digits == "0" || digits[0] != '0');
}

bool isNumeric(const std::string& cell) {
    return !cell.empty() && std::all_of(cell.begin(), cell.end(), [](char c) {
        return isdigit(static_cast<unsigned char>(c)) || c == '-';
    });
}

}  // namespace

CLI::Validator unsignedNumber(uint64_t max) {
    return CLI::Validator(
            [max](std::string& text) -> std::string {
                if (!isUnsignedNumber(text)) {
                    return "'" + text + "' is not an unsigned decimal or 0x-hexadecimal number";
                }
                errno = 0;
                const unsigned long long value = strtoull(text.c_str(), nullptr, 0);
                if (errno == ERANGE || value > max) {
                    return "'" + text + "' is out of range (0.." + std::to_string(max) + ")";
                }
                return "";
            },
            "NUMBER");
}

std::string mapName(const char* path) {
    std::string name(path);
    name = name.substr(name.rfind('/') + 1);
    for (const char* prefix : {"map_kovra-netd_", "map_netd_"}) {
        if (name.rfind(prefix, 0) == 0) name = name.substr(strlen(prefix));
    }
    const std::string suffix = "_map";
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        name.resize(name.size() - suffix.size());
    }
    return name;
}

void requirePinned(android::bpf::MapFamily family) {
    for (const auto& row : android::bpf::kPinnedMaps) {
        if (row.family != family || access(row.path, F_OK) == 0) continue;
        throw ToolError(kExitEnvironment,
                        std::string(row.path) + " is not pinned (" + strerror(errno) +
                                "): is the kernel side loaded? `kovractl sandbox` gives a private "
                                "set of maps to try things on");
    }
}

int finish(int status, const std::string& what) {
    const int code = exitCodeForStatus(status);
    if (status == -1) {
        fprintf(stderr, "kovractl: %s failed (status -1)\n", what.c_str());
    } else if (status < 0) {
        fprintf(stderr, "kovractl: %s failed: %s (status %d)\n", what.c_str(), strerror(-status),
                status);
    }
    return code;
}

int reportChange(const Context& ctx, int status, const std::string& what, Json details) {
    if (status == 0) {
        if (ctx.json) {
            details["status"] = status;
            printJson(details);
        } else {
            printf("%s: ok\n", what.c_str());
        }
    }
    return finish(status, what);
}

std::string countOf(size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void printJson(const Json& value) {
    std::cout << value.dump(2) << '\n';
}

void Table::print() const {
    const size_t columns = mRows.front().size();
    std::vector<size_t> width(columns, 0);
    std::vector<bool> rightAligned(columns, true);
    for (size_t row = 0; row < mRows.size(); ++row) {
        for (size_t c = 0; c < columns; ++c) {
            width[c] = std::max(width[c], mRows[row][c].size());
            if (row > 0 && !isNumeric(mRows[row][c])) rightAligned[c] = false;
        }
    }
    for (const auto& row : mRows) {
        std::string line;
        for (size_t c = 0; c < columns; ++c) {
            const std::string pad(width[c] - row[c].size(), ' ');
            if (c > 0) line += "  ";
            line += rightAligned[c] ? pad + row[c] : row[c] + (c + 1 < columns ? pad : "");
        }
        std::cout << line << '\n';
    }
}

}  // namespace kovra::tool
