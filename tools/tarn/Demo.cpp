// `tarn demo`: a host's user journey against the development server on a loopback port.
//
// Output. The library prints its log lines to standard output through stdio and offers no switch
// to silence them, so the demo takes file descriptor 1 for the library alone: at start it keeps a
// duplicate of the original standard output for its own lines and points descriptor 1 at a log
// file in the demo's temporary folder ("library.log"; kept with --keep), or, with --verbose, at
// standard error so that the library's lines show up interleaved with the journey. With --json the
// journey goes to standard error and the saved standard output carries only the JSON lines.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "Commands.h"
#include "Output.h"
#include "devserver/DevServer.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/inapp/InAppModel.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PropertyList.h"

namespace tarn::cli {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr const char* kClientId = "demo-host";
constexpr const char* kClientSecret = "demo-secret-not-for-production";
constexpr const char* kApplicationName = "TarnDemo";
constexpr const char* kBundleIdentifier = "com.example.tarndemo";
constexpr const char* kUserId = "demo-user-42";
constexpr const char* kPopupCode = "DEMO-CART-10";
constexpr const char* kTrigger = "add_to_cart";
constexpr const char* kConversion = "purchase";

/// The in-app answer the demo's server gives: one popup bound to the cart event with the purchase
/// as its conversion, one survey bound to an event the journey never sends, and a configuration
/// block that makes the queue tick quickly.
json demoInAppAnswer() {
    json popup = {
        {"uuid", "5c6b1f0e-demo-popup"},
        {"code", kPopupCode},
        {"journey", "cart-recovery"},
        {"name", "Cart reminder"},
        {"expireDate", 4102444800000},
        {"template", "POPUP"},
        {"triggeringEventName", kTrigger},
        {"title", {{"text", "10% off what is in your cart"}, {"color", "#1A73E8"}}},
        {"body",
         {{"text", "Complete your order in the next hour and the discount is yours."},
          {"color", "#202124"}}},
        {"images", json::array({{{"url", "https://cdn.example.com/demo/cart-1.png"}},
                                {{"url", "https://cdn.example.com/demo/cart-2.png"}}})},
        {"maxShowCount", 2},
        {"bgColor", "#FFFFFF"},
        {"subInAppCommunication",
         {{"template", "POPUP"},
          {"buttons",
           json::array(
               {{{"_id", "btn-checkout"},
                 {"text", "Go to checkout"},
                 {"textColor", "#FFFFFF"},
                 {"color", "#1A73E8"},
                 {"action", {{"link", "tarndemo://checkout"}, {"type", "deep"}}}},
                {{"_id", "btn-later"},
                 {"text", "Later"},
                 {"textColor", "#1A73E8"},
                 {"color", "#FFFFFF"},
                 {"action", {{"link", "https://example.com/offers"}, {"type", "url"}}}}})}}},
        {"journeyVersion", 3},
        {"conversionEvent", kConversion}};
    json survey = {{"uuid", "9a0e7d2c-demo-survey"},
                   {"code", "DEMO-NPS-1"},
                   {"name", "How are we doing?"},
                   {"expireDate", 4102444800000},
                   {"template", "SURVEY"},
                   {"triggeringEventName", "order_delivered"},
                   {"title", {{"text", "Rate us"}, {"color", "#000000"}}},
                   {"body", {{"text", "One question, ten seconds."}, {"color", "#000000"}}},
                   {"maxShowCount", 1},
                   {"bgColor", "#FFFFFF"},
                   {"subInAppCommunication", {{"template", "SURVEY"}, {"surveyCode", "NPS-1"}}}};
    json configuration = {{"inAppMaxShowDuration", 15},   {"batteryEnabled", true},
                          {"wifiStatusEnabled", true},    {"diskCapacityEnabled", false},
                          {"locationEnabled", false},     {"apiRequestRetryCount", 0},
                          {"apiRequestTimeout", 5},       {"eventQueueDelay", 0.1},
                          {"conversionTimeout", 86400000}};
    return {{"inAppCommunicationCommands", json::array({popup, survey})},
            {"configuration", configuration}};
}

/// Where the demo's own lines go, with the library's stdout taken away from it. Thread-safe: the
/// journey, the main queue (the popup) and the server's workers (progress) all write to it.
class Console {
  public:
    explicit Console(const DemoOptions& options, const fs::path& libraryLog) {
        int saved = dup(STDOUT_FILENO);
        fflush(stdout);
        out_ = fdopen(saved, "w");
        journey_ = options.quiet ? nullptr : (options.json ? stderr : out_);
        int target = options.verbose
                         ? dup(STDERR_FILENO)
                         : open(libraryLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (target >= 0) {
            dup2(target, STDOUT_FILENO);
            close(target);
        }
        tty_ = journey_ && isatty(fileno(journey_));
    }
    ~Console() {
        if (out_) {
            std::fclose(out_);
        }
    }
    /// The final results (table or JSON lines).
    void result(const std::string& text) {
        std::lock_guard lock(mutex_);
        emit(out_, text);
    }
    /// A step of the journey.
    void say(const std::string& text) {
        std::lock_guard lock(mutex_);
        if (journey_) {
            closeProgress();
            emit(journey_, text + "\n");
        }
    }
    /// A progress line, rewritten in place on a terminal.
    void progress(const std::string& text) {
        std::lock_guard lock(mutex_);
        if (!journey_ || text == lastProgress_) {
            return;
        }
        lastProgress_ = text;
        if (tty_) {
            emit(journey_, "\r\033[K" + text);
            open_ = true;
        } else {
            emit(journey_, text + "\n");
        }
    }
    void endProgress() {
        std::lock_guard lock(mutex_);
        closeProgress();
    }
    /// A problem: always shown, on standard error.
    void problem(const std::string& text) {
        std::lock_guard lock(mutex_);
        closeProgress();
        emit(stderr, "tarn demo: " + text + "\n");
    }

  private:
    void closeProgress() {
        if (open_) {
            emit(journey_, "\n");
            open_ = false;
        }
    }
    std::mutex mutex_;
    std::FILE* out_ = nullptr;
    std::FILE* journey_ = nullptr;
    bool tty_ = false;
    bool open_ = false;
    std::string lastProgress_;
};

/// What the popup presenter and the host's action callback saw, shared with the journey.
struct Stage {
    std::mutex mutex;
    std::condition_variable changed;
    std::shared_ptr<InAppViewController> shownScreen;
    std::vector<AppCommunicationAction> actions;
};

std::string hexColor(const Color& color) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "#%02X%02X%02X", color.red, color.green, color.blue);
    return buffer;
}

