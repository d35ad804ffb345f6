// The dev server's browser page in a real headless Chromium: a host's requests appear as they
// arrive, a broken body is flagged with its path, faults and the in-app answer are switched from
// the page, 10,000 events keep the page at its newest 1,000 rows, and a page that reads slowly or
// goes away mid-stream never holds up the host.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/ChildProcess.h"
#include "support/HeadlessBrowser.h"
#include "support/PipelineFixture.h"
#include "support/TestSupport.h"
#include "tarn/events/EventRecords.h"

namespace tarn::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

/// `tarn serve` on a free port, its output going to a file (a busy server's lines would fill a
/// pipe nobody reads).
class ServeProcess {
  public:
    ServeProcess(const std::filesystem::path& folder, std::vector<std::string> args)
        : log_(folder / "serve.log") {
        args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" >'" + log_.string() +
                                                        "' 2>&1",
                                   tarnExecutable(), "serve", "--port", "0"});
        process_ = std::make_unique<ChildProcess>(args);
        const std::string marker = "listening on http://";
        for (auto until = std::chrono::steady_clock::now() + 10s;
             port_ == 0 && std::chrono::steady_clock::now() < until;
             std::this_thread::sleep_for(10ms)) {
            std::string text = output();
            auto at = text.find(marker);
            auto end = text.find('\n', at);
            if (at != std::string::npos && end != std::string::npos)
                port_ = std::atoi(text.c_str() + text.rfind(':', end) + 1);
        }
    }
    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    std::string output() const {
        std::ifstream in(log_);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

  private:
    std::filesystem::path log_;
    std::unique_ptr<ChildProcess> process_;
    int port_ = 0;
};

/// A body as the library writes it.
std::string libraryBody(const std::string& actor, const std::string& page) {
    BodySections sections;
    sections.requestId = "7E57AB1E-0000-4000-8000-000000000001";
    sections.deviceId = "5D3C6E1A-9B7F-5C2D-8E4A-1F0B3A6C9D2E";
    sections.phoneModel = "x86_64";
    sections.timeZone = "Europe/Istanbul";
    sections.osVersion = "6.1.0";
    sections.timestamp = 1732284000123;
    sections.applicationName = "Shop";
    sections.pushToken = "fcm-0123456789abcdef";
    PageInOutEvent record;
    record.name = "page_in";
    record.actorId = actor;
    record.pageName = page;
    return record.serializedBody(sections);
}

class PageTest : public CliTest {
  protected:
    void SetUp() override {
        CliTest::SetUp();
        if (IsSkipped())
            return;
        if (HeadlessBrowser::executable().empty())
            GTEST_SKIP() << "no Chromium installed";
        ::signal(SIGPIPE, SIG_IGN);
    }
    static httplib::Result post(int port, const std::string& path, const std::string& body,
                                const std::string& token = {}) {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(10, 0);
        httplib::Headers headers;
        if (!token.empty())
            headers.emplace("Authorization", "Bearer " + token);
        return client.Post(path.c_str(), headers, body, "application/json");
    }
    static std::string token(int port) {
        auto answer = post(port, kTokenPath,
                           json{{"clientId", "client-id"}, {"clientSecret", "client-secret"}}.dump());
        return answer && answer->status == 200
                   ? json::parse(answer->body).value("access_token", "")
                   : "";
    }
    /// Where the screenshot goes: the build folder of the tests when ctest runs them.
    static std::filesystem::path screenshotPath(const TempDir& fallback) {
        const char* folder = std::getenv("TARN_TEST_BINARY_DIR");
        return (folder ? std::filesystem::path(folder) : fallback.path()) / "tarn-serve-page.png";
    }
    TempDir dir_;
};

// The JavaScript that reads the page's rows.
constexpr const char* kRows = "[...document.querySelectorAll('#rows tr.row')]";
std::string rowsWhere(const std::string& condition) {
    return std::string(kRows) + ".filter(r => " + condition + ")";
}
std::string cellText(int column) {
    return "r.children[" + std::to_string(column) + "].textContent";
}

