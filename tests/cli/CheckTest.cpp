// `tarn check service` and `tarn check inapp` on good and broken files, run as a user would.
#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "CliProcess.h"
#include "support/TestSupport.h"
#include "tarn/platform/PropertyList.h"

namespace tarn::test {
namespace {

using nlohmann::json;

class CheckCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        if (tarnExecutable().empty()) {
            GTEST_SKIP() << "the tarn command is not part of this build";
        }
    }
    std::string write(const std::string& name, const std::string& content) {
        auto path = dir_.path() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path.string();
    }
    TempDir dir_;
};

json goodService() {
    return {{"DOMAIN", "https://api.example.com/prefix"},
            {"CLIENT_ID", "client-7"},
            {"CLIENT_SECRET", "very-secret-value"},
            {"EXTRA", 12}};
}

TEST_F(CheckCommand, ServiceFileAcceptedInBothFormsWithoutEchoingTheSecret) {
    for (bool binary : {false, true}) {
        auto file = write(std::string(binary ? "bin" : "xml") + "/TarnService-Info.plist",
                          writePropertyList(goodService(), binary));
        std::string out;
        EXPECT_EQ(runTarn({"check", "service", file}, &out), 0) << out;
        EXPECT_EQ(out, file + ": OK: DOMAIN https://api.example.com/prefix, CLIENT_ID client-7\n");
        EXPECT_EQ(out.find("very-secret-value"), std::string::npos);
    }
}

TEST_F(CheckCommand, ServiceFileProblemsEachGetTheirOwnLine) {
    struct Case {
        const char* what;
        std::string content;
        std::vector<std::string> lines;
    };
    auto with = [](const char* key, json value) {
        json doc = goodService();
        doc[key] = std::move(value);
        return writePropertyList(doc);
    };
    auto without = [](std::initializer_list<const char*> keys) {
        json doc = goodService();
        for (auto* key : keys) {
            doc.erase(key);
        }
        return writePropertyList(doc);
    };
    std::vector<Case> cases = {
        {"missing keys",
         without({"DOMAIN", "CLIENT_SECRET"}),
         {"error: \"DOMAIN\" is missing", "error: \"CLIENT_SECRET\" is missing"}},
        {"number domain",
         with("DOMAIN", 42),
         {"error: \"DOMAIN\" must be a string, found an integer"}},
        {"array secret",
         with("CLIENT_SECRET", json::array({"a"})),
         {"error: \"CLIENT_SECRET\" must be a string, found an array"}},
        {"boolean id",
         with("CLIENT_ID", true),
         {"error: \"CLIENT_ID\" must be a string, found a boolean"}},
        {"trailing slash",
         with("DOMAIN", "https://api.example.com/"),
         {"error: \"DOMAIN\" ends with \"/\""}},
        {"ftp scheme",
         with("DOMAIN", "ftp://api.example.com"),
         {"error: \"DOMAIN\" has the scheme \"ftp\": it must be http or https"}},
        {"no scheme", with("DOMAIN", "api.example.com"), {"error: \"DOMAIN\" has no scheme"}},
        {"no host", with("DOMAIN", "https://"), {"error: \"DOMAIN\" has no host"}},
        {"bad port",
         with("DOMAIN", "http://127.0.0.1:99999"),
         {"error: \"DOMAIN\" has the port \"99999\""}},
        {"space",
         with("DOMAIN", "https://api.example .com"),
         {"error: \"DOMAIN\" contains white space"}},
        {"query",
         with("DOMAIN", "https://api.example.com/x?y=1"),
         {"error: \"DOMAIN\" has a query or fragment"}},
        {"not a plist", "DOMAIN=https://x", {"error: not a property list"}},
        {"array root", writePropertyList(json::array({1, 2})), {"error: the root is an array"}},
    };
    for (const auto& c : cases) {
        auto file = write(std::string(c.what) + "/TarnService-Info.plist", c.content);
        std::string out;
        EXPECT_EQ(runTarn({"check", "service", file}, &out), 1) << c.what << "\n" << out;
        for (const auto& line : c.lines) {
            EXPECT_NE(out.find(file + ": " + line), std::string::npos)
                << c.what << ": no \"" << line << "\" in\n"
                << out;
        }
        EXPECT_EQ(out.find("OK"), std::string::npos) << out;
        EXPECT_EQ(out.find("very-secret-value"), std::string::npos) << out;
    }
    std::string out;
    EXPECT_EQ(runTarn({"check", "service", (dir_.path() / "absent.plist").string()}, &out), 1);
    EXPECT_NE(out.find("error: cannot read the file"), std::string::npos) << out;
    auto misnamed = write("Service.plist", writePropertyList(goodService()));
    EXPECT_EQ(runTarn({"check", "service", misnamed}, &out), 0);
    EXPECT_NE(out.find("warning: the library only reads a file named \"TarnService-Info.plist\""),
              std::string::npos)
        << out;
}

json item(const std::string& uuid, const std::string& trigger) {
    return {{"uuid", uuid},
            {"code", "CODE-" + uuid},
            {"name", "Name " + uuid},
            {"expireDate", 1893456000000},
            {"template", "POPUP"},
            {"triggeringEventName", trigger},
            {"title", {{"text", "Title"}, {"color", "#112233"}}},
            {"body", {{"text", "Body"}, {"color", "#445566"}}},
            {"images", json::array({{{"url", "https://img.example/1.png"}}})},
            {"maxShowCount", 3},
            {"bgColor", "#FFFFFF"},
            {"subInAppCommunication",
             {{"buttons", json::array({{{"_id", "b1"},
                                        {"text", "Open"},
                                        {"action", {{"link", "app://x"}, {"type", "deep"}}}}})}}},
            {"conversionEvent", "purchase"}};
}

