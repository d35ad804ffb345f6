// `tarn serve` answering a real HTTP client: credentials, tokens, the in-app file re-read on
// change, events recorded to a file, scripted faults and delays, and its bounds.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "support/TestSupport.h"

namespace tarn::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kToken = "/core/auth/token";
constexpr const char* kInApp = "/orbital-harbor/sdk-public/inapp-communication-wrapper";
constexpr const char* kEvent = "/orbital-harbor/sdk-public/event/mobile";

class ServeCommand : public CliTest {
  protected:
    /// Starts `tarn serve` on a free port and reads the bound port from its first line.
    std::unique_ptr<ChildProcess> start(std::vector<std::string> args) {
        args.insert(args.begin(), {tarnExecutable(), "serve", "--port", "0"});
        auto process = std::make_unique<ChildProcess>(args);
        auto first = process->readLine(10s);
        EXPECT_TRUE(first.has_value()) << process->err;
        const std::string prefix = "tarn serve: listening on http://127.0.0.1:";
        EXPECT_EQ(first.value_or("").rfind(prefix, 0), 0u) << first.value_or("");
        port_ = std::stoi(first.value_or(prefix + "0").substr(prefix.size()));
        return process;
    }
    httplib::Result post(const char* path, const json& body, const std::string& token = {}) {
        httplib::Client client("127.0.0.1", port_);
        client.set_read_timeout(10, 0);
        // Ask for compression as the library's transport does.
        httplib::Headers headers{{"Accept-Encoding", "gzip, deflate, br"}};
        if (!token.empty()) {
            headers.emplace("Authorization", "Bearer " + token);
        }
        return client.Post(path, headers, body.dump(), "application/json");
    }
    TempDir dir_;
    int port_ = 0;
};

json event(const std::string& name) {
    return {{"name", name},
            {"actorId", "actor-1"},
            {"requestId", "R-" + name},
            {"parameters", {{"conversionCommunicationCode", "C-" + name}}}};
}

TEST_F(ServeCommand, TokensInAppFileEventsAndEveryThirdEventFailing) {
    auto inapp = dir_.path() / "inapp.json";
    auto events = dir_.path() / "events.jsonl";
    std::ofstream(inapp) << R"({"configuration":{}})";
    // 2 token requests, 3 in-app requests, 6 events.
    auto serve = start({"--client-id", "host-app", "--client-secret", "s3cr3t-value", "--inapp",
                        inapp.string(), "--events-file", events.string(), "--fault-share", "0.34",
                        "--fault-status", "500", "--fault-path", kEvent, "--max-requests", "11"});

    auto refused = post(kToken, {{"clientId", "host-app"}, {"clientSecret", "wrong"}});
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 401);
    auto granted = post(kToken, {{"clientId", "host-app"}, {"clientSecret", "s3cr3t-value"}});
    ASSERT_TRUE(granted);
    ASSERT_EQ(granted->status, 200);
    json token = json::parse(granted->body);
    for (const char* key : {"access_token", "expires_in", "refresh_expires_in", "token_type",
                            "not-before-policy", "scope"}) {
        EXPECT_TRUE(token.contains(key)) << key;
    }
    EXPECT_EQ(token["token_type"], "Bearer");
    std::string accessToken = token["access_token"];

    auto unauthorized = post(kInApp, {{"actorId", "a"}}, "not-a-token");
    ASSERT_TRUE(unauthorized);
    EXPECT_EQ(unauthorized->status, 401);
    auto answer = post(kInApp, {{"actorId", "a"}}, accessToken);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 200);
    EXPECT_EQ(answer->body, R"({"configuration":{}})");
    EXPECT_FALSE(answer->has_header("Content-Encoding")) << "answers go uncompressed by default";
    // A changed file is served at once.
    std::ofstream(inapp)
        << R"({"inAppCommunicationCommands":[],"configuration":{"batteryEnabled":true}})";
    answer = post(kInApp, {{"actorId", "a"}}, accessToken);
    ASSERT_TRUE(answer);
    EXPECT_EQ(json::parse(answer->body)["configuration"]["batteryEnabled"], true);

    std::vector<int> statuses;
    for (int i = 1; i <= 6; ++i) {
        auto sent = post(kEvent, event("e" + std::to_string(i)), accessToken);
        ASSERT_TRUE(sent);
        statuses.push_back(sent->status);
    }
    // A share of 0.34 spreads evenly: the 3rd and 6th eligible requests fail.
    EXPECT_EQ(statuses, (std::vector<int>{200, 200, 500, 200, 200, 500}));

    EXPECT_EQ(serve->wait(20s), 0) << serve->err;
    const std::string& out = serve->out;
    for (const std::string& line : std::vector<std::string>{
             "-> 401: wrong client credentials (client \"host-app\")",
             std::string("POST ") + kEvent + " -> 200: event \"e4\" actor actor-1 conversion C-e4",
             std::string("POST ") + kEvent + " -> 500: injected fault",
             "reloaded " + inapp.string() + " (0 communications)",
             std::string("tarn serve: stopped (11 requests answered) after 11 requests, 4 events")})
        EXPECT_NE(out.find(line), std::string::npos) << line << " not in\n" << out;
    // Neither the secret nor the token is ever printed.
    EXPECT_EQ(out.find("s3cr3t-value"), std::string::npos);
    EXPECT_EQ(out.find(accessToken), std::string::npos);

    std::ifstream lines(events);
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        names.push_back(json::parse(line)["name"]);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"e1", "e2", "e4", "e5"}));
}

