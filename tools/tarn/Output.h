#pragma once
// Small output helpers shared by the subcommands of the `tarn` command.

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tarn::cli {

/// A plain text table: a header row, then rows, columns padded with two spaces between them.
class Table {
  public:
    explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    bool empty() const { return rows_.empty(); }
    /// The table as text, one line per row, each ending in a newline.
    std::string render() const;

  private:
    std::vector<std::string> header_;
    std::vector<std::vector<std::string>> rows_;
};

/// "an integer", "a string", "a dictionary", ... for messages about a JSON value read from a
/// property list or a JSON file ("data" and "a date" for the property-list forms).
std::string describeType(const nlohmann::json& value);

/// The whole content of `path`; false with `error` set when it cannot be read.
bool readWholeFile(const std::string& path, std::string& content, std::string& error);

/// Writes `text` to `stream` and flushes it, in one call.
void emit(std::FILE* stream, const std::string& text);

}  // namespace tarn::cli
