// `tarn serve` answering a real HTTP client: credentials, tokens, the in-app file re-read on
// change, events recorded to a file, scripted faults and delays, and its bounds.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/PipelineFixture.h"

namespace tarn::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

class ServeCommand : public CliTest {
  protected:
    /// Starts `tarn serve` on a free port and reads the bound port from its first line.
    std::unique_ptr<ChildProcess> start(std::vector<std::string> args) {
        args.insert(args.begin(), {tarnExecutable(), "serve", "--port", "0"});
        auto process = std::make_unique<ChildProcess>(args);
        const bool jsonLines = std::find(args.begin(), args.end(), "--json") != args.end();
        auto first = process->readLine(10s).value_or("");
        if (jsonLines) {
            // Standard output carries JSON lines only; the first names the address.
            auto address = json::parse(first, nullptr, false);
            first = address.is_object()
                        ? "tarn serve: listening on " + address.value("listening", std::string())
                        : first;
        }
        const std::string prefix = "tarn serve: listening on http://127.0.0.1:";
        EXPECT_THAT(first, StartsWith(prefix)) << process->err;
        port_ = std::atoi(first.c_str() + std::min(first.size(), prefix.size()));
        return process;
    }
    httplib::Result post(const char* path, const json& body, const std::string& token = {}) {
        httplib::Client client("127.0.0.1", port_);
        client.set_read_timeout(10, 0);
        // Ask for compression as the library's transport does.
        httplib::Headers headers{{"Accept-Encoding", "gzip, deflate, br"}};
        if (!token.empty())
            headers.emplace("Authorization", "Bearer " + token);
        return client.Post(path, headers, body.dump(), "application/json");
    }
    static int status(const httplib::Result& answer) { return answer ? answer->status : -1; }
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
                        "--fault-status", "500", "--fault-path", kEventPath, "--max-requests", "11",
                        "--keep", "3"});

    EXPECT_EQ(status(post(kTokenPath, {{"clientId", "host-app"}, {"clientSecret", "wrong"}})), 401);
    auto granted = post(kTokenPath, {{"clientId", "host-app"}, {"clientSecret", "s3cr3t-value"}});
    ASSERT_TRUE(granted);
    ASSERT_EQ(granted->status, 200);
    json token = json::parse(granted->body);
    for (const char* key : {"access_token", "expires_in", "refresh_expires_in", "token_type",
                            "not-before-policy", "scope"})
        EXPECT_TRUE(token.contains(key)) << key;
    EXPECT_EQ(token["token_type"], "Bearer");
    std::string accessToken = token["access_token"];

    EXPECT_EQ(status(post(kInAppPath, {{"actorId", "a"}}, "not-a-token")), 401);
    auto answer = post(kInAppPath, {{"actorId", "a"}}, accessToken);
    ASSERT_EQ(status(answer), 200);
    EXPECT_EQ(answer->body, R"({"configuration":{}})");
    EXPECT_FALSE(answer->has_header("Content-Encoding")) << "answers go uncompressed by default";
    // A changed file is served at once.
    std::ofstream(inapp)
        << R"({"inAppCommunicationCommands":[],"configuration":{"batteryEnabled":true}})";
    answer = post(kInAppPath, {{"actorId", "a"}}, accessToken);
    ASSERT_TRUE(answer);
    EXPECT_EQ(json::parse(answer->body)["configuration"]["batteryEnabled"], true);

    std::vector<int> statuses;
    for (int i = 1; i <= 6; ++i)
        statuses.push_back(status(post(kEventPath, event("e" + std::to_string(i)), accessToken)));
    // A share of 0.34 spreads evenly: the 3rd and 6th eligible requests fail.
    EXPECT_EQ(statuses, (std::vector<int>{200, 200, 500, 200, 200, 500}));

    EXPECT_EQ(serve->wait(20s), 0) << serve->err;
    const std::string& out = serve->out;
    for (const std::string& line : std::vector<std::string>{
             "-> 401: wrong client credentials (client \"host-app\")",
             std::string("POST ") + kEventPath +
                 " -> 200: event \"e4\" actor actor-1 conversion C-e4",
             std::string("POST ") + kEventPath + " -> 500: injected fault",
             "reloaded " + inapp.string() + " (0 communications)",
             std::string("tarn serve: stopped (11 requests answered) after 11 requests, 4 events")})
        EXPECT_THAT(out, HasSubstr(line));
    // Neither the secret nor the token is ever printed.
    EXPECT_THAT(out, Not(HasSubstr("s3cr3t-value")));
    EXPECT_THAT(out, Not(HasSubstr(accessToken)));

    // Only the newest three requests stay in memory; the counts and the file keep everything.
    std::ifstream lines(events);
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);)
        names.push_back(json::parse(line)["name"]);
    EXPECT_EQ(names, (std::vector<std::string>{"e1", "e2", "e4", "e5"}));
}

