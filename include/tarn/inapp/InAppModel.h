#pragma once
// What the in-app screen is given to show, and the screen seam the host fills.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tarn/events/TarnEventType.h"
#include "tarn/inapp/AppCommunication.h"
#include "tarn/inapp/ColorCode.h"
#include "tarn/platform/Screen.h"

namespace tarn {

/// The page an in-app communication is shown on: the presenting screen and the event's page name.
struct PageName {
    ScreenRef controller;
    std::optional<std::string> pageName;
};

/// The rows of a popup, in the order they are shown.
struct TitleTableViewCellPresentation {
    std::string title;
    Color color;
};
struct ImageTableViewCellPresentation {
    std::vector<std::string> imageUrls;
};
struct BodyTextTableViewCellPresentation {
    std::string text;
    Color color;
};
struct ButtonTableViewCellPresentation {
    AppCommunicationButton button;
};
using Presentation =
    std::variant<TitleTableViewCellPresentation, ImageTableViewCellPresentation,
                 BodyTextTableViewCellPresentation, ButtonTableViewCellPresentation>;

/// One presentation of a communication.
struct InAppModel {
    AppCommunicationItem appCommunucation;
    AppCommunicationConfiguration configuration;
    PageName pageName;
    /// Title, images (when any image has an address), body, then at most three buttons. Empty for a
    /// survey, which the screen shows as a web page instead.
    std::vector<Presentation> presentations;
};

/// The host's in-app screen. The host registers a factory for it with
/// `InAppManager::registerInAppScreen`; for each presentation the library makes one screen, sets
/// `actionItem` and `inApp`, then calls `present` on the main queue. The screen reports what the
/// user does with the `report...` calls (from any thread), which send the in-app events.
/// Turns what the user did with an in-app screen into its event. Installed by the facade when it
/// is created (it sends the event through the event manager) and kept for the life of the
/// process; it runs synchronously on the thread that reports.
using InAppInteractionReporter =
    std::function<void(InAppEventType kind, const AppCommunicationItem& communication,
                       const std::optional<std::string>& pageName, const ScreenRef& controller,
                       const std::optional<AppCommunicationButton>& button)>;
/// Installs the reporter (nullptr: none, so nothing is sent).
void setInAppInteractionReporter(InAppInteractionReporter reporter);

class InAppViewController : public Screen {
  public:
    /// Relays an action the user picked to the host's callback (set by the library).
    std::function<void(const AppCommunicationAction&)> actionItem;
    /// The communication to show (set by the library).
    std::optional<InAppModel> inApp;

    /// Shows the screen over `presenter` (the host's screen stays visible behind it), without
    /// animation. Runs on the main queue.
    virtual void present(const ScreenRef& presenter) = 0;
    std::string className() const override { return "InAppViewController"; }

    /// "in_app_opened".
    void reportOpened() { report(InAppEventType::opened); }
    /// "in_app_dismissed".
    void reportDismissed() { report(InAppEventType::dismissed); }
    /// "in_app_self_clicked": the communication's own body was tapped.
    void reportSelfClicked() { report(InAppEventType::selfClicked); }
    /// "in_app_button_clicked" for `button`; then the button's action, if any, goes to
    /// `actionItem`.
    void reportButtonClicked(const AppCommunicationButton& button);

  private:
    void report(InAppEventType kind,
                const std::optional<AppCommunicationButton>& button = std::nullopt);
};

}  // namespace tarn
