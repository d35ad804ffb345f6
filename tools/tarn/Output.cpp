#include "Output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tarn::cli {

std::string Table::render() const {
    std::vector<std::size_t> widths(header_.size(), 0);
    auto measure = [&](const std::vector<std::string>& row) {
        for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    };
    measure(header_);
    for (const auto& row : rows_) {
        measure(row);
    }
    auto line = [&](const std::vector<std::string>& row) {
        std::string text;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            std::string cell = i < row.size() ? row[i] : "";
            text += cell;
            if (i + 1 < widths.size()) {
                text += std::string(widths[i] - cell.size() + 2, ' ');
            }
        }
        while (!text.empty() && text.back() == ' ') {
            text.pop_back();
        }
        return text + "\n";
    };
    std::string out = line(header_);
    for (const auto& row : rows_) {
        out += line(row);
    }
    return out;
}

std::string describeType(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::null:
            return "null";
        case nlohmann::json::value_t::boolean:
            return "a boolean";
        case nlohmann::json::value_t::number_integer:
        case nlohmann::json::value_t::number_unsigned:
            return "an integer";
        case nlohmann::json::value_t::number_float:
            return "a real number";
        case nlohmann::json::value_t::string:
            return "a string";
        case nlohmann::json::value_t::array:
            return "an array";
        case nlohmann::json::value_t::object:
            if (value.size() == 1 && value.contains("$data")) {
                return "data";
            }
            if (value.size() == 1 && value.contains("$date")) {
                return "a date";
            }
            return "a dictionary";
        default:
            return "an unsupported value";
    }
}

bool readWholeFile(const std::string& path, std::string& content, std::string& error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        error = "is a directory";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::strerror(errno);
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) {
        error = "read error";
        return false;
    }
    content = buffer.str();
    return true;
}

void emit(std::FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

}  // namespace tarn::cli
