#pragma once
// A library wired to a loopback server: the service file points at it, the token, in-app and event
// endpoints answer from a script, and the main queue is advanced by hand.

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/LoopbackServer.h"
#include "support/TestSupport.h"
#include "tarn/core/Types.h"

namespace tarn::test {

inline constexpr const char* kTokenPath = "/core/auth/token";
inline constexpr const char* kInAppPath = "/orbital-harbor/sdk-public/inapp-communication-wrapper";
inline constexpr const char* kEventPath = "/orbital-harbor/sdk-public/event/mobile";

/// A token answer the library accepts.
std::string tokenAnswer(const std::string& token = "T1", const std::string& type = "Bearer");

class PipelineTest : public TarnTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// A host configuration for `actorId` (none: a guest).
    TarnInitConfig hostConfig(std::optional<std::string> actorId = std::nullopt, bool force = false,
                              bool lifecycleAuto = false, bool activityTracking = false) const;
    /// Calls `initialize` and advances the main queue until the status leaves `initializing`.
    InitializeStatusType initializeAndWait(const TarnInitConfig& config);
    /// Advances the main queue until the event endpoint has received `n` events.
    bool drainUntil(std::size_t n) {
        return pumpUntil([&] { return server_->count(kEventPath) >= n; });
    }
    /// The event bodies the server received, in arrival order.
    std::vector<nlohmann::json> receivedEvents() const;
    std::vector<std::string> receivedNames() const;
    /// Rows in the local queue (-1 when it cannot be read), read with SQLite directly.
    int storedEventCount() const;
    /// The stored event bodies, oldest first, read with SQLite directly.
    std::vector<nlohmann::json> storedEvents() const;
    /// Inserts a raw row into the local queue, bypassing the library.
    void insertRawEvent(const std::string& text, double timestamp) const;

    std::unique_ptr<LoopbackServer> server_;
};

}  // namespace tarn::test
