// `tarn demo` run as the main job runs it: every expected event arrives in order, and the
// library's own log lines stay out of the demo's output.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "CliProcess.h"

namespace tarn::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

TEST(DemoCommand, TheJourneyArrivesInOrderAsJsonLinesAndKeepLeavesItsFolder) {
    if (tarnExecutable().empty()) {
        GTEST_SKIP() << "the tarn command is not part of this build";
    }
    CliProcess demo({"demo", "--json", "--keep"});
    ASSERT_EQ(demo.wait(120s), 0) << demo.out() << demo.err();

    std::vector<json> events;
    std::istringstream lines(demo.out());
    for (std::string line; std::getline(lines, line);) {
        // Standard output holds nothing but the events: no journey text, no library log line.
        auto event = json::parse(line, nullptr, false);
        ASSERT_TRUE(event.is_object()) << "not a JSON line: " << line;
        events.push_back(std::move(event));
    }
    std::vector<std::string> names;
    for (const auto& event : events) {
        if (event["name"] != "actor_change") {
            names.push_back(event["name"]);
        }
    }
    EXPECT_EQ(names, (std::vector<std::string>{"install", "sdk_initialize", "login", "page_in",
                                               "page_out", "add_to_cart", "in_app_opened",
                                               "in_app_button_clicked", "purchase", "logout"}));
    for (const auto& event : events) {
        if (event["name"] == "purchase") {
            EXPECT_EQ(event["parameters"]["conversionCommunicationCode"], "DEMO-CART-10");
            EXPECT_EQ(event["parameters"]["orderId"], "ORD-7731");
            EXPECT_EQ(event["actorId"], "demo-user-42");
        }
        if (event["name"] == "in_app_button_clicked") {
            EXPECT_EQ(event["parameters"]["buttonId"], "btn-checkout");
            EXPECT_EQ(event["parameters"]["communicationCode"], "DEMO-CART-10");
        }
    }

    // The journey went to standard error: the popup as drawn, the host's callback, the verdict.
    const std::string& err = demo.err();
    EXPECT_NE(err.find("| 10% off what is in your cart   [title #1A73E8]"), std::string::npos)
        << err;
    EXPECT_NE(err.find("| [ Go to checkout ] -> deep tarndemo://checkout"), std::string::npos);
    EXPECT_NE(err.find("host action callback: AppCommunicationAction(link: tarndemo://checkout, "
                       "type: deep)"),
              std::string::npos);
    EXPECT_NE(err.find("OK: all 10 expected events arrived in order"), std::string::npos);
    EXPECT_EQ(err.find("Tarn-QueueManager:"), std::string::npos) << err;

    // --keep leaves the bundle, the data folder and the library's log, which holds its lines.
    auto kept = err.find("kept ");
    ASSERT_NE(kept, std::string::npos) << err;
    std::filesystem::path folder = err.substr(kept + 5, err.find(' ', kept + 5) - kept - 5);
    EXPECT_TRUE(std::filesystem::exists(folder / "bundle" / "TarnService-Info.plist"));
    EXPECT_TRUE(std::filesystem::is_directory(folder / "data"));
    std::string log;
    {
        std::ifstream in(folder / "library.log");
        std::ostringstream text;
        text << in.rdbuf();
        log = text.str();
    }
    EXPECT_NE(log.find("Tarn-InAppManager: Tarn Sdk initialized succesfully.;"), std::string::npos);
    // The service file's secret reaches neither the output nor the log.
    EXPECT_EQ(log.find("demo-secret-not-for-production"), std::string::npos);
    EXPECT_EQ(err.find("demo-secret-not-for-production"), std::string::npos);
    std::filesystem::remove_all(folder);
}

TEST(DemoCommand, TheTableNamesEveryEventWithActorAndConversionCode) {
    if (tarnExecutable().empty()) {
        GTEST_SKIP() << "the tarn command is not part of this build";
    }
    std::string out;
    std::string err;
    ASSERT_EQ(runTarn({"demo", "--quiet"}, &out, &err, 120s), 0) << out << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(out.rfind("\nThe server received, in order:\n"
                        "request  event                  actor                                 "
                        "conversion code  answer\n",
                        0),
              0u)
        << out;
    EXPECT_NE(out.find("  purchase               demo-user-42                          "
                       "DEMO-CART-10     200\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("  logout                 demo-user-42                          -     "
                       "           200\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("Tarn-"), std::string::npos) << out;
}

TEST(DemoCommand, RefusedEventsAreReportedMissingAndFailTheDemo) {
    if (tarnExecutable().empty()) {
        GTEST_SKIP() << "the tarn command is not part of this build";
    }
    std::string out;
    std::string err;
    // Every fourth event request is refused: the 4th (login) and the 8th (in_app_opened).
    EXPECT_EQ(
        runTarn({"demo", "--quiet", "--fault-share", "0.25", "--timeout", "3"}, &out, &err, 120s),
        1);
    EXPECT_NE(out.find("  login                  demo-user-42                          -     "
                       "           500\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(err,
              "tarn demo: missing after 3 s (the library does not send a refused event again): "
              "login, in_app_opened\n");
}

}  // namespace
}  // namespace tarn::test