/// The demo host's in-app screen: draws the popup's rows in the terminal, reports it opened and
/// hands itself to the journey, whose simulated user then taps a button.
class TerminalInAppScreen final : public InAppViewController {
  public:
    TerminalInAppScreen(Console& console, Stage& stage) : console_(console), stage_(stage) {}
    std::weak_ptr<TerminalInAppScreen> self;

    void present(const ScreenRef& presenter) override {
        if (!inApp) {
            return;
        }
        const auto& item = inApp->appCommunucation;
        std::string page = inApp->pageName.pageName.value_or(presenter ? presenter->className()
                                                                       : std::string("-"));
        std::string text = "    +-- " + std::string(rawValue(item.templateType)) + " \"" +
                           item.name + "\" (" + item.code + ") over " + page + "\n";
        for (const auto& row : inApp->presentations) {
            if (auto* title = std::get_if<TitleTableViewCellPresentation>(&row)) {
                text += "    | " + title->title + "   [title " + hexColor(title->color) + "]\n";
            } else if (auto* images = std::get_if<ImageTableViewCellPresentation>(&row)) {
                for (std::size_t i = 0; i < images->imageUrls.size(); ++i) {
                    text += std::string(i == 0 ? "    | images: " : "    |         ") +
                            images->imageUrls[i] + "\n";
                }
            } else if (auto* body = std::get_if<BodyTextTableViewCellPresentation>(&row)) {
                text += "    | " + body->text + "   [body " + hexColor(body->color) + "]\n";
            } else if (auto* button = std::get_if<ButtonTableViewCellPresentation>(&row)) {
                text += "    | [ " + button->button.text.value_or("?") + " ]";
                if (button->button.action) {
                    text += " -> " +
                            std::string(button->button.action->type
                                            ? rawValue(*button->button.action->type)
                                            : "-") +
                            " " + button->button.action->link.value_or("");
                }
                text += "\n";
            }
        }
        text += "    +--";
        console_.say(text);
        reportOpened();
        std::lock_guard lock(stage_.mutex);
        stage_.shownScreen = self.lock();
        stage_.changed.notify_all();
    }

  private:
    Console& console_;
    Stage& stage_;
};

/// The events the journey must produce, in the order the server must receive them.
const std::vector<std::string>& expectedEvents() {
    static const std::vector<std::string> names = {
        "install",       "sdk_initialize",        "login",     "page_in", "page_out", kTrigger,
        "in_app_opened", "in_app_button_clicked", kConversion, "logout"};
    return names;
}

/// Whether the expected events arrived in order (other events may come between them);
/// `matched` receives the indexes of the matching received events.
bool matchExpected(const std::vector<devserver::ReceivedEvent>& events,
                   std::vector<std::size_t>* matched = nullptr) {
    std::size_t next = 0;
    for (std::size_t i = 0; i < events.size() && next < expectedEvents().size(); ++i) {
        if (events[i].name == expectedEvents()[next]) {
            if (matched) {
                matched->push_back(i);
            }
            ++next;
        }
    }
    return next == expectedEvents().size();
}

