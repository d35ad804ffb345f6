// The ways a host writes an event's parameters compile, and each stores what it says.
#include <gtest/gtest.h>

#include "support/PipelineFixture.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"

using namespace tarn;
using namespace tarn::test;
using nlohmann::json;

namespace {

class CallFormsTest : public PipelineTest {
  protected:
    /// The host's own members of the stored event `name`'s parameters (the library's are left
    /// out), or a string saying why there is none.
    json hostParameters(const std::string& name) const {
        for (const auto& body : storedEvents()) {
            if (body.value("name", "") != name) {
                continue;
            }
            json own = json::object();
            const json parameters = body.value("parameters", json::object());
            for (const auto& [key, value] : parameters.items()) {
                if (key == "sku" || key == "qty" || key == "note") {
                    own[key] = value;
                }
            }
            return own;
        }
        return "no stored event " + name;
    }
};

}  // namespace

TEST_F(CallFormsTest, EveryParameterFormCompilesAndStoresWhatItSays) {
    auto& events = TarnEvent::shared();
    auto screen = std::make_shared<NamedScreen>("Shop");
    int actions = 0;
    auto onAction = [&actions](const AppCommunicationAction&) { ++actions; };

    const json kept{{"sku", "K-1"}};
    std::optional<json> maybe = json{{"qty", 3}};
    std::optional<json> none;

    events.sendCustomEvent(screen, std::nullopt, "braces_empty", {});
    events.sendCustomEvent(screen, std::nullopt, "braces_empty_cb", {}, onAction);
    events.sendCustomEvent(screen, std::nullopt, "braces_object", {{"sku", "A-42"}});
    events.sendCustomEvent(screen, std::nullopt, "braces_object_cb", {{"sku", "A-42"}, {"qty", 2}},
                           onAction);
    events.sendCustomEvent(screen, std::nullopt, "json_kept", kept);
    events.sendCustomEvent(screen, std::nullopt, "json_kept_cb", kept, onAction);
    events.sendCustomEvent(screen, std::nullopt, "json_temporary", json{{"note", "t"}});
    events.sendCustomEvent(screen, std::nullopt, "optional_set", maybe);
    events.sendCustomEvent(screen, std::nullopt, "optional_empty", none, onAction);
    events.sendCustomEvent(screen, std::nullopt, "optional_temporary",
                           std::optional<json>(json{{"note", "o"}}));
    events.sendCustomEvent(screen, std::nullopt, "nullopt", std::nullopt);
    events.sendCustomEvent(screen, std::nullopt, "nullopt_cb", std::nullopt, onAction);
    events.sendCustomEvent(screen, std::string("Home"), "no_parameters");
    events.sendLoginEvent(screen, std::nullopt, "actor-1", {{"note", "in"}});
    events.sendLoginEvent(screen, std::nullopt, "actor-2", {});
    events.sendLoginEvent(screen, std::nullopt, "actor-3");

    const json empty = json::object();
    EXPECT_EQ(hostParameters("braces_empty"), empty);
    EXPECT_EQ(hostParameters("braces_empty_cb"), empty);
    EXPECT_EQ(hostParameters("braces_object"), (json{{"sku", "A-42"}}));
    EXPECT_EQ(hostParameters("braces_object_cb"), (json{{"sku", "A-42"}, {"qty", 2}}));
    EXPECT_EQ(hostParameters("json_kept"), kept);
    EXPECT_EQ(hostParameters("json_kept_cb"), kept);
    EXPECT_EQ(hostParameters("json_temporary"), (json{{"note", "t"}}));
    EXPECT_EQ(hostParameters("optional_set"), (json{{"qty", 3}}));
    EXPECT_EQ(hostParameters("optional_empty"), empty);
    EXPECT_EQ(hostParameters("optional_temporary"), (json{{"note", "o"}}));
    EXPECT_EQ(hostParameters("nullopt"), empty);
    EXPECT_EQ(hostParameters("nullopt_cb"), empty);
    EXPECT_EQ(hostParameters("no_parameters"), empty);
    EXPECT_EQ(hostParameters("login"), (json{{"note", "in"}}));
    EXPECT_EQ(storedEvents().size(), 16u + 2u);  // and two actor changes
    EXPECT_EQ(actions, 0);                       // no communication was shown
    // The kept object is the host's own, untouched by the calls.
    EXPECT_EQ(kept, (json{{"sku", "K-1"}}));
}

TEST_F(CallFormsTest, TheConfigurationWrittenByFieldNameEqualsThePositionalOne) {
    TarnInitConfig named(TarnInitOptions{
        .bundle = Bundle("/opt/app"),
        .applicationName = "MyApp",
        .actorId = "a-1",
        .authorization = "Bearer x",
        .applicationLifecyleAuto = true,
    });
    TarnInitConfig positional(Bundle("/opt/app"), "MyApp", "a-1", std::nullopt, "Bearer x",
                              std::nullopt, std::nullopt, true, true, false);
    EXPECT_EQ(named.bundle.path(), positional.bundle.path());
    EXPECT_EQ(named.applicationName, positional.applicationName);
    EXPECT_EQ(named.actorId, positional.actorId);
    EXPECT_EQ(named.domainUrl, positional.domainUrl);
    EXPECT_EQ(named.authorization, positional.authorization);
    EXPECT_EQ(named.clientId, positional.clientId);
    EXPECT_EQ(named.clientSecret, positional.clientSecret);
    EXPECT_EQ(named.applicationLifecyleAuto, positional.applicationLifecyleAuto);
    EXPECT_EQ(named.isSendActivityLifeCycleEventEnabled,
              positional.isSendActivityLifeCycleEventEnabled);
    EXPECT_EQ(named.forceInitialize, positional.forceInitialize);

    // Left out, every field takes the documented default, the bundle the main one.
    TarnInitConfig defaults(TarnInitOptions{.applicationName = "MyApp"});
    EXPECT_EQ(defaults.bundle.path(), Bundle::main().path());
    EXPECT_FALSE(defaults.actorId || defaults.authorization || defaults.domainUrl);
    EXPECT_FALSE(defaults.applicationLifecyleAuto);
    EXPECT_TRUE(defaults.isSendActivityLifeCycleEventEnabled);
    EXPECT_FALSE(defaults.forceInitialize);
}
