#pragma once
// A Qt host of the library wired to the loopback server: the Qt integration installed on the
// test's QApplication, the in-app endpoint answering a script, PNG images served by the server.

#include <QApplication>
#include <QWidget>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/PipelineFixture.h"
#include "tarn/inapp/AppCommunication.h"
#include "tarn/qt/InAppPopup.h"

namespace tarn::test {

/// A popup item bound to `trigger` with `buttons` buttons "B1".."Bn" and images at `imageUrls`.
nlohmann::json popupItem(const std::string& trigger, int buttons,
                         const std::vector<std::string>& imageUrls);
/// The in-app answer for `items`, with a quick queue and `maxShowDuration` (none when absent).
nlohmann::json inAppAnswer(const nlohmann::json& items,
                           std::optional<int> maxShowDuration = std::nullopt);
/// PNG bytes of a `width` x `height` picture in `color` with a white stripe.
std::string pngBytes(int width, int height, const char* color);

class QtHostTest : public PipelineTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// Runs the Qt event loop until `done` holds or `timeout` passes.
    bool waitUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));
    /// Runs the Qt event loop for `duration`.
    void spin(std::chrono::milliseconds duration);
    /// Initialises the library and waits for the status to settle.
    InitializeStatusType initializeQt(const TarnInitConfig& config);
    /// The popup currently up anywhere, or nullptr.
    qt::InAppPopup* popup() const;
    /// Waits until the server has received an event named `name` `times` times.
    bool waitForEvent(const std::string& name, std::size_t times = 1);
    /// The received events named `name`.
    std::vector<nlohmann::json> eventsNamed(const std::string& name) const;
    /// A host window named `name`, shown and active.
    QWidget* showWindow(const QString& name);

    std::vector<QUrl> openedUrls_;
    std::vector<AppCommunicationAction> actions_;
};

}  // namespace tarn::test