/// The expected events that have not arrived at all (each received event counts once).
std::vector<std::string> missingExpected(const std::vector<devserver::ReceivedEvent>& events) {
    std::multiset<std::string> received;
    for (const auto& event : events) {
        received.insert(event.name);
    }
    std::vector<std::string> missing;
    for (const auto& name : expectedEvents()) {
        if (auto it = received.find(name); it != received.end()) {
            received.erase(it);
        } else {
            missing.push_back(name);
        }
    }
    return missing;
}

std::string seconds(double value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%g s", value);
    return buffer;
}

bool waitFor(const std::function<bool()>& done, std::chrono::duration<double> timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

int runDemoJourney(const DemoOptions& options, const fs::path& root, Console& console) {
    devserver::DevServerOptions serverOptions;
    serverOptions.clientId = kClientId;
    serverOptions.clientSecret = kClientSecret;
    serverOptions.inappAnswer = demoInAppAnswer();
    serverOptions.faults.share = options.faultShare;
    serverOptions.faults.status = options.faultStatus;
    serverOptions.faults.paths = {devserver::kEventPath};
    devserver::DevServer server(serverOptions);
    std::string error;
    if (!server.start(&error)) {
        console.problem(error);
        return 1;
    }
    console.say("1. dev server listening on " + server.baseUrl() + " (client \"" + kClientId +
                "\", 2 communications)");
    if (options.faultShare > 0) {
        console.say("   it fails " + std::to_string(static_cast<int>(options.faultShare * 100)) +
                    "% of event requests with " + std::to_string(options.faultStatus));
    }

    fs::path bundle = root / "bundle";
    fs::create_directories(bundle);
    std::ofstream(bundle / "TarnService-Info.plist") << writePropertyList(
        {{"DOMAIN", server.baseUrl()}, {"CLIENT_ID", kClientId}, {"CLIENT_SECRET", kClientSecret}});
    std::ofstream(bundle / "Info.plist") << writePropertyList(
        {{"CFBundleIdentifier", kBundleIdentifier}, {"CFBundleName", kApplicationName}});
    setDataDirectory(root / "data");
    Bundle::setMain(bundle);
    console.say("2. bundle " + bundle.string() + " holds TarnService-Info.plist (DOMAIN " +
                server.baseUrl() + ")");

    std::size_t expected = expectedEvents().size();
    server.setEventObserver([&](const devserver::ReceivedEvent&) {
        auto events = server.events();
        console.progress("   server received " +
                         std::to_string(expected - missingExpected(events).size()) + "/" +
                         std::to_string(expected) + " expected events");
    });

    Stage stage;
    InAppManager::shared().registerInAppScreen([&console, &stage]() {
        auto screen = std::make_shared<TerminalInAppScreen>(console, stage);
        screen->self = screen;
        return std::static_pointer_cast<InAppViewController>(screen);
    });

    TarnInitConfig config(Bundle::main(), kApplicationName, std::nullopt, std::nullopt,
                          std::nullopt, std::nullopt, std::nullopt,
                          /*applicationLifecyleAuto=*/false,
                          /*isSendActivityLifeCycleEventEnabled=*/false,
                          /*forceInitialize=*/false);
    console.say("3. initialise " + std::string(kApplicationName) +
                " (first run: a guest actor, manual page tracking)");
    Tarn::shared().initialize(config);
    bool settled = waitFor(
        [] {
            return ConfigManager::shared().getInitializeStatus() !=
                   InitializeStatusType::initializing;
        },
        std::chrono::duration<double>(options.timeout));
    auto status = ConfigManager::shared().getInitializeStatus();
    if (!settled || status != InitializeStatusType::initialized) {
        console.problem(std::string("initialisation ended as ") + rawValue(status) +
                        " (see the library's log" +
                        (options.verbose ? ")" : " in " + (root / "library.log").string() + ")"));
        return 1;
    }
    std::string guest = Tarn::shared().actorId.get();
    console.say("   initialised; guest actor " + guest);

    auto& events = TarnEvent::shared();
    auto product = std::make_shared<NamedScreen>("ProductScreen");
    console.say(std::string("4. login as ") + kUserId);
    events.sendLoginEvent(product, std::string("ProductPage"), kUserId);
    console.say("5. page in and out of ProductPage");
    events.sendPageInEvent(product, std::string("ProductPage"));
    events.sendPageOutEvent(product, std::string("ProductPage"));

    console.say(std::string("6. custom event \"") + kTrigger + "\", which triggers a popup:");
    events.sendCustomEvent(product, std::string("ProductPage"), kTrigger,
                           json{{"sku", "SKU-1042"}, {"quantity", 1}, {"price", 59.9}},
                           [&stage, &console](const AppCommunicationAction& action) {
                               console.say("   host action callback: " + describe(action));
                               std::lock_guard lock(stage.mutex);
                               stage.actions.push_back(action);
                               stage.changed.notify_all();
                           });
    std::shared_ptr<InAppViewController> screen;
    {
        std::unique_lock lock(stage.mutex);
        stage.changed.wait_for(lock, 5s, [&] { return stage.shownScreen != nullptr; });
        screen = stage.shownScreen;
    }
    std::vector<std::string> problems;
    if (!screen || !screen->inApp) {
        problems.push_back("the popup was not presented");
    } else {
        const AppCommunicationButton* first = nullptr;
        for (const auto& row : screen->inApp->presentations) {
            if (auto* button = std::get_if<ButtonTableViewCellPresentation>(&row)) {
                first = &button->button;
                break;
            }
        }
        if (!first) {
            problems.push_back("the popup has no button");
        } else {
            console.say("7. the user taps \"" + first->text.value_or("") + "\"");
            screen->reportButtonClicked(*first);
        }
    }
    {
        std::lock_guard lock(stage.mutex);
        if (stage.actions.empty()) {
            problems.push_back("the host's action callback was not called");
        }
    }

    console.say(std::string("8. custom event \"") + kConversion +
                "\", the popup's conversion event");
    events.sendCustomEvent(product, std::string("CheckoutPage"), kConversion,
                           json{{"orderId", "ORD-7731"}, {"amount", 53.91}, {"currency", "EUR"}});
    console.say("9. logout");
    events.sendLogoutEvent();

    console.say("   waiting for the queue to drain");
    bool arrived = waitFor([&] { return matchExpected(server.events()); },
                           std::chrono::duration<double>(options.timeout));
    // The timer stops by itself once the store is empty.
    waitFor([] { return !EventQueueManager::shared().isTimerActive.load(); }, 2s);
    console.endProgress();
    InAppManager::shared().registerInAppScreen(nullptr);
    server.stop();

    auto received = server.events();
    std::vector<std::size_t> matched;
    matchExpected(received, &matched);
    if (!arrived) {
        std::string missing;
        for (const auto& name : missingExpected(received)) {
            missing += (missing.empty() ? "" : ", ") + name;
        }
        problems.push_back(
            missing.empty() ? "the expected events arrived out of order"
                            : "missing after " + seconds(options.timeout) +
                                  " (the library does not send a refused event again): " + missing);
    }
    auto eventAt = [&](const std::string& name) -> const devserver::ReceivedEvent* {
        for (std::size_t i = 0; i < matched.size(); ++i) {
            if (expectedEvents()[i] == name) {
                return &received[matched[i]];
            }
        }
        return nullptr;
    };
    if (auto* purchase = eventAt(kConversion);
        purchase && purchase->conversionCode.value_or("") != kPopupCode) {
        problems.push_back(std::string("\"") + kConversion +
                           "\" does not carry the popup's conversion code " + kPopupCode);
    }
    for (const char* name : {"login", "logout"}) {
        if (auto* event = eventAt(name); event && event->actorId != kUserId) {
            problems.push_back(std::string("\"") + name + "\" carries the actor " + event->actorId +
                               ", not " + kUserId);
        }
    }
    if (auto* install = eventAt("install"); install && install->actorId != guest) {
        problems.push_back("\"install\" carries the actor " + install->actorId +
                           ", not the guest " + guest);
    }

    if (options.json) {
        std::string lines;
        for (const auto& event : received) {
            lines += event.body + "\n";
        }
        console.result(lines);
    } else {
        // Every event request, refused ones too, numbered as the server counted its requests.
        Table table({"request", "event", "actor", "conversion code", "answer"});
        for (const auto& event : server.eventAttempts()) {
            table.add({std::to_string(event.sequence), event.name, event.actorId,
                       event.conversionCode.value_or("-"), std::to_string(event.status)});
        }
        console.result("\nThe server received, in order:\n" + table.render());
    }
    for (const auto& p : problems) {
        console.problem(p);
    }
    if (!problems.empty()) {
        return 1;
    }
    console.say("OK: all " + std::to_string(expected) + " expected events arrived in order");
    return 0;
}

}  // namespace

int runDemo(const DemoOptions& options) {
    char pattern[] = "/tmp/tarn-demo-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (!made) {
        emit(stderr, "tarn demo: cannot create a temporary folder\n");
        return 1;
    }
    fs::path root = made;
    Console console(options, root / "library.log");
    int status = runDemoJourney(options, root, console);
    if (options.keep) {
        console.say("kept " + root.string() + " (bundle/, data/, library.log)");
    } else {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    return status;
}

}  // namespace tarn::cli
