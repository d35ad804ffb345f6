// `tarn demo` run as the main job runs it: every expected event arrives in order, and the
// library's own log lines stay out of the demo's output.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"

namespace tarn::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

using DemoCommand = CliTest;

TEST_F(DemoCommand, TheJourneyArrivesInOrderAsJsonLinesAndKeepLeavesItsFolder) {
    auto demo = runTarn({"demo", "--json", "--keep"}, 120s);
    ASSERT_EQ(demo->wait(), 0) << demo->out << demo->err;
    // Standard output holds nothing but the events: no journey text, no library log line.
    std::vector<std::string> names;
    std::istringstream lines(demo->out);
    for (std::string line; std::getline(lines, line);) {
        auto event = json::parse(line, nullptr, false);
        ASSERT_TRUE(event.is_object()) << "not a JSON line: " << line;
        if (event["name"] != "actor_change")
            names.push_back(event["name"]);
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
    EXPECT_EQ(names, (std::vector<std::string>{"install", "sdk_initialize", "login", "page_in",
                                               "page_out", "add_to_cart", "in_app_opened",
                                               "in_app_button_clicked", "purchase", "logout"}));

    // The journey went to standard error: the popup as drawn, the host's callback, the verdict.
    for (const char* text :
         {"| 10% off what is in your cart   [title #1A73E8]",
          "| [ Go to checkout ] -> deep tarndemo://checkout",
          "host action callback: AppCommunicationAction(link: tarndemo://checkout, type: deep)",
          "OK: all 10 expected events arrived in order"})
        EXPECT_THAT(demo->err, HasSubstr(text));
    EXPECT_THAT(demo->err, Not(HasSubstr("Tarn-QueueManager:")));

    // --keep leaves the bundle, the data folder and the library's log, which holds its lines.
    auto kept = demo->err.find("kept ");
    ASSERT_NE(kept, std::string::npos) << demo->err;
    std::filesystem::path folder =
        demo->err.substr(kept + 5, demo->err.find(' ', kept + 5) - kept - 5);
    EXPECT_TRUE(std::filesystem::exists(folder / "bundle" / "TarnService-Info.plist"));
    EXPECT_TRUE(std::filesystem::is_directory(folder / "data"));
    std::ostringstream log;
    log << std::ifstream(folder / "library.log").rdbuf();
    EXPECT_THAT(log.str(), HasSubstr("Tarn-InAppManager: Tarn Sdk initialized succesfully.;"));
    // The service file's secret reaches neither the output nor the log.
    EXPECT_THAT(log.str(), Not(HasSubstr("demo-secret-not-for-production")));
    EXPECT_THAT(demo->err, Not(HasSubstr("demo-secret-not-for-production")));
    std::filesystem::remove_all(folder);
}

TEST_F(DemoCommand, TheQuietTableNamesEveryEventAndRefusedEventsFailTheDemo) {
    // Every fourth event request is refused: the 4th (login) and the 8th (in_app_opened). The
    // demo waits out its whole time-out for them; 6 s leaves the others time on a loaded machine.
    auto demo = runTarn({"demo", "--quiet", "--fault-share", "0.25", "--timeout", "6"}, 120s);
    EXPECT_EQ(demo->wait(), 1);
    EXPECT_THAT(demo->out, StartsWith("\nThe server received, in order:\nrequest  event "));
    for (const char* row :
         {"  login                  demo-user-42                          -                500\n",
          "  purchase               demo-user-42                          DEMO-CART-10     200\n",
          "  logout                 demo-user-42                          -                200\n"})
        EXPECT_THAT(demo->out, HasSubstr(row));
    EXPECT_THAT(demo->out, Not(HasSubstr("Tarn-")));
    // Quiet: standard error holds the verdict alone.
    EXPECT_EQ(demo->err,
              "tarn demo: missing after 6 s (the library does not send a refused event again): "
              "login, in_app_opened\n");
}

}  // namespace
}  // namespace tarn::test