TEST_F(ServeCommand, DelaysJsonOutputSignalsCompressionAndBounds) {
    auto serve = start({"--accept-any-token", "--json", "--delay", "400", "--delay-share", "0.5"});
    auto timedPost = [&](const char* name) {
        auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(status(post(kEventPath, event(name))), 200);
        return std::chrono::steady_clock::now() - begin;
    };
    EXPECT_LT(timedPost("d1"), 350ms);
    EXPECT_GE(timedPost("d2"), 400ms);
    // A body that is not an object is refused and not recorded.
    httplib::Client client("127.0.0.1", port_);
    EXPECT_EQ(status(client.Post(kEventPath, "[1,2]", "application/json")), 400);
    EXPECT_EQ(status(client.Post("/elsewhere", "{}", "application/json")), 404);

    // In --json mode standard output holds only JSON lines: the address line (read above) and
    // the events; the human lines went to standard error.
    auto line1 = serve->readLine(5s);
    auto line2 = serve->readLine(5s);
    ASSERT_TRUE(line1 && line2);
    EXPECT_EQ(json::parse(*line1), event("d1"));
    EXPECT_EQ(json::parse(*line2)["name"], "d2");
    serve->signal(SIGTERM);
    EXPECT_EQ(serve->wait(10s), 0);
    EXPECT_THAT(serve->err, HasSubstr("stopped (SIGTERM) after 4 requests, 2 events"));
    EXPECT_THAT(serve->err, HasSubstr("tarn serve: listening on http://127.0.0.1:"));
    EXPECT_EQ(serve->readLine(1s), std::nullopt);  // nothing else reached standard output

    // --compress honours the client's Accept-Encoding.
    auto compressing = start({"--compress", "--accept-any-token", "--max-requests", "1"});
    auto compressed = post(kInAppPath, {{"actorId", "a"}});
    ASSERT_TRUE(compressed);
    EXPECT_TRUE(compressed->has_header("Content-Encoding"));
    EXPECT_NO_THROW(json::parse(compressed->body)) << compressed->body;
    EXPECT_EQ(compressing->wait(10s), 0);

    auto timed = start({"--duration", "0.3"});
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(timed->wait(10s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_THAT(timed->out, HasSubstr("stopped (duration reached) after 0 requests"));

    // SIGINT cuts a held answer short.
    auto held = start({"--delay", "600000", "--accept-any-token"});
    std::thread holder([this] { post(kEventPath, event("held")); });
    std::this_thread::sleep_for(300ms);
    begin = std::chrono::steady_clock::now();
    held->signal(SIGINT);
    EXPECT_EQ(held->wait(20s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    holder.join();
    EXPECT_THAT(held->out, HasSubstr("stopped (SIGINT)"));

    // Binding beyond the loopback interface takes an explicit flag.
    auto wide = runTarn({"serve", "--host", "0.0.0.0", "--port", "0", "--duration", "0.1"});
    EXPECT_EQ(wide->wait(), 2);
    EXPECT_THAT(wide->err, HasSubstr("refusing to bind 0.0.0.0"));
    EXPECT_EQ(wide->out, "");
}

}  // namespace
}  // namespace tarn::test
