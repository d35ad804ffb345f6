#pragma once
// Automatic lifecycle and page tracking.
//
// `AutoLifeCyle` turns the application notifications (posted by the host on
// `NotificationCenter::defaultCenter()` under `kApplicationDidEnterBackgroundNotification`,
// `kApplicationWillEnterForegroundNotification`, `kApplicationWillTerminateNotification`) into
// "app_background" and "app_foreground" events for the key window's screen. `ActivityLifeCycle`
// turns "TarnPageInNotification" and "TarnPageOutNotification" (posted by `TarnViewController`)
// into "page_in" and "page_out". Handlers run synchronously on the posting thread. Initialisation
// starts them when the host's configuration asks for them; the termination notification stops both.
// The trackers hand each moment to the lifecycle reporter, which the event manager installs
// (`EventManager::connectReporters`); with none installed a moment is not sent.

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/Screen.h"

namespace tarn {

/// One window of the host, as the current-screen lookup sees it.
struct TARN_API Window {
    /// Whether this is the key window.
    bool isKeyWindow = false;
    /// The window's root screen.
    ScreenRef rootViewController;
};

/// The host's windows, in the order the platform lists them (all scenes' windows together).
class TARN_API WindowSource {
  public:
    virtual ~WindowSource() = default;
    /// The windows now. Called on the thread that asks for the current screen.
    virtual std::vector<Window> windows() = 0;
};

/// Installs the host's window source (nullptr: none, so there is never a current screen).
TARN_API void setWindowSource(std::shared_ptr<WindowSource> source);
/// The root screen of the last key window, or nullptr.
TARN_API ScreenRef currentScreen();

/// A moment of the application's or a page's life that the trackers report.
enum class LifeCycleMoment { appBackground, appForeground, pageIn, pageOut };
/// Installs the routine that turns a moment on a screen into its event (nullptr: none). It runs
/// synchronously on the thread that posted the notification. Kept for the life of the process.
TARN_API TARN_API void setLifeCycleReporter(std::function<void(LifeCycleMoment, const ScreenRef&)> reporter);

/// Automatic lifecycle tracking: turns the application's background and foreground notifications
/// into lifecycle events on the current screen.
class TARN_API AutoLifeCyle {
  public:
    /// The one instance, created on first use and never destroyed.
    static AutoLifeCyle& shared();
    ~AutoLifeCyle();
    /// Registers the handlers with the default notification centre, one registration per name
    /// however often (and from however many threads at once) it is called. Any thread.
    void start();
    /// Removes the registrations. Any thread.
    void stop();
    /// Reports "app_background" on the current screen.
    void didEnterBackground();
    /// Reports "app_foreground" on the current screen.
    void willEnterForeground();
    /// Removes the registrations.
    void willTerminate() { stop(); }
    /// Whether the handlers are registered.
    bool isObserving() const;

  private:
    std::mutex registrationMutex_;  // makes a start's remove-then-add one step
};

/// Automatic page tracking: turns the page-in and page-out notifications of screens into page
/// events.
class TARN_API ActivityLifeCycle {
  public:
    /// The one instance, created on first use and never destroyed.
    static ActivityLifeCycle& shared();
    ~ActivityLifeCycle();
    /// Registers the handlers with the default notification centre, one registration per name
    /// however often (and from however many threads at once) it is called. Any thread.
    void start();
    /// Removes the registrations. Any thread.
    void stop();
    /// Reports "page_in" for `screen`.
    void pageIn(const ScreenRef& screen);
    /// Reports "page_out" for `screen`.
    void pageOut(const ScreenRef& screen);
    /// Removes the registrations.
    void willTerminate() { stop(); }
    /// Whether the handlers are registered.
    bool isObserving() const;

  private:
    std::mutex registrationMutex_;  // makes a start's remove-then-add one step
};

/// A screen base class that reports its appearance: `viewDidAppear` posts "TarnPageInNotification"
/// and `viewWillDisappear` posts "TarnPageOutNotification", each with the screen as object (a
/// `ScreenRef`). Hold derived screens in a `std::shared_ptr`.
class TARN_API TarnViewController : public Screen, public std::enable_shared_from_this<TarnViewController> {
  public:
    /// Prefix of this class's log lines.
    const std::string logtag = "Tarn-TarnViewController:";
    /// Called when the screen has been created. Does nothing by default.
    virtual void viewDidLoad() {}
    /// Called before the screen appears. Does nothing by default.
    virtual void viewWillAppear(bool /*animated*/) {}
    /// Called when the screen has appeared: posts "TarnPageInNotification".
    virtual void viewDidAppear(bool animated);
    /// Called before the screen disappears: posts "TarnPageOutNotification".
    virtual void viewWillDisappear(bool animated);

  protected:
    /// This screen as a `ScreenRef` (shares ownership with the host's pointer).
    ScreenRef selfRef();
};

}  // namespace tarn
