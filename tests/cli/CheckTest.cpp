// `tarn check service` and `tarn check inapp` on good and broken files, run as a user would.
#include <sys/stat.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/TestSupport.h"
#include "tarn/platform/PropertyList.h"

namespace tarn::test {
namespace {

using nlohmann::json;

class CheckCommand : public CliTest {
  protected:
    /// Writes `content` (none: nothing) to `name` in the test's folder, runs `tarn check <args>`
    /// on it, expects `status` and each of `lines` after "<file>: "; the standard output.
    std::string check(std::vector<std::string> args, const std::string& name,
                      std::optional<std::string> content, int status,
                      const std::vector<std::string>& lines = {}) {
        auto file = (dir_.path() / name).string();
        std::filesystem::create_directories((dir_.path() / name).parent_path());
        if (content)
            std::ofstream(file, std::ios::binary) << *content;
        args.insert(args.begin(), "check");
        args.push_back(file);
        auto run = runTarn(args);
        EXPECT_EQ(run->wait(), status) << run->out;
        for (const auto& line : lines)
            EXPECT_THAT(run->out, HasSubstr(file + ": " + line));
        EXPECT_THAT(run->out, Not(HasSubstr("very-secret-value")));
        return run->out;
    }
    TempDir dir_;
};

const json kService = {{"DOMAIN", "https://api.example.com/prefix"},
                       {"CLIENT_ID", "client-7"},
                       {"CLIENT_SECRET", "very-secret-value"},
                       {"EXTRA", 12}};

TEST_F(CheckCommand, ServiceFileIsAcceptedOrEachProblemGetsItsOwnLineWithoutTheSecret) {
    for (bool binary : {false, true}) {
        auto name = std::string(binary ? "bin" : "xml") + "/TarnService-Info.plist";
        auto file = (dir_.path() / name).string();
        EXPECT_EQ(check({"service"}, name, writePropertyList(kService, binary), 0),
                  file + ": OK: DOMAIN https://api.example.com/prefix, CLIENT_ID client-7\n");
    }
    auto with = [](json changes) {  // a null value removes the key
        json doc = kService;
        doc.merge_patch(changes);
        return writePropertyList(doc);
    };
    auto domain = [&](const char* value) { return with({{"DOMAIN", value}}); };
    auto missing = with({{"DOMAIN", nullptr}, {"CLIENT_SECRET", nullptr}});
    const std::vector<std::pair<std::string, std::string>> cases = {
        {missing, "\"DOMAIN\" is missing"},
        {missing, "\"CLIENT_SECRET\" is missing"},
        {with({{"DOMAIN", 42}}), "\"DOMAIN\" must be a string, found an integer"},
        {with({{"CLIENT_SECRET", json::array({"a"})}}),
         "\"CLIENT_SECRET\" must be a string, found an array"},
        {with({{"CLIENT_ID", true}}), "\"CLIENT_ID\" must be a string, found a boolean"},
        {domain("https://api.example.com/"), "\"DOMAIN\" ends with \"/\""},
        {domain("ftp://api.example.com"),
         "\"DOMAIN\" has the scheme \"ftp\": it must be http or https"},
        {domain("api.example.com"), "\"DOMAIN\" has no scheme"},
        {domain("https://"), "\"DOMAIN\" has no host"},
        {domain("http://127.0.0.1:99999"), "\"DOMAIN\" has the port \"99999\""},
        {domain("https://api.example .com"), "\"DOMAIN\" contains white space"},
        {domain("https://api.example.com/x?y=1"), "\"DOMAIN\" has a query or fragment"},
        {"DOMAIN=https://x", "not a property list"},
        {writePropertyList(json::array({1, 2})), "the root is an array"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_THAT(check({"service"}, std::to_string(i) + "/TarnService-Info.plist",
                          cases[i].first, 1, {"error: " + cases[i].second}),
                    Not(HasSubstr("OK")));
    }
    check({"service"}, "absent.plist", std::nullopt, 1, {"error: cannot read the file"});
    check({"service"}, "Service.plist", writePropertyList(kService), 0,
          {"warning: the library only reads a file named \"TarnService-Info.plist\""});
}

json item(const std::string& uuid, const std::string& trigger) {
    json item = json::parse(R"({"expireDate": 1893456000000, "template": "POPUP", "maxShowCount": 3,
        "title": {"text": "Title", "color": "#112233"}, "body": {"text": "Body", "color": "#445566"},
        "images": [{"url": "https://img.example/1.png"}], "bgColor": "#FFFFFF",
        "subInAppCommunication": {"buttons": [{"_id": "b1", "text": "Open",
                                               "action": {"link": "app://x", "type": "deep"}}]},
        "conversionEvent": "purchase"})");
    item.update({{"uuid", uuid},
                 {"code", "CODE-" + uuid},
                 {"name", "Name " + uuid},
                 {"triggeringEventName", trigger}});
    return item;
}

TEST_F(CheckCommand, InAppAnswerWithEveryBrokenItemOnItsOwnLineAndASummaryTable) {
    json good = {{"inAppCommunicationCommands", json::array({item("u-1", "add_to_cart")})},
                 {"configuration", {{"eventQueueDelay", 0.2}, {"apiRequestTimeout", 5}}}};
    auto out = check({"inapp"}, "good.json", good.dump(2), 0,
                     {"OK (1 communication, 0 errors, 0 warnings)"});
    EXPECT_THAT(
        out, HasSubstr("#  uuid  name      template  trigger      maxShowCount  conversionEvent\n"
                       "0  u-1   Name u-1  POPUP     add_to_cart  3             purchase\n"));

    json broken = good;
    auto& items = broken["inAppCommunicationCommands"];
    for (const char* uuid : {"u-2", "u-3", "u-4"})
        items.push_back(item(uuid, "checkout"));
    items.push_back(item("u-5", "add_to_cart"));
    items[1]["title"]["color"] = 7;
    items[2].erase("uuid");
    items[3]["subInAppCommunication"]["buttons"][0]["action"]["link"] = json::array();
    items[4]["template"] = "BANNER";
    items[4]["subInAppCommunication"]["buttons"][0]["action"]["type"] = "DEEP";
    broken["configuration"]["conversionTimeout"] = "a day";
    out = check(
        {"inapp"}, "broken.json", broken.dump(), 1,
        {"error: inAppCommunicationCommands[1].title.color: Expected a string but found a number.",
         "error: inAppCommunicationCommands[2].uuid: ",
         "error: inAppCommunicationCommands[3].subInAppCommunication.buttons[0].action.link: "
         "Expected a string but found an array.",
         "error: configuration.conversionTimeout: Expected an integer but found a string.",
         "warning: inAppCommunicationCommands[4].template: \"BANNER\" decodes as unknown",
         "warning: inAppCommunicationCommands[4].subInAppCommunication.buttons[0].action.type: "
         "\"DEEP\" decodes as unknown",
         "warning: inAppCommunicationCommands[4]: the trigger \"add_to_cart\" is also the trigger "
         "of inAppCommunicationCommands[0]; only the first is ever shown",
         "INVALID (5 communications, 4 errors, 3 warnings)"});
    // The valid communications are still listed; the broken ones are not.
    EXPECT_THAT(out, HasSubstr("\n4  u-5   Name u-5  unknown   add_to_cart"));
    EXPECT_THAT(out, Not(HasSubstr("u-2   Name")));

    // Warnings alone pass, unless --strict.
    good["inAppCommunicationCommands"].push_back(item("u-9", "add_to_cart"));
    check({"inapp"}, "warned.json", good.dump(), 0);
    check({"inapp", "--strict"}, "warned.json", good.dump(), 1,
          {"OK (2 communications, 0 errors, 1 warning)"});

    // Documents that are not answers at all.
    check({"inapp"}, "text.json", "{\"a\":", 1, {"error: not JSON: "});
    check({"inapp"}, "array.json", "[1]", 1, {"error: the root is an array, not an object"});
    check({"inapp"}, "list.json", R"({"inAppCommunicationCommands":{}})", 1,
          {"error: inAppCommunicationCommands: expected an array but found a dictionary"});
    check({"inapp"}, "empty.json", "{}", 0,
          {"warning: configuration: absent, so the library shows no communication"});
}

TEST_F(CheckCommand, InitServiceWritesAPrivateFileThatTheCheckAcceptsAndRefusesBadInput) {
    struct stat info {};
    for (bool binary : {false, true}) {
        auto file = (dir_.path() / (binary ? "bin.plist" : "xml.plist")).string();
        std::vector<std::string> args{"init-service",      "--domain", "https://api.example.com",
                                      "--client-id",       "client-7", "--client-secret",
                                      "very-secret-value", file};
        if (binary)
            args.push_back("--binary");
        auto run = runTarn(args);
        EXPECT_EQ(run->wait(), 0) << run->err;
        EXPECT_THAT(run->out, Not(HasSubstr("very-secret-value")));
        ASSERT_EQ(::stat(file.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        std::ifstream in(file, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        EXPECT_EQ(bytes.rfind("bplist00", 0) == 0, binary);
        auto parsed = parsePropertyList(bytes);
        ASSERT_TRUE(parsed);
        EXPECT_EQ(*parsed, (json{{"DOMAIN", "https://api.example.com"},
                                 {"CLIENT_ID", "client-7"},
                                 {"CLIENT_SECRET", "very-secret-value"}}));
        auto checked = runTarn({"check", "service", file});
        EXPECT_EQ(checked->wait(), 0) << checked->out;

        // An existing file stays as it is unless --force is given.
        auto again = runTarn(args);
        EXPECT_EQ(again->wait(), 1);
        EXPECT_THAT(again->err, HasSubstr("add --force"));
        args.push_back("--force");
        EXPECT_EQ(runTarn(args)->wait(), 0);
    }

    // A domain the check would refuse, empty credentials, and a planted link are refused, and
    // nothing is written.
    auto refused = (dir_.path() / "refused.plist").string();
    auto slash = runTarn({"init-service", "--domain", "https://api.example.com/", "--client-id",
                          "c", "--client-secret", "s", refused});
    EXPECT_EQ(slash->wait(), 1);
    EXPECT_THAT(slash->err, HasSubstr("ends with \"/\""));
    auto empty = runTarn({"init-service", "--domain", "https://api.example.com", "--client-id", "",
                          "--client-secret", "s", refused});
    EXPECT_EQ(empty->wait(), 1);
    EXPECT_FALSE(std::filesystem::exists(refused));
    auto target = dir_.path() / "elsewhere";
    std::filesystem::create_symlink(target, refused);
    auto planted = runTarn({"init-service", "--domain", "https://api.example.com", "--client-id",
                            "c", "--client-secret", "s", "--force", refused});
    EXPECT_EQ(planted->wait(), 1);
    EXPECT_FALSE(std::filesystem::exists(target));
}

}  // namespace
}  // namespace tarn::test
