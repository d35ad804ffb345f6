#pragma once
// The helper program that tests start as a second process: `tarn_test_helper <command> args...`.
// TARN_HELPER_COMMAND(name, arguments) registers a command; main checks the number of arguments
// and, for commands that take any, sets the data folder from the first one ("-": the default).

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tarn/core/Log.h"
#include "tarn/core/Types.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn::test {

using HelperCommand = std::function<int(const std::vector<std::string>& args)>;
std::map<std::string, std::pair<std::size_t, HelperCommand>>& helperCommands();

struct HelperRegistration {
    HelperRegistration(const std::string& name, std::size_t arguments, HelperCommand command) {
        helperCommands()[name] = {arguments, std::move(command)};
    }
};

/// Writes `line` in one write and flushes: the library's log lines from other threads go to the
/// same stream.
inline void say(const std::string& line) {
    std::string text = line + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

/// Polls `done` every 10 ms for up to `limit`; whether it held.
inline bool waitUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    for (auto end = std::chrono::steady_clock::now() + limit;
         !done() && std::chrono::steady_clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

/// Calls `seen` with the message of every log line, on the thread that logs it.
inline void onLogMessage(std::function<void(const std::string&)> seen) {
    NotificationCenter::defaultCenter().addObserver(
        kTarnLogNotification, [seen = std::move(seen)](const Notification& n) {
            if (const auto* record = std::any_cast<TarnLog>(&n.object))
                seen(record->logMessage);
        });
}

/// A host's configuration for the main bundle and `actor` (none: a guest), all switches off.
inline TarnInitConfig hostConfig(std::optional<std::string> actor) {
    return TarnInitConfig(Bundle::main(), "HostApp", std::move(actor), std::nullopt, std::nullopt,
                          std::nullopt, std::nullopt, false, false, false);
}

}  // namespace tarn::test

#define TARN_HELPER_COMMAND(name, arguments)                                             \
    static int helper_##name(const std::vector<std::string>& args);                      \
    static ::tarn::test::HelperRegistration helper_registration_##name(#name, arguments, \
                                                                       helper_##name);   \
    static int helper_##name([[maybe_unused]] const std::vector<std::string>& args)
