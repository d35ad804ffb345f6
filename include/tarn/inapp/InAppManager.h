#pragma once
// Decides which in-app communication a custom event shows, enforces its show limit, builds its rows
// and presents it through the host's in-app screen.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"
#include "tarn/inapp/InAppModel.h"

namespace tarn {

/// Makes the host's in-app screen for one presentation; nullptr when it cannot.
using InAppScreenFactory = std::function<std::shared_ptr<InAppViewController>()>;

/// Matches custom events to the fetched in-app communications and presents the one whose trigger an
/// event names, through the host's in-app screen, on the main queue.
class TARN_API InAppManager {
  public:
    /// The one instance, created on first use and never destroyed.
    static InAppManager& shared();
    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-InAppManager:";
    /// At most this many buttons of a communication are shown.
    const std::int64_t maxButtonCount = 3;

    /// Registers the host's in-app screen (nullptr removes it). Without one, a chosen communication
    /// logs "In app view not found" and still uses one showing.
    void registerInAppScreen(InAppScreenFactory factory) { factory_.set(std::move(factory)); }

    /// Offers a custom event: the first communication of the session whose `triggeringEventName`
    /// equals `eventName` (case-sensitive) is shown when its show limit allows. The choice and the
    /// show count happen on the calling thread; the screen is presented on the main queue.
    void handlePopupAction(const std::string& eventName, const ScreenRef& controller,
                           const std::optional<std::string>& pageName,
                           const ActionCallback& onActionRequired);

    /// Installs a fetched answer in the session (nothing included). With an answer: `completion`
    /// runs, then "Tarn Sdk initialized succesfully." and the status `initialized`; without:
    /// "Tarn Sdk initialize failed." and `initializeFailed`.
    void installAppCommunications(std::optional<AppCommunication> answer,
                                  const std::function<void(const AppCommunication&)>& completion);

    /// Whether a communication may be shown now; counts one showing down in the preference store
    /// under `uuid` when it may. The first showing is always allowed.
    bool checkShowCount(std::int64_t maxShowCount, const std::string& uuid);
    /// The rows of a popup (title, images, body, at most three buttons); none for other templates.
    std::vector<Presentation> buildPresentations(const AppCommunicationItem& item) const;
    /// Logs "action occurred: " and the action, then calls `callback`.
    void relayAction(const AppCommunicationAction& action, const ActionCallback& callback);

  private:
    void present(const AppCommunicationItem& item,
                 const AppCommunicationConfiguration& configuration, const ScreenRef& controller,
                 const std::optional<std::string>& pageName,
                 const ActionCallback& onActionRequired);

    /// The first communication of each trigger name in one installed answer. Built when an
    /// answer is installed (or at the first lookup in an answer installed some other way), so a
    /// custom event finds its communication without scanning the list.
    struct TriggerIndex {
        std::shared_ptr<const AppCommunication> answer;
        std::unordered_map<std::string_view, const AppCommunicationItem*> first;
    };
    /// The index of `answer`, rebuilt when it is not the indexed one.
    std::shared_ptr<const TriggerIndex> triggerIndex(
        const std::shared_ptr<const AppCommunication>& answer);

    Locked<InAppScreenFactory> factory_;
    Locked<std::shared_ptr<const TriggerIndex>> triggers_;
};

/// Text of an action as the relay logs it, e.g. "AppCommunicationAction(link: x, type: deep)".
TARN_API std::string describe(const AppCommunicationAction& action);

}  // namespace tarn
