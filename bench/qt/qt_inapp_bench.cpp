// The Qt popup's speed on the GUI thread (offscreen platform), against the loopback server.
//
// BM_CustomEventToPopupShown: wall time from `sendCustomEvent` (event stored, communication
// chosen, main-queue hop, popup built and shown) to the popup being visible, laid out and painted;
// no images; the GUI thread's CPU time for it is the counter gui_cpu_ms. Goal: within one frame
// (16 ms).
// BM_LongestGuiStallWhileTenImagesLoad: the longest single event the GUI thread handled while a
// popup's ten 1280x720 PNG images loaded and were decoded (from the first frame of the popup on);
// reported as the iteration time, in the GUI thread's CPU time (the wall-clock worst case, which
// on a shared machine includes time the thread was not scheduled, is the counter
// longest_wall_ms). TARN_BENCH_EXPLAIN=1 names each new longest event. Goal:
// under 2 ms.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QBuffer>
#include <QImage>
#include <QPainter>
#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/LoopbackServer.h"
#include "support/PipelineFixture.h"
#include "support/TestSupport.h"
#include "tarn/config/ConfigManager.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/qt/InAppPopup.h"
#include "tarn/qt/TarnQt.h"

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

/// The calling thread's CPU time.
std::chrono::nanoseconds threadCpuTime() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

/// Times every outermost event the application delivers, in wall time and in the GUI thread's
/// CPU time. On a machine shared with other work the wall time includes the time the thread was
/// not scheduled at all; the CPU time is what the event itself cost.
class TimedApplication : public QApplication {
  public:
    using QApplication::QApplication;
    bool notify(QObject* receiver, QEvent* event) override {
        if (depth_++ > 0) {
            bool handled = QApplication::notify(receiver, event);
            --depth_;
            return handled;
        }
        // Read before delivery: a deferred delete destroys the receiver.
        std::string typeName = std::string(receiver->metaObject()->className()) + "#" +
                               receiver->objectName().toStdString();
        int kind = static_cast<int>(event->type());
        auto wallStart = Clock::now();
        auto cpuStart = threadCpuTime();
        bool handled = QApplication::notify(receiver, event);
        auto cpu = threadCpuTime() - cpuStart;
        longestWall_ = std::max(longestWall_, Clock::now() - wallStart);
        if (cpu > longestCpu_) {
            longestCpu_ = cpu;
            if (std::getenv("TARN_BENCH_EXPLAIN")) {
                std::fprintf(
                    stderr, "longest so far: %lld us CPU, %s / event %d\n",
                    static_cast<long long>(
                        std::chrono::duration_cast<std::chrono::microseconds>(cpu).count()),
                    typeName.c_str(), kind);
            }
        }
        --depth_;
        return handled;
    }
    void resetLongest() {
        longestCpu_ = {};
        longestWall_ = {};
    }
    std::chrono::nanoseconds longestCpu() const { return longestCpu_; }
    Clock::duration longestWall() const { return longestWall_; }

  private:
    int depth_ = 0;
    std::chrono::nanoseconds longestCpu_{};
    Clock::duration longestWall_{};
};

TimedApplication* app = nullptr;

std::string png(int width, int height, int seed) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor::fromHsv(seed * 36 % 360, 160, 220));
    QPainter painter(&image);
    for (int i = 0; i < 40; ++i) {
        painter.fillRect((i * 97) % width, (i * 53) % height, 60, 40,
                         QColor::fromHsv(i * 9, 200, 180));
    }
    painter.end();
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes.toStdString();
}

json popupItem(const std::string& trigger, std::vector<std::string> images) {
    json list = json::array();
    for (auto& url : images) {
        list.push_back({{"url", url}});
    }
    json buttons = json::array();
    for (int i = 1; i <= 3; ++i) {
        buttons.push_back({{"_id", "b" + std::to_string(i)},
                           {"text", "Button " + std::to_string(i)},
                           {"textColor", "#FFFFFF"},
                           {"color", "#1A73E8"}});
    }
    return {{"uuid", "uuid-" + trigger},
            {"code", "CODE-" + trigger},
            {"name", trigger},
            {"expireDate", 4102444800000},
            {"template", "POPUP"},
            {"triggeringEventName", trigger},
            {"title", {{"text", "A title"}, {"color", "#1A73E8"}}},
            {"body", {{"text", "Some body text for the popup."}, {"color", "#202124"}}},
            {"images", list},
            {"maxShowCount", 100000000},
            {"bgColor", "#FFFFFF"},
            {"subInAppCommunication", {{"template", "POPUP"}, {"buttons", buttons}}}};
}

/// A library initialised against a loopback server, with the Qt integration and a host window.
struct Host {
    tarn::test::TempDir temp;
    tarn::test::LoopbackServer server;
    QWidget window;

