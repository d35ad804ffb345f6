// `tarn check event FILE`: the dev server's body check, without a server.
#include <sstream>

#include "Commands.h"
#include "Output.h"
#include "devserver/EventCheck.h"

namespace tarn::cli {

int runCheckEvent(const std::string& file) {
    std::string text;
    std::string error;
    if (!readWholeFile(file, text, error)) {
        emit(stdout, file + ": error: cannot read the file: " + error + "\n");
        return 1;
    }
    // One body, pretty-printed or not, or a list of bodies; otherwise one body per line.
    std::vector<std::pair<std::string, nlohmann::json>> bodies;
    auto whole = nlohmann::json::parse(text, nullptr, false);
    if (whole.is_object()) {
        bodies.emplace_back(file, std::move(whole));
    } else if (whole.is_array()) {
        for (std::size_t i = 0; i < whole.size(); ++i) {
            bodies.emplace_back(file + "[" + std::to_string(i) + "]", std::move(whole[i]));
        }
    } else {
        std::istringstream lines(text);
        std::string line;
        for (std::size_t number = 1; std::getline(lines, line); ++number) {
            if (line.find_first_not_of(" \t\r") == std::string::npos) {
                continue;
            }
            auto body = nlohmann::json::parse(line, nullptr, false);
            bodies.emplace_back(file + ":" + std::to_string(number), std::move(body));
        }
    }
    std::string out;
    std::size_t faulty = 0;
    for (const auto& [where, body] : bodies) {
        auto problems = body.is_discarded() ? std::vector<devserver::BodyProblem>{{"", "not JSON"}}
                                            : devserver::checkEventBody(body);
        std::string name = body.is_object() && body.contains("name") && body["name"].is_string()
                               ? " \"" + body["name"].get<std::string>() + "\""
                               : "";
        if (!problems.empty()) {
            ++faulty;
        }
        for (const auto& problem : problems) {
            out += where + name + ": error: " + problem.text() + "\n";
        }
    }
    std::string counts = std::to_string(bodies.size()) + " event" +
                         (bodies.size() == 1 ? "" : "s") + ", " + std::to_string(faulty) +
                         " with problems";
    if (bodies.empty()) {
        out += file + ": INVALID (no event body in the file)\n";
        faulty = 1;
    } else {
        out += file + (faulty ? ": INVALID (" : ": OK (") + counts + ")\n";
    }
    emit(stdout, out);
    return faulty ? 1 : 0;
}

}  // namespace tarn::cli
