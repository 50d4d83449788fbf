#include "Output.h"

namespace kovra::tool {
namespace {

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

void printTable(const Rows& rows, FILE* stream) {
    std::vector<std::vector<std::string>> text(1);
    for (const std::string& column : rows.columns) text[0].push_back(header(column));
    std::vector<bool> rightAligned(rows.columns.size(), true);
    for (const auto& row : rows.rows) {
        text.emplace_back();
        for (size_t c = 0; c < rows.columns.size(); ++c) {
            text.back().push_back(cellText(row[c]));
            if (!row[c].is_number() && !row[c].is_null()) rightAligned[c] = false;
        }
    }
    std::vector<size_t> width(rows.columns.size(), 0);
    for (const auto& row : text) {
        for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    }
    for (const auto& row : text) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            const std::string pad(width[c] - row[c].size(), ' ');
            if (c > 0) line += "  ";
            line += rightAligned[c] ? pad + row[c] : row[c] + (c + 1 < row.size() ? pad : "");
        }
        fprintf(stream, "%s\n", line.c_str());
    }
}

}  // namespace

Json Rows::toJson() const {
    Json out = Json::array();
    for (const auto& row : rows) {
        Json object = Json::object();
        for (size_t c = 0; c < columns.size(); ++c) object[columns[c]] = row[c];
        out.push_back(object);
    }
    return out;
}

Output& Output::line(std::string text) {
    this->text.emplace_back(std::move(text));
    return *this;
}

Output& Output::table(Rows rows) {
    text.emplace_back(std::move(rows));
    return *this;
}

int render(Format format, const Output& output, FILE* stream) {
    if (format != Format::kTable) {
        fprintf(stream, "%s\n", output.json.dump(format == Format::kPrettyJson ? 2 : -1).c_str());
    } else {
        for (const auto& block : output.text) {
            if (const auto* line = std::get_if<std::string>(&block)) {
                fprintf(stream, "%s\n", line->c_str());
            } else {
                printTable(std::get<Rows>(block), stream);
            }
        }
    }
    if (output.failure) throw *output.failure;
    return output.exitCode;
}

Output listing(const Rows& rows, const std::string& noun) {
    Output out{rows.toJson()};
    return std::move(out.table(rows).line(countOf(rows.rows.size(), noun)));
}

std::string countOf(size_t count, const std::string& noun) {
    if (count == 1) return "1 " + noun;
    const bool y = !noun.empty() && noun.back() == 'y';
    return std::to_string(count) + " " + (y ? noun.substr(0, noun.size() - 1) + "ies" : noun + "s");
}

}  // namespace kovra::tool