TEST_F(CheckCommand, InAppAnswerWithEveryBrokenItemOnItsOwnLineAndASummaryTable) {
    json good = {{"inAppCommunicationCommands", json::array({item("u-1", "add_to_cart")})},
                 {"configuration", {{"eventQueueDelay", 0.2}, {"apiRequestTimeout", 5}}}};
    auto goodFile = write("good.json", good.dump(2));
    std::string out;
    EXPECT_EQ(runTarn({"check", "inapp", goodFile}, &out), 0) << out;
    EXPECT_NE(out.find("#  uuid  name      template  trigger      maxShowCount  conversionEvent\n"
                       "0  u-1   Name u-1  POPUP     add_to_cart  3             purchase\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find(goodFile + ": OK (1 communication, 0 errors, 0 warnings)"),
              std::string::npos)
        << out;

    json broken = good;
    auto& items = broken["inAppCommunicationCommands"];
    items.push_back(item("u-2", "checkout"));
    items[1]["title"]["color"] = 7;
    items.push_back(item("u-3", "checkout"));
    items[2].erase("uuid");
    items.push_back(item("u-4", "checkout"));
    items[3]["subInAppCommunication"]["buttons"][0]["action"]["link"] = json::array();
    items.push_back(item("u-5", "add_to_cart"));
    items[4]["template"] = "BANNER";
    items[4]["subInAppCommunication"]["buttons"][0]["action"]["type"] = "DEEP";
    broken["configuration"]["conversionTimeout"] = "a day";
    auto brokenFile = write("broken.json", broken.dump());
    EXPECT_EQ(runTarn({"check", "inapp", brokenFile}, &out), 1);
    for (const std::string line : {
             "error: inAppCommunicationCommands[1].title.color: Expected a string but found a "
             "number.",
             "error: inAppCommunicationCommands[2].uuid: ",
             "error: inAppCommunicationCommands[3].subInAppCommunication.buttons[0].action.link: "
             "Expected a string but found an array.",
             "error: configuration.conversionTimeout: Expected an integer but found a string.",
             "warning: inAppCommunicationCommands[4].template: \"BANNER\" decodes as unknown",
             "warning: inAppCommunicationCommands[4].subInAppCommunication.buttons[0].action.type: "
             "\"DEEP\" decodes as unknown",
             "warning: inAppCommunicationCommands[4]: the trigger \"add_to_cart\" is also the "
             "trigger of inAppCommunicationCommands[0]; only the first is ever shown",
             "INVALID (5 communications, 4 errors, 3 warnings)",
         }) {
        EXPECT_NE(out.find(brokenFile + ": " + line), std::string::npos)
            << "no \"" << line << "\" in\n"
            << out;
    }
    // The valid communications are still listed; the broken ones are not.
    EXPECT_NE(out.find("\n4  u-5   Name u-5  unknown   add_to_cart"), std::string::npos) << out;
    EXPECT_EQ(out.find("u-2   Name"), std::string::npos) << out;

    // Warnings alone pass, unless --strict.
    json warned = good;
    warned["inAppCommunicationCommands"].push_back(item("u-9", "add_to_cart"));
    auto warnedFile = write("warned.json", warned.dump());
    EXPECT_EQ(runTarn({"check", "inapp", warnedFile}, &out), 0) << out;
    EXPECT_EQ(runTarn({"check", "inapp", "--strict", warnedFile}, &out), 1) << out;
    EXPECT_NE(out.find("OK (2 communications, 0 errors, 1 warning)"), std::string::npos) << out;

    // Documents that are not answers at all.
    EXPECT_EQ(runTarn({"check", "inapp", write("text.json", "{\"a\":")}, &out), 1);
    EXPECT_NE(out.find("error: not JSON: "), std::string::npos) << out;
    EXPECT_EQ(runTarn({"check", "inapp", write("array.json", "[1]")}, &out), 1);
    EXPECT_NE(out.find("error: the root is an array, not an object"), std::string::npos) << out;
    EXPECT_EQ(
        runTarn({"check", "inapp", write("list.json", R"({"inAppCommunicationCommands":{}})")},
                &out),
        1);
    EXPECT_NE(out.find("error: inAppCommunicationCommands: expected an array but found a "
                       "dictionary"),
              std::string::npos)
        << out;
    EXPECT_EQ(runTarn({"check", "inapp", write("empty.json", "{}")}, &out), 0);
    EXPECT_NE(out.find("warning: configuration: absent, so the library shows no communication"),
              std::string::npos)
        << out;
}

TEST_F(CheckCommand, EverySubcommandHasHelpAndBadUsageFails) {
    for (std::vector<std::string> args : {std::vector<std::string>{"--help"},
                                          {"demo", "--help"},
                                          {"serve", "--help"},
                                          {"check", "--help"},
                                          {"check", "service", "--help"},
                                          {"check", "inapp", "--help"}}) {
        std::string out;
        EXPECT_EQ(runTarn(args, &out), 0) << args[0];
        EXPECT_NE(out.find("Usage: tarn"), std::string::npos) << out;
    }
    std::string out;
    std::string err;
    EXPECT_NE(runTarn({}, &out, &err), 0);
    EXPECT_NE(runTarn({"check", "service"}, &out, &err), 0);
    EXPECT_NE(err.find("FILE is required"), std::string::npos) << err;
    EXPECT_NE(runTarn({"serve", "--fault-share", "2"}, &out, &err), 0);
}

}  // namespace
}  // namespace tarn::test
