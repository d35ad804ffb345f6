#pragma once
// The check of an event body against what the library sends for that event: the primary keys, the
// "parameters" object with the record's own keys, the device and SDK sections, the in-app events'
// communication keys and the push events' keys. Used by the dev server on every event it receives
// and by `tarn check event`.

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace tarn::devserver {

/// One fault of a body: where ("parameters.timestamp", "journeys[1]", "" for the whole body) and
/// what ("missing (a string)", "a number, expected a string", "not sent by the library for ...").
struct BodyProblem {
    std::string path;
    std::string message;
    /// "path: message".
    std::string text() const;
};

/// The faults of one event body; empty when the library could have sent it. Custom and login
/// events may carry any further "parameters" keys (the host's own); every other event is held to
/// exactly its keys. Never throws.
std::vector<BodyProblem> checkEventBody(const nlohmann::json& body);

/// As `checkEventBody`, for the body's text; text that is not JSON is one problem at path "".
std::vector<BodyProblem> checkEventText(std::string_view text);

}  // namespace tarn::devserver
