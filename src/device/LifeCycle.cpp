#include "tarn/device/LifeCycle.h"

#include "tarn/core/Log.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn {

namespace {

Locked<std::shared_ptr<WindowSource>>& windowSource() {
    static detail::NeverDestroyed<Locked<std::shared_ptr<WindowSource>>> source;
    return *source;
}

const char* const kAutoNames[] = {kApplicationDidEnterBackgroundNotification,
                                  kApplicationWillEnterForegroundNotification,
                                  kApplicationWillTerminateNotification};
const char* const kActivityNames[] = {kTarnPageInNotification, kTarnPageOutNotification,
                                      kApplicationWillTerminateNotification};

using LifeCycleReporter = std::function<void(LifeCycleMoment, const ScreenRef&)>;

Locked<LifeCycleReporter>& lifeCycleReporter() {
    static detail::NeverDestroyed<Locked<LifeCycleReporter>> reporter;
    return *reporter;
}

void report(LifeCycleMoment moment, const ScreenRef& screen) {
    if (auto reporter = lifeCycleReporter().get()) {
        reporter(moment, screen);
    }
}

ScreenRef screenOf(const Notification& n) {
    if (const auto* screen = std::any_cast<ScreenRef>(&n.object)) {
        return *screen;
    }
    return nullptr;
}

}  // namespace

void setWindowSource(std::shared_ptr<WindowSource> source) {
    windowSource().set(std::move(source));
}

void setLifeCycleReporter(LifeCycleReporter reporter) {
    lifeCycleReporter().set(std::move(reporter));
}

ScreenRef currentScreen() {
    auto source = windowSource().get();
    if (!source) {
        return nullptr;
    }
    auto windows = source->windows();
    for (auto it = windows.rbegin(); it != windows.rend(); ++it) {
        if (it->isKeyWindow) {
            return it->rootViewController;
        }
    }
    return nullptr;
}

// ---- AutoLifeCyle

AutoLifeCyle& AutoLifeCyle::shared() {
    return detail::SharedInstance<AutoLifeCyle, 300>::get();
}

AutoLifeCyle::~AutoLifeCyle() {
    stop();
}

void AutoLifeCyle::start() {
    auto& center = NotificationCenter::defaultCenter();
    // One registration per name, whatever the number of starts, also of starts on two threads at
    // once: removing the old ones and adding the new ones is one step.
    std::lock_guard lock(registrationMutex_);
    for (const char* name : kAutoNames) {
        center.removeObserver(this, name);
    }
    center.addObserver(this, kAutoNames[0],
                       [](const Notification&) { AutoLifeCyle::shared().didEnterBackground(); });
    center.addObserver(this, kAutoNames[1],
                       [](const Notification&) { AutoLifeCyle::shared().willEnterForeground(); });
    center.addObserver(this, kAutoNames[2],
                       [](const Notification&) { AutoLifeCyle::shared().willTerminate(); });
}

void AutoLifeCyle::stop() {
    std::lock_guard lock(registrationMutex_);
    for (const char* name : kAutoNames) {
        NotificationCenter::defaultCenter().removeObserver(this, name);
    }
}

bool AutoLifeCyle::isObserving() const {
    return NotificationCenter::defaultCenter().isObserving(this, kAutoNames[0]);
}

void AutoLifeCyle::didEnterBackground() {
    if (auto screen = currentScreen()) {
        report(LifeCycleMoment::appBackground, screen);
    }
}

void AutoLifeCyle::willEnterForeground() {
    if (auto screen = currentScreen()) {
        report(LifeCycleMoment::appForeground, screen);
    }
}

// ---- ActivityLifeCycle

ActivityLifeCycle& ActivityLifeCycle::shared() {
    return detail::SharedInstance<ActivityLifeCycle, 300>::get();
}

ActivityLifeCycle::~ActivityLifeCycle() {
    stop();
}

void ActivityLifeCycle::start() {
    auto& center = NotificationCenter::defaultCenter();
    std::lock_guard lock(registrationMutex_);  // as in AutoLifeCyle::start
    for (const char* name : kActivityNames) {
        center.removeObserver(this, name);
    }
    center.addObserver(this, kActivityNames[0], [](const Notification& n) {
        ActivityLifeCycle::shared().pageIn(screenOf(n));
    });
    center.addObserver(this, kActivityNames[1], [](const Notification& n) {
        ActivityLifeCycle::shared().pageOut(screenOf(n));
    });
    center.addObserver(this, kActivityNames[2],
                       [](const Notification&) { ActivityLifeCycle::shared().willTerminate(); });
}

void ActivityLifeCycle::stop() {
    std::lock_guard lock(registrationMutex_);
    for (const char* name : kActivityNames) {
        NotificationCenter::defaultCenter().removeObserver(this, name);
    }
}

bool ActivityLifeCycle::isObserving() const {
    return NotificationCenter::defaultCenter().isObserving(this, kActivityNames[0]);
}

void ActivityLifeCycle::pageIn(const ScreenRef& screen) {
    if (screen) {
        report(LifeCycleMoment::pageIn, screen);
    }
}

void ActivityLifeCycle::pageOut(const ScreenRef& screen) {
    if (screen) {
        report(LifeCycleMoment::pageOut, screen);
    }
}

// ---- TarnViewController

ScreenRef TarnViewController::selfRef() {
    if (auto owned = weak_from_this().lock()) {
        return owned;
    }
    // Not held by a shared_ptr: hand out a reference that does not own the screen.
    return ScreenRef(ScreenRef{}, static_cast<Screen*>(this));
}

void TarnViewController::viewDidAppear(bool /*animated*/) {
    NotificationCenter::defaultCenter().post(kTarnPageInNotification, selfRef());
}

void TarnViewController::viewWillDisappear(bool /*animated*/) {
    NotificationCenter::defaultCenter().post(kTarnPageOutNotification, selfRef());
}

}  // namespace tarn