    Host() {
        std::vector<std::string> images;
        for (int i = 0; i < 10; ++i) {
            std::string path = "/img/" + std::to_string(i) + ".png";
            tarn::test::ScriptedAnswer answer;
            answer.body = png(1280, 720, i);
            answer.contentType = "image/png";
            server.on(path, answer);
            images.push_back(server.baseUrl() + path);
        }
        json answer = {{"inAppCommunicationCommands",
                        json::array({popupItem("plain", {}), popupItem("pictures", images)})},
                       {"configuration", {{"eventQueueDelay", 0.5}}}};
        server.on(tarn::test::kTokenPath,
                  tarn::test::ScriptedAnswer::json(200, tarn::test::tokenAnswer()));
        server.on(tarn::test::kInAppPath, tarn::test::ScriptedAnswer::json(200, answer.dump()));
        server.on(tarn::test::kEventPath, tarn::test::ScriptedAnswer::json(200, "{}"));
        auto bundle = temp.path() / "bundle";
        std::filesystem::create_directories(bundle);
        std::filesystem::create_directories(temp.path() / "data");
        tarn::test::writeServiceFile(
            bundle, {{"DOMAIN", server.baseUrl()}, {"CLIENT_ID", "c"}, {"CLIENT_SECRET", "s"}});
        tarn::test::writeInfoPlist(bundle, "com.example.bench");
        tarn::setDataDirectory(temp.path() / "data");
        tarn::Bundle::setMain(bundle);
        tarn::qt::install(*app);
        window.setObjectName("BenchWindow");
        window.resize(480, 720);
        window.show();
        tarn::Tarn::shared().initialize(tarn::TarnInitConfig(
            tarn::Bundle(bundle), "Bench", std::string("bench-user"), std::nullopt, std::nullopt,
            std::nullopt, std::nullopt, false, false, false));
        waitFor([] {
            return tarn::ConfigManager::shared().getInitializeStatus() !=
                   tarn::InitializeStatusType::initializing;
        });
    }
    template <typename F>
    static bool waitFor(F done, std::chrono::seconds timeout = std::chrono::seconds(20)) {
        auto deadline = Clock::now() + timeout;
        while (!done()) {
            if (Clock::now() > deadline) {
                return false;
            }
            QApplication::processEvents(QEventLoop::AllEvents, 5);
        }
        return true;
    }
    /// Lays the popup out and paints it, as the next frame would.
    void render() {
        QApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
        if (auto* shown = popup()) {
            shown->repaint();
        }
    }
    tarn::qt::InAppPopup* popup() {
        for (auto* child : window.findChildren<QWidget*>("TarnInAppPopup")) {
            if (child->isVisible()) {
                return dynamic_cast<tarn::qt::InAppPopup*>(child);
            }
        }
        return nullptr;
    }
    void closePopup() {
        if (auto* shown = popup()) {
            shown->dismiss();
        }
        waitFor([this] { return popup() == nullptr; });
        QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
};

Host& host() {
    static Host* instance = new Host;  // lives until exit; the process ends right after
    return *instance;
}

void BM_CustomEventToPopupShown(benchmark::State& state) {
    auto& h = host();
    auto screen = tarn::qt::screenFor(&h.window);
    std::chrono::nanoseconds cpu{};
    for (auto _ : state) {
        auto start = Clock::now();
        auto cpuStart = threadCpuTime();
        tarn::TarnEvent::shared().sendCustomEvent(screen, std::nullopt, "plain");
        if (!Host::waitFor([&] { return h.popup() != nullptr; })) {
            state.SkipWithError("popup not shown");
            break;
        }
        h.render();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        cpu += threadCpuTime() - cpuStart;
        h.closePopup();
    }
    if (state.iterations() > 0) {
        state.counters["gui_cpu_ms"] =
            std::chrono::duration<double, std::milli>(cpu).count() / state.iterations();
    }
}
BENCHMARK(BM_CustomEventToPopupShown)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(50);

void BM_LongestGuiStallWhileTenImagesLoad(benchmark::State& state) {
    auto& h = host();
    auto screen = tarn::qt::screenFor(&h.window);
    double wallMs = 0;
    for (auto _ : state) {
        tarn::TarnEvent::shared().sendCustomEvent(screen, std::nullopt, "pictures");
        if (!Host::waitFor([&] { return h.popup() != nullptr; })) {
            state.SkipWithError("popup not shown");
            break;
        }
        h.render();
        auto* slider = h.popup()->slider();
        app->resetLongest();  // from here on only the images are in flight
        if (!Host::waitFor([&] { return slider->settledCount() == slider->count(); })) {
            state.SkipWithError("images did not settle");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(app->longestCpu()).count());
        wallMs =
            std::max(wallMs, std::chrono::duration<double, std::milli>(app->longestWall()).count());
        h.closePopup();
    }
    state.counters["longest_wall_ms"] = wallMs;
}
BENCHMARK(BM_LongestGuiStallWhileTenImagesLoad)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

}  // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    app = new TimedApplication(argc, argv);  // kept: the library may post to it until exit
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::fflush(stdout);
    std::_Exit(0);  // skip static destructors and Qt teardown with the library still running
}
