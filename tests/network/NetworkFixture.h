#pragma once
// Fixture for the network tests: a loopback server as the base URL, a host bundle with an
// identifier, captured log lines (none may carry a secret), and a way to wait for a completion.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "support/LoopbackServer.h"
#include "support/TestSupport.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/network/Authorization.h"
#include "tarn/network/ServiceClient.h"

namespace tarn::test {

inline constexpr const char* kClientSecret = "s3cr3t-Client-Value";
inline constexpr const char* kServerToken = "tok-9f8e7d6c5b4a";
inline constexpr const char* kTokenAnswer =
    R"({"access_token":"tok-9f8e7d6c5b4a","expires_in":300,"refresh_expires_in":1800,)"
    R"("token_type":"bearer","not-before-policy":0,"scope":"email profile"})";

/// One completion of the service client (or of a plain continuation), as observed by a test.
struct Outcome {
    std::optional<Data> data;
    std::optional<ServiceError> error;
    std::optional<int> status;
    std::thread::id thread;
    const NetworkError* networkError() const { return error ? error->networkError() : nullptr; }
};

/// Collects completions; shared with the callback so it may outlive the test's wait.
class Pending {
  public:
    ServiceCompletion completion() {
        return [s = s_](auto data, auto error, auto status) {
            s->record({std::move(data), std::move(error), status, std::this_thread::get_id()});
        };
    }
    /// A continuation without arguments, recorded with the thread it ran on.
    std::function<void()> continuation() {
        return [s = s_] { s->record({{}, {}, {}, std::this_thread::get_id()}); };
    }
    /// The last outcome, once there is one; none after `timeout`.
    std::optional<Outcome> wait(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(s_->mutex);
        s_->changed.wait_for(lock, timeout, [&] { return s_->calls > 0; });
        return s_->outcome;
    }
    int calls() const {
        std::lock_guard lock(s_->mutex);
        return s_->calls;
    }

  private:
    struct State {
        void record(Outcome o) {
            std::lock_guard lock(mutex);
            outcome = std::move(o);
            ++calls;
            changed.notify_all();
        }
        std::mutex mutex;
        std::condition_variable changed;
        std::optional<Outcome> outcome;
        int calls = 0;
    };
    std::shared_ptr<State> s_ = std::make_shared<State>();
};

class NetworkTest : public TarnTest {
  protected:
    void SetUp() override {
        TarnTest::SetUp();
        logs_ = std::make_unique<LogCapture>();
        processSettings().baseUrl = server_->baseUrl();
        writeInfoPlist(bundleDir(), "com.example.host");
        Tarn::shared().applicationName = "HostApp";
    }
    void TearDown() override {
        // No log line may carry a secret or an authorization value, whatever the test did.
        for (const auto& line : logs_->lines())
            for (const char* secret : {kClientSecret, kServerToken, "stored-token-value"})
                EXPECT_EQ(line.find(secret), std::string::npos) << line;
        TarnTest::TearDown();  // Stops the client's transfers before the server goes.
        logs_.reset();
        server_.reset();
    }

    /// The facade's configuration with client credentials (or none), and optionally a ready-made
    /// authorization value.
    void configureCredentials(std::optional<std::string> authorization = std::nullopt,
                              bool withCredentials = true) {
        using Text = std::optional<std::string>;
        Tarn::shared().configuration = TarnInitConfig(
            Bundle::main(), "HostApp", std::nullopt, server_->baseUrl(), std::move(authorization),
            withCredentials ? Text("client-id-1") : std::nullopt,
            withCredentials ? Text(kClientSecret) : std::nullopt, false, false, false);
        AuthorizationRepository::shared().setTokenStatus(true);
    }

    /// POSTs `parameters` to `path` through the shared client.
    Pending post(const std::string& path, const nlohmann::json& parameters = {{"k", "v"}},
                 std::optional<bool> skipAuthorization = std::nullopt) {
        Pending pending;
        auto& client = ServiceClient::shared();
        client.request(client.url(path), parameters, skipAuthorization, pending.completion());
        return pending;
    }

    /// Runs the facade's token routine; the result sees its continuation.
    static Pending requestToken() {
        Pending done;
        Tarn::shared().requestAccessToken(done.continuation());
        return done;
    }

    /// "<tag> <message>;", the form of a captured log line.
    static std::string line(const std::string& tag, const std::string& message) {
        return tag + " " + message + ";";
    }

    std::unique_ptr<LoopbackServer> server_ = std::make_unique<LoopbackServer>();
    std::unique_ptr<LogCapture> logs_;
};

}  // namespace tarn::test