TEST_F(PageTest, HostRequestsAppearLiveCheckedAndFaultsAndAnswerAreSwitchedFromThePage) {
    auto inapp = dir_.path() / "inapp.json";
    std::ofstream(inapp) << R"({"inAppCommunicationCommands":[],)"
                         << R"("configuration":{"eventQueueDelay":0.001}})";
    ServeProcess serve(dir_.path(), {"--inapp", inapp.string(), "--client-id", "client-id",
                                     "--client-secret", "client-secret", "--keep", "100"});
    ASSERT_NE(serve.port(), 0) << serve.output();
    auto profile = dir_.path() / "profile";
    std::filesystem::create_directories(profile);
    HeadlessBrowser browser(profile);
    ASSERT_TRUE(browser.started());
    ASSERT_TRUE(browser.open(serve.url()));
    ASSERT_TRUE(browser.waitFor("document.getElementById('conn').textContent === 'live'", 10s));
    // Set once: a reload would lose it.
    browser.evaluate("window.loadedOnce = true");

    // A host (the library in a second process) starts and sends five custom events.
    auto bundle = dir_.path() / "bundle";
    auto data = dir_.path() / "data";
    std::filesystem::create_directories(bundle);
    std::filesystem::create_directories(data);
    writeServiceFile(bundle, {{"DOMAIN", "http://127.0.0.1:" + std::to_string(serve.port())},
                              {"CLIENT_ID", "client-id"},
                              {"CLIENT_SECRET", "client-secret"}});
    writeInfoPlist(bundle, "com.example.host");
    ChildProcess host({helperProgram(), "queue_instance", data.string(), bundle.string(), "1",
                       "5"});
    const std::string hostEvents = rowsWhere(cellText(3) + " === 'shared_queue'");
    EXPECT_TRUE(browser.waitFor(hostEvents + ".length === 5", 20s))
        << serve.output() << browser.evaluate(kRows + std::string(".length")).value_or(json());
    EXPECT_EQ(browser.evaluate("window.loadedOnce === true"), json(true));
    // The token, in-app and event requests are all there, and every body the library sent
    // passes the check.
    for (const char* endpoint : {"token", "inapp", "event"})
        EXPECT_EQ(browser.evaluate(rowsWhere(cellText(1) + " === '" + endpoint + "'") +
                                   ".length > 0"),
                  json(true))
            << endpoint;
    EXPECT_EQ(browser.evaluate(rowsWhere(cellText(1) + " === 'event'") + ".map(r => " +
                               cellText(7) + ").filter(t => t !== 'ok')"),
              json::array());
    EXPECT_EQ(browser.evaluate(hostEvents + "[0].children[4].textContent"), json("shared-actor"));
    host.finishInput("\n");
    EXPECT_EQ(host.wait(), 0) << host.err;

    // A body with a misspelt and a mistyped key is flagged on its row with their paths; a click
    // shows the body indented, with the push token cut short.
    json broken = json::parse(libraryBody("broken-actor", "Cart"));
    broken["parameters"]["pageNmae"] = "Cart";
    broken["parameters"]["timestamp"] = "soon";
    std::string bearer = token(serve.port());
    ASSERT_EQ(post(serve.port(), kEventPath, broken.dump(), bearer)->status, 200);
    const std::string brokenRow = rowsWhere(cellText(4) + " === 'broken-actor'") + "[0]";
    ASSERT_TRUE(browser.waitFor(brokenRow, 10s));
    auto check = browser.evaluate(brokenRow + ".children[7].textContent").value_or(json());
    EXPECT_THAT(check.dump(), HasSubstr("parameters.timestamp: a string, expected an integer"));
    EXPECT_THAT(check.dump(), HasSubstr("parameters.pageNmae: not sent by the library"));
    EXPECT_EQ(browser.evaluate(brokenRow + ".classList.contains('invalid')"), json(true));
    browser.evaluate(brokenRow + ".click()");
    auto detail =
        browser.evaluate(brokenRow + ".nextElementSibling.textContent").value_or(json()).dump();
    EXPECT_THAT(detail, HasSubstr(R"(\n    \"deviceOs\": \"IOS\")"));
    EXPECT_THAT(detail, HasSubstr("fcm-\u2026"));
    EXPECT_THAT(detail, Not(HasSubstr("fcm-0123456789abcdef")));

    // Filters: by event name, then by actor.
    browser.evaluate("document.getElementById('filterName').value = 'sdk_';"
                     "document.getElementById('filterName').dispatchEvent(new Event('input'))");
    EXPECT_EQ(browser.evaluate(std::string(kRows) + ".map(r => " + cellText(3) + ")"),
              json::array({"sdk_initialize"}));
    browser.evaluate("document.getElementById('filterName').value = '';"
                     "document.getElementById('filterActor').value = 'broken';"
                     "document.getElementById('filterActor').dispatchEvent(new Event('input'))");
    EXPECT_EQ(browser.evaluate(std::string(kRows) + ".length"), json(1));

    browser.evaluate("document.getElementById('filterActor').value = '';"
                     "document.getElementById('filterActor').dispatchEvent(new Event('input'))");

    // A fault switched on in the page answers the next event with its status.
    browser.evaluate(
        "document.getElementById('faultStatus').value = '418';"
        "document.getElementById('faultShare').value = '1';"
        "document.querySelector('.faultPath[value=\"" + std::string(kEventPath) +
        "\"]').checked = true;"
        "document.getElementById('applyFaults').click()");
    ASSERT_TRUE(browser.waitFor(
        "document.getElementById('activeFaults').textContent.includes('status 418 for 100%')",
        10s));
    EXPECT_EQ(post(serve.port(), kEventPath, libraryBody("broken-actor", "Home"), bearer)->status,
              418);
    EXPECT_EQ(post(serve.port(), kInAppPath, "{}", bearer)->status, 200);  // other paths: not
    EXPECT_TRUE(browser.waitFor(rowsWhere(cellText(2) + ".startsWith('418')") + ".length === 1",
                                10s));
    browser.evaluate("document.getElementById('faultsOff').click()");
    ASSERT_TRUE(browser.waitFor(
        "document.getElementById('activeFaults').textContent === 'no faults'", 10s));
    EXPECT_EQ(post(serve.port(), kEventPath, libraryBody("broken-actor", "Home"), bearer)->status,
              200);

    // An edited answer that does not decode is refused with its path, and not served; a valid
    // one is served from the next request on.
    auto setAnswer = [&](const json& answer) {
        browser.evaluate("document.getElementById('inappResult').textContent = '';"
                         "document.getElementById('inappText').value = " +
                         json(answer.dump(2)).dump() + ";"
                         "document.getElementById('applyInapp').click()");
        EXPECT_TRUE(
            browser.waitFor("document.getElementById('inappResult').textContent !== ''", 10s));
        return browser.evaluate("document.getElementById('inappResult').textContent")
            .value_or(json())
            .dump();
    };
    json valid = json::parse(R"({"inAppCommunicationCommands":[{"uuid":"u-1","code":"C-1","name":"Promo","expireDate":4102444800000,"template":"POPUP","triggeringEventName":"add_to_cart","title":{"text":"10% off","color":"#1A73E8"},"body":{"text":"Today only","color":"#3C4043"},"maxShowCount":2,"bgColor":"#FFFFFF","images":[],"subInAppCommunication":{"template":"POPUP","buttons":[{"_id":"b1","text":"Go","textColor":"#FFFFFF","color":"#1A73E8"}]}}],"configuration":{}})");
    json invalid = {{"inAppCommunicationCommands", {{{"code", "C-1"}}}},
                    {"configuration", json::object()}};
    EXPECT_THAT(setAnswer(invalid), HasSubstr("error: inAppCommunicationCommands[0]"));
    auto served = post(serve.port(), kInAppPath, "{}", bearer);
    EXPECT_THAT(served->body, HasSubstr("eventQueueDelay"));
    auto verdict = setAnswer(valid);
    EXPECT_THAT(verdict, HasSubstr("served from the next request on"));
    EXPECT_THAT(verdict, Not(HasSubstr("error:")));
    served = post(serve.port(), kInAppPath, "{}", bearer);
    ASSERT_TRUE(served);
    EXPECT_EQ(json::parse(served->body), valid);
    EXPECT_TRUE(browser.waitFor(
        "document.querySelector('#commTable tbody tr') && "
        "document.querySelector('#commTable tbody tr').textContent.startsWith('Promo')",
        10s));

    // The screenshot of the page with live events, one of them flagged and opened, for the
    // README.
    auto png = browser.screenshot();
    ASSERT_GT(png.size(), 1000u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    std::ofstream(screenshotPath(dir_), std::ios::binary) << png;
}

TEST_F(PageTest, TenThousandEventsKeepTheNewestThousandRowsAndASlowPageNeverHoldsTheHost) {
    ServeProcess serve(dir_.path(), {"--accept-any-token", "--keep", "100"});
    ASSERT_NE(serve.port(), 0) << serve.output();

    // One page that never reads (its receive buffer is tiny), one that goes away mid-stream.
    auto connectLive = [&](int receiveBuffer) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(serve.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        std::string request = "GET /_tarn/live HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        EXPECT_EQ(send(fd, request.data(), request.size(), 0),
                  static_cast<ssize_t>(request.size()));
        return fd;
    };
    int stalled = connectLive(2048);
    int leaving = connectLive(65536);

    auto profile = dir_.path() / "profile";
    std::filesystem::create_directories(profile);
    HeadlessBrowser browser(profile);
    ASSERT_TRUE(browser.started());
    ASSERT_TRUE(browser.open(serve.url()));
    ASSERT_TRUE(browser.waitFor("document.getElementById('conn').textContent === 'live'", 10s));

    const int total = 10000;
    httplib::Client client("127.0.0.1", serve.port());
    client.set_keep_alive(true);
    // Without it each request waits for the server's delayed ACK (~40 ms) before its body goes.
    client.set_tcp_nodelay(true);
    client.set_read_timeout(5, 0);
    auto started = std::chrono::steady_clock::now();
    int answered = 0;
    for (int i = 0; i < total; ++i) {
        if (i == 100)
            close(leaving);
        auto answer = client.Post(kEventPath, libraryBody("actor-" + std::to_string(i), "Home"),
                                  "application/json");
        if (!answer || answer->status != 200)
            break;  // a server held up by a page answers late or not at all
        ++answered;
    }
    auto sent = std::chrono::steady_clock::now();
    EXPECT_EQ(answered, total);
    // The page has taken all of them in (or been told how many it lost) and shows 1,000.
    EXPECT_TRUE(browser.waitFor(
        "tarnPage.received + tarnPage.dropped >= " + std::to_string(total) +
            " && document.querySelectorAll('#rows tr.row').length === 1000 && "
            "document.querySelector('#rows tr.row').children[4].textContent === 'actor-" +
            std::to_string(total - 1) + "'",
        30s))
        << browser.evaluate("JSON.stringify([tarnPage.received, tarnPage.dropped])")
               .value_or(json());
    auto shown = std::chrono::steady_clock::now();
    auto stats = browser.evaluate("tarnPage.stats").value_or(json::object());
    auto ms = [](auto d) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
    };
    std::cout << "10,000 events: sent in " << ms(sent - started) << " ms, last shown "
              << ms(shown - sent) << " ms later; page updates: " << stats.value("flushes", 0)
              << ", longest " << stats.value("maxMs", 0.0) << " ms, total "
              << stats.value("totalMs", 0.0) << " ms; received "
              << browser.evaluate("tarnPage.received").value_or(json()) << "\n";
    RecordProperty("page_update_max_ms", static_cast<int>(stats.value("maxMs", 0.0)));
    // A page update adds a batch of rows and trims to 1,000: well under a frame budget of a
    // second even on a loaded machine.
    EXPECT_LT(stats.value("maxMs", 1e9), 1000.0);
    EXPECT_EQ(browser.evaluate("tarnPage.rows.length"), json(1000));

    // The page that never read lost messages, counted by the server, which still answers.
    auto state = httplib::Client("127.0.0.1", serve.port()).Get("/_tarn/state");
    ASSERT_TRUE(state);
    EXPECT_GT(json::parse(state->body).value("dropped", 0), 0) << state->body;
    close(stalled);
    // A site whose name was pointed at 127.0.0.1 is no loopback page: it reads nothing.
    auto rebound = httplib::Client("127.0.0.1", serve.port())
                       .Get("/_tarn/state",
                            {{"Host", "attacker.example:" + std::to_string(serve.port())}});
    ASSERT_TRUE(rebound);
    EXPECT_EQ(rebound->status, 401);
}

