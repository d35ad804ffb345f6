// Speed of the service client: framing one request, and 1,000 sequential POSTs to the loopback
// server, next to the same 1,000 POSTs made with the curl command-line tool.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <mutex>

#include "support/LoopbackServer.h"
#include "support/RawSocketServer.h"
#include "support/TestSupport.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Tarn.h"
#include "tarn/network/Endpoint.h"
#include "tarn/network/ServiceClient.h"
#include "tarn/platform/Bundle.h"

extern char** environ;

namespace {

using tarn::test::LoopbackServer;
using tarn::test::ScriptedAnswer;

constexpr int kPosts = 1000;

/// A typical event body.
const nlohmann::json& eventBody() {
    static const nlohmann::json body = {
        {"eventName", "custom_event"},
        {"actorId", "4F9C2A8E-1B7D-4E2A-9C3F-8D6E5B4A3C21"},
        {"applicationName", "HostApp"},
        {"eventDate", "2024-05-01T10:11:12.345Z"},
        {"properties", {{"screen", "checkout"}, {"amount", 129.9}, {"items", 3}}},
        {"journeys", nlohmann::json::array()},
        {"wifiStatus", "WIFI"},
        {"batteryLevel", 0.82},
    };
    return body;
}

/// A host bundle with an Info.plist, the base URL and an authorization value, as after start-up.
struct Environment {
    tarn::test::TempDir folder;
    LoopbackServer server;
    Environment() {
        tarn::test::writeInfoPlist(folder.path(), "com.example.bench");
        tarn::Bundle::setMain(folder.path());
        tarn::Tarn::shared().applicationName = "HostApp";
        tarn::Tarn::shared().tarnAuthToken = "bearer eyJhbGciOiJSUzI1NiJ9.bench";
        tarn::processSettings().baseUrl = server.baseUrl();
        server.on(tarn::Endpoint::event, ScriptedAnswer::json(200, R"({"status":"ok"})"));
    }
};

Environment& environment() {
    static Environment env;
    return env;
}

void BM_FrameRequest(benchmark::State& state) {
    environment();
    auto& client = tarn::ServiceClient::shared();
    for (auto _ : state) {
        auto request = client.buildRequest(client.url(tarn::Endpoint::event), true);
        request.body = *tarn::ServiceClient::serialize(eventBody(), nullptr);
        benchmark::DoNotOptimize(request);
    }
}
BENCHMARK(BM_FrameRequest);

void BM_ServiceClient1000SequentialPosts(benchmark::State& state) {
    auto& env = environment();
    auto& client = tarn::ServiceClient::shared();
    std::mutex mutex;
    std::condition_variable changed;
    for (auto _ : state) {
        int ok = 0;
        for (int i = 0; i < kPosts; ++i) {
            bool done = false;
            client.request(client.url(tarn::Endpoint::event), eventBody(), std::nullopt,
                           [&](auto data, auto, auto status) {
                               std::lock_guard lock(mutex);
                               ok += (data && status == 200) ? 1 : 0;
                               done = true;
                               changed.notify_all();
                           });
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] { return done; });
        }
        if (ok != kPosts) {
            state.SkipWithError("not every POST succeeded");
        }
    }
    state.SetItemsProcessed(state.iterations() * kPosts);
    state.counters["requests"] = static_cast<double>(env.server.count(tarn::Endpoint::event));
}
BENCHMARK(BM_ServiceClient1000SequentialPosts)->Unit(benchmark::kMillisecond)->UseRealTime();

int runCurl(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The same POST with the same headers, one curl process each, as a shell script would send it.
void BM_CurlCommand1000Processes(benchmark::State& state) {
    auto& env = environment();
    auto& client = tarn::ServiceClient::shared();
    auto framed = client.buildRequest(client.url(tarn::Endpoint::event), true);
    std::vector<std::string> args = {"curl", "-s", "-o", "/dev/null", "-f", "--compressed"};
    for (const auto& [field, value] : framed.headers.fields()) {
        args.push_back("-H");
        args.push_back(field + ": " + value);
    }
    args.push_back("--data-binary");
    args.push_back(eventBody().dump());
    args.push_back(framed.url);
    for (auto _ : state) {
        for (int i = 0; i < kPosts; ++i) {
            if (runCurl(args) != 0) {
                state.SkipWithError("curl failed");
                break;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kPosts);
    (void)env;
}
BENCHMARK(BM_CurlCommand1000Processes)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

/// The same 1,000 POSTs from one curl process (a config file with 1,000 transfers), which reuses
/// its connection like the library does: the transport alone, without process start-up.
void BM_CurlCommand1000InOneProcess(benchmark::State& state) {
    auto& env = environment();
    auto& client = tarn::ServiceClient::shared();
    auto framed = client.buildRequest(client.url(tarn::Endpoint::event), true);
    auto configPath = env.folder.path() / "curl-1000.cfg";
    {
        std::ofstream config(configPath);
        auto quoted = [](const std::string& s) {
            std::string out = "\"";
            for (char c : s) {
                if (c == '"' || c == '\\')
                    out += '\\';
                out += c;
            }
            return out + "\"";
        };
        for (int i = 0; i < kPosts; ++i) {
            if (i > 0)
                config << "next\n";
            config << "url = " << quoted(framed.url) << "\n";
            config << "output = \"/dev/null\"\n";
            config << "compressed\n";
            config << "data-binary = " << quoted(eventBody().dump()) << "\n";
            for (const auto& [field, value] : framed.headers.fields()) {
                config << "header = " << quoted(field + ": " + value) << "\n";
            }
        }
    }
    for (auto _ : state) {
        if (runCurl({"curl", "-s", "-f", "--compressed", "-K", configPath.string()}) != 0) {
            state.SkipWithError("curl failed");
        }
    }
    state.SetItemsProcessed(state.iterations() * kPosts);
}
BENCHMARK(BM_CurlCommand1000InOneProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

/// One in-app answer of the given size received through the client's session: the cost of
/// collecting the body in blocks and joining it, next to the wire. The answer comes from the
/// raw-socket server, which writes as fast as the socket takes it.
void BM_ReceiveInAppAnswer(benchmark::State& state) {
    using tarn::test::RawSocketServer;
    environment();
    static RawSocketServer raw;
    const auto size = static_cast<std::size_t>(state.range(0));
    raw.answer(
        {RawSocketServer::head("HTTP/1.1 200 OK", {"Content-Length: " + std::to_string(size)}),
         RawSocketServer::repeated(size)});
    auto& client = tarn::ServiceClient::shared();
    auto request = client.buildRequest(client.url(tarn::Endpoint::inAppCommunication), true);
    request.url = raw.baseUrl() + tarn::Endpoint::inAppCommunication;
    request.body = {'{', '}'};
    std::mutex mutex;
    std::condition_variable changed;
    for (auto _ : state) {
        bool done = false;
        std::size_t received = 0;
        client.urlSession()
            .dataTask(request,
                      [&](auto data, auto, auto) {
                          std::lock_guard lock(mutex);
                          received = data ? data->size() : 0;
                          done = true;
                          changed.notify_all();
                      })
            ->resume();
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return done; });
        if (received != size) {
            state.SkipWithError("short answer");
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(BM_ReceiveInAppAnswer)
    ->Arg(4 << 10)
    ->Arg(1 << 20)
    ->Arg(8 << 20)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
