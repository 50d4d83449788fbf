#include "Cli.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <map>

namespace kovra::tool {

namespace {

bool isUnsignedNumber(const std::string& text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
    return !digits.empty() && digits.find_first_not_of(allowed) == std::string::npos &&
           (hex || digits == "0" || digits[0] != '0');
}

// What each option offers to the completion, filled while the commands are added.
std::map<const CLI::Option*, std::vector<std::string>>& valuesOffered() {
    static std::map<const CLI::Option*, std::vector<std::string>> values;
    return values;
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

void offerValues(const CLI::Option* option, std::vector<std::string> values) {
    valuesOffered()[option] = std::move(values);
}

const std::vector<std::string>& offeredValues(const CLI::Option* option) {
    static const std::vector<std::string> none;
    const auto found = valuesOffered().find(option);
    return found == valuesOffered().end() ? none : found->second;
}

std::string failureText(Status status, const std::string& what) {
    const int error = status.value == -1 ? status.error : -status.value;
    return what + " failed" + (error != 0 ? std::string(": ") + strerror(error) : "") +
           " (status " + std::to_string(status.value) + ")";
}

void check(Status status, const std::string& what) {
    if (status.value < 0) {
        throw ToolError(exitCodeForStatus(status.value), failureText(status, what));
    }
}

Output change(Status status, const std::string& what, Json details,
              const std::vector<std::string>& report) {
    details["status"] = status.value;
    if (status.value < 0) details["error"] = failureText(status, what);
    Output out{details};
    for (const std::string& line : report) out.line(line);
    if (status.value == 0) out.line(what + ": ok");
    if (status.value < 0) {
        out.failure.emplace(exitCodeForStatus(status.value), failureText(status, what), true);
    }
    return out;
}

Json entryCount(const android::bpf::PinnedMapInfo& row) {
    const MapState state = inspectMap(row, Access::kReadOnly);
    return state.entries ? Json(*state.entries) : Json(nullptr);
}

}  // namespace kovra::tool