TEST_F(ServeCommand, DelaysJsonOutputSignalsAndBounds) {
    auto serve = start({"--accept-any-token", "--json", "--delay", "400", "--delay-share", "0.5"});
    std::vector<std::chrono::milliseconds> took;
    for (int i = 1; i <= 2; ++i) {
        auto begin = std::chrono::steady_clock::now();
        auto sent = post(kEvent, event("d" + std::to_string(i)));
        took.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - begin));
        ASSERT_TRUE(sent);
        EXPECT_EQ(sent->status, 200);
    }
    EXPECT_LT(took[0], 350ms);
    EXPECT_GE(took[1], 400ms);
    // A body that is not an object is refused and not recorded.
    httplib::Client client("127.0.0.1", port_);
    auto bad = client.Post(kEvent, "[1,2]", "application/json");
    ASSERT_TRUE(bad);
    EXPECT_EQ(bad->status, 400);
    auto unknown = client.Post("/elsewhere", "{}", "application/json");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 404);

    // In --json mode standard output holds only the address line and the events.
    auto line1 = serve->readLine(5s);
    auto line2 = serve->readLine(5s);
    ASSERT_TRUE(line1 && line2);
    EXPECT_EQ(json::parse(*line1), event("d1"));
    EXPECT_EQ(json::parse(*line2)["name"], "d2");
    serve->signal(SIGTERM);
    EXPECT_EQ(serve->wait(10s), 0);
    EXPECT_NE(serve->err.find("stopped (SIGTERM) after 4 requests, 2 events"), std::string::npos)
        << serve->err;

    // --compress honours the client's Accept-Encoding.
    auto compressing = start({"--compress", "--accept-any-token", "--max-requests", "1"});
    auto compressed = post(kInApp, {{"actorId", "a"}});
    ASSERT_TRUE(compressed);
    EXPECT_TRUE(compressed->has_header("Content-Encoding"));
    EXPECT_NO_THROW(json::parse(compressed->body)) << compressed->body;
    EXPECT_EQ(compressing->wait(10s), 0);

    auto timed = start({"--duration", "0.3"});
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(timed->wait(10s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_NE(timed->out.find("stopped (duration reached) after 0 requests"), std::string::npos);

    // Binding beyond the loopback interface takes an explicit flag.
    auto wide = runTarn({"serve", "--host", "0.0.0.0", "--port", "0", "--duration", "0.1"});
    EXPECT_EQ(wide.status, 2);
    EXPECT_NE(wide.err.find("refusing to bind 0.0.0.0"), std::string::npos) << wide.err;
    EXPECT_EQ(wide.out, "");
}

TEST_F(ServeCommand, SigintCutsAHeldAnswerShort) {
    auto serve = start({"--delay", "600000", "--accept-any-token"});
    std::thread client([this] { post(kEvent, event("held")); });
    std::this_thread::sleep_for(300ms);
    auto begin = std::chrono::steady_clock::now();
    serve->signal(SIGINT);
    EXPECT_EQ(serve->wait(20s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    client.join();
    EXPECT_NE(serve->out.find("stopped (SIGINT)"), std::string::npos) << serve->out;
}

}  // namespace
}  // namespace tarn::test