TEST_F(PageTest, BeyondLoopbackThePageAsksForTheClientSecret) {
    ServeProcess serve(dir_.path(), {"--host", "0.0.0.0", "--allow-remote", "--client-id",
                                     "client-id", "--client-secret", "client-secret"});
    ASSERT_NE(serve.port(), 0) << serve.output();
    EXPECT_THAT(serve.output(), HasSubstr("(it asks for the client secret)"));
    auto profile = dir_.path() / "profile";
    std::filesystem::create_directories(profile);
    HeadlessBrowser browser(profile);
    ASSERT_TRUE(browser.started());
    ASSERT_TRUE(browser.open(serve.url()));
    ASSERT_TRUE(browser.waitFor("getComputedStyle(document.getElementById('login')).display "
                                "=== 'flex'",
                                10s));
    // Without the secret nothing is shown or switched.
    httplib::Client plain("127.0.0.1", serve.port());
    EXPECT_EQ(plain.Get("/_tarn/state")->status, 401);
    EXPECT_EQ(plain.Get("/_tarn/live")->status, 401);
    EXPECT_EQ(plain.Post("/_tarn/faults", {{"X-Tarn-Page", "1"}}, R"({"share":1})",
                         "application/json")
                  ->status,
              401);
    auto login = [&](const std::string& secret) {
        browser.evaluate("document.getElementById('secret').value = " + json(secret).dump() +
                         "; document.querySelector('#loginForm button').click()");
    };
    login("wrong");
    EXPECT_TRUE(browser.waitFor(
        "document.getElementById('loginError').textContent.includes('not the client secret')",
        10s));
    login("client-secret");
    EXPECT_TRUE(browser.waitFor("document.getElementById('conn').textContent === 'live'", 10s));
    // The secret is never in the page, nor in the server's output.
    EXPECT_EQ(browser.evaluate("document.documentElement.outerHTML.includes('client-secret')"),
              json(false));
    EXPECT_THAT(serve.output(), Not(HasSubstr("client-secret\"")));
}

}  // namespace
}  // namespace tarn::test
