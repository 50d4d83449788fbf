#include "Cli.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

namespace kovra::tool {

namespace {

bool isUnsignedNumber(const std::string& text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
    return !digits.empty() && digits.find_first_not_of(allowed) == std::string::npos &&
           (hex || digits == "0" || digits[0] != '0');
}

// "rxBytesPerSec" -> "RX_BYTES_PER_SEC".
std::string header(const std::string& column) {
    std::string out;
    for (char c : column) {
        if (isupper(static_cast<unsigned char>(c)) && !out.empty()) out += '_';
        out += static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

std::string cellText(const Json& cell) {
    if (cell.is_null()) return "-";
    if (cell.is_string()) return cell.get<std::string>();
    if (cell.is_boolean()) return cell.get<bool>() ? "yes" : "no";
    if (cell.is_number_float()) {
        char text[32];
        snprintf(text, sizeof(text), "%.0f", cell.get<double>());
        return text;
    }
    return cell.dump();
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
    return rowOf(path).name;
}

void allOrNone(CLI::App* command, std::vector<CLI::Option*> options, std::function<void()> more) {
    for (CLI::Option* option : options) option->required(false);
    command->parse_complete_callback([command, options, more] {
        const auto given = std::count_if(options.begin(), options.end(),
                                         [](const CLI::Option* o) { return o->count() > 0; });
        if (given != 0 && given != static_cast<long>(options.size())) {
            throw CLI::ValidationError(command->get_name(),
                                       "give all of its arguments to change, or none to show");
        }
        if (more) more();
    });
}

std::string failureText(int status, const std::string& what) {
    if (status == -1) return what + " failed (status -1)";
    return what + " failed: " + strerror(-status) + " (status " + std::to_string(status) + ")";
}

void check(int status, const std::string& what) {
    if (status < 0) throw ToolError(exitCodeForStatus(status), failureText(status, what));
}

Json Rows::toJson() const {
    Json out = Json::array();
    for (const auto& row : rows) {
        Json object = Json::object();
        for (size_t c = 0; c < columns.size(); ++c) object[columns[c]] = row[c];
        out.push_back(object);
    }
    return out;
}

void Rows::print() const {
    std::vector<std::vector<std::string>> text(1);
    for (const std::string& column : columns) text[0].push_back(header(column));
    std::vector<bool> rightAligned(columns.size(), true);
    for (const auto& row : rows) {
        text.emplace_back();
        for (size_t c = 0; c < columns.size(); ++c) {
            text.back().push_back(cellText(row[c]));
            if (!row[c].is_number() && !row[c].is_null()) rightAligned[c] = false;
        }
    }
    std::vector<size_t> width(columns.size(), 0);
    for (const auto& row : text) {
        for (size_t c = 0; c < columns.size(); ++c) width[c] = std::max(width[c], row[c].size());
    }
    for (const auto& row : text) {
        std::string line;
        for (size_t c = 0; c < columns.size(); ++c) {
            const std::string pad(width[c] - row[c].size(), ' ');
            if (c > 0) line += "  ";
            line += rightAligned[c] ? pad + row[c] : row[c] + (c + 1 < columns.size() ? pad : "");
        }
        printf("%s\n", line.c_str());
    }
}

void printJson(const Context& ctx, const Json& value) {
    printf("%s\n", value.dump(ctx.pretty ? 2 : -1).c_str());
}

void printRows(const Context& ctx, const Rows& rows, const std::string& noun) {
    if (ctx.jsonOutput()) {
        printJson(ctx, rows.toJson());
        return;
    }
    rows.print();
    printf("%s\n", countOf(rows.rows.size(), noun).c_str());
}

std::string countOf(size_t count, const std::string& noun) {
    if (count == 1) return "1 " + noun;
    const bool y = !noun.empty() && noun.back() == 'y';
    return std::to_string(count) + " " + (y ? noun.substr(0, noun.size() - 1) + "ies" : noun + "s");
}

int reportChange(const Context& ctx, int status, const std::string& what, Json details,
                 const std::vector<std::string>& report) {
    // What a change removed is told even when the service then reports a failure.
    if (ctx.jsonOutput()) {
        details["status"] = status;
        if (status < 0) details["error"] = failureText(status, what);
        printJson(ctx, details);
    } else {
        for (const std::string& line : report) printf("%s\n", line.c_str());
        if (status == 0) printf("%s: ok\n", what.c_str());
    }
    if (status < 0) throw ToolError(exitCodeForStatus(status), failureText(status, what), true);
    return kExitOk;
}

Json entryCount(const android::bpf::PinnedMapInfo& row) {
    const MapState state = inspectMap(row, Access::kReadOnly);
    return state.entries ? Json(*state.entries) : Json(nullptr);
}

}  // namespace kovra::tool
