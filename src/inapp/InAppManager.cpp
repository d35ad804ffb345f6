#include "tarn/inapp/InAppManager.h"

#include <limits>

#include "tarn/config/Consent.h"
#include "tarn/config/Preferences.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/inapp/TarnSession.h"
#include "tarn/platform/MainQueue.h"

namespace tarn {

namespace {

Locked<InAppInteractionReporter>& interactionReporter() {
    static detail::NeverDestroyed<Locked<InAppInteractionReporter>> reporter;
    return *reporter;
}

}  // namespace

InAppManager& InAppManager::shared() {
    return detail::SharedInstance<InAppManager, 300>::get();
}

std::string describe(const AppCommunicationAction& action) {
    return std::string("AppCommunicationAction(link: ") + (action.link ? *action.link : "nil") +
           ", type: " + (action.type ? rawValue(*action.type) : "nil") + ")";
}

void InAppManager::handlePopupAction(const std::string& eventName, const ScreenRef& controller,
                                     const std::optional<std::string>& pageName,
                                     const ActionCallback& onActionRequired) {
    // Nothing is shown, and no show is counted, while tracking is off.
    if (!ConsentManager::shared().checkTracking()) {
        return;
    }
    auto session = TarnSession::shared().appCommunication();
    const AppCommunicationItem* chosen = nullptr;
    auto index = triggerIndex(session);
    if (auto found = index->first.find(eventName); found != index->first.end()) {
        chosen = found->second;  // only the first match is ever considered
    }
    if (!chosen) {
        log("couldn't get action type!", logtag, LogLevel::debug);
        return;
    }
    if (!session->configuration) {
        return;
    }
    if (!checkShowCount(chosen->maxShowCount, chosen->uuid)) {
        log("handlePopupAction: popup reached max show count!", logtag, LogLevel::info);
        return;
    }
    present(*chosen, *session->configuration, controller, pageName, onActionRequired);
}

std::shared_ptr<const InAppManager::TriggerIndex> InAppManager::triggerIndex(
    const std::shared_ptr<const AppCommunication>& answer) {
    auto index = triggers_.get();
    if (index && index->answer == answer) {
        return index;
    }
    auto fresh = std::make_shared<TriggerIndex>();
    fresh->answer = answer;
    if (answer && answer->model) {
        for (const auto& item : *answer->model) {
            // The keys view the names inside the answer, which the index keeps alive.
            fresh->first.try_emplace(item.triggeringEventName, &item);
        }
    }
    triggers_.set(fresh);
    return fresh;
}

bool InAppManager::checkShowCount(std::int64_t maxShowCount, const std::string& uuid) {
    auto store = PreferencesManager::shared().defaults();
    auto remaining = store->integer(uuid);
    if (!remaining) {
        if (maxShowCount == std::numeric_limits<std::int64_t>::min()) {
            TARN_FATAL("maxShowCount - 1 overflows");
        }
        store->set(uuid, maxShowCount - 1);
        return true;
    }
    if (*remaining < 1) {
        return false;
    }
    store->set(uuid, *remaining - 1);
    return true;
}

std::vector<Presentation> InAppManager::buildPresentations(const AppCommunicationItem& item) const {
    std::vector<Presentation> rows;
    if (item.templateType != InAppType::popup) {
        return rows;
    }
    rows.emplace_back(
        TitleTableViewCellPresentation{item.title.text, colorFromCode(item.title.color)});
    if (item.images) {
        std::vector<std::string> urls;
        for (const auto& image : *item.images) {
            if (image.url)
                urls.push_back(*image.url);
        }
        if (!urls.empty()) {
            rows.emplace_back(ImageTableViewCellPresentation{std::move(urls)});
        }
    }
    rows.emplace_back(
        BodyTextTableViewCellPresentation{item.body.text, colorFromCode(item.body.color)});
    if (item.subInAppCommunication.buttons) {
        std::int64_t shown = 0;
        for (const auto& button : *item.subInAppCommunication.buttons) {
            if (shown++ == maxButtonCount)
                break;
            rows.emplace_back(ButtonTableViewCellPresentation{button});
        }
    }
    return rows;
}

void InAppManager::relayAction(const AppCommunicationAction& action,
                               const ActionCallback& callback) {
    log("action occurred: " + describe(action), logtag, LogLevel::info);
    if (callback) {
        callback(action);
    }
}

void InAppManager::present(const AppCommunicationItem& item,
                           const AppCommunicationConfiguration& configuration,
                           const ScreenRef& controller, const std::optional<std::string>& pageName,
                           const ActionCallback& onActionRequired) {
    mainQueue()->async([item, configuration, controller, pageName, onActionRequired] {
        auto& manager = InAppManager::shared();
        auto factory = manager.factory_.get();
        auto screen = factory ? factory() : nullptr;
        if (!screen) {
            log("In app view not found", manager.logtag, LogLevel::error);
            return;
        }
        if (item.templateType == InAppType::unknown) {
            return;
        }
        screen->actionItem = [onActionRequired](const AppCommunicationAction& action) {
            InAppManager::shared().relayAction(action, onActionRequired);
        };
        screen->inApp = InAppModel{item, configuration, PageName{controller, pageName},
                                   manager.buildPresentations(item)};
        screen->present(controller);
    });
}

void InAppManager::installAppCommunications(
    std::optional<AppCommunication> answer,
    const std::function<void(const AppCommunication&)>& completion) {
    TarnSession::shared().setAppCommunication(answer);
    triggerIndex(TarnSession::shared().appCommunication());
    if (answer) {
        if (completion) {
            completion(*answer);
        }
        log("Tarn Sdk initialized succesfully.", logtag, LogLevel::info);
        processSettings().initializeStatus = InitializeStatusType::initialized;
    } else {
        log("Tarn Sdk initialize failed.", logtag, LogLevel::error);
        processSettings().initializeStatus = InitializeStatusType::initializeFailed;
    }
}

void setInAppInteractionReporter(InAppInteractionReporter reporter) {
    interactionReporter().set(std::move(reporter));
}

void InAppViewController::report(InAppEventType kind,
                                 const std::optional<AppCommunicationButton>& button) {
    if (!inApp) {
        return;
    }
    if (auto reporter = interactionReporter().get()) {
        reporter(kind, inApp->appCommunucation, inApp->pageName.pageName,
                 inApp->pageName.controller, button);
    }
}

void InAppViewController::reportButtonClicked(const AppCommunicationButton& button) {
    report(InAppEventType::buttonClicked, button);
    if (button.action && actionItem) {
        actionItem(*button.action);
    }
}

}  // namespace tarn
