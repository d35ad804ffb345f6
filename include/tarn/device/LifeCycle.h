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
// The trackers hand each moment to the lifecycle reporter, which the facade installs when it is
// created (it sends the event through the event manager); with none installed a moment is not sent.

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "tarn/core/Shared.h"
#include "tarn/platform/Screen.h"

namespace tarn {

/// One window of the host, as the current-screen lookup sees it.
struct Window {
    bool isKeyWindow = false;
    ScreenRef rootViewController;
};

/// The host's windows, in the order the platform lists them (all scenes' windows together).
class WindowSource {
  public:
    virtual ~WindowSource() = default;
    virtual std::vector<Window> windows() = 0;
};

/// Installs the host's window source (nullptr: none, so there is never a current screen).
void setWindowSource(std::shared_ptr<WindowSource> source);
/// The root screen of the last key window, or nullptr.
ScreenRef currentScreen();

/// A moment of the application's or a page's life that the trackers report.
enum class LifeCycleMoment { appBackground, appForeground, pageIn, pageOut };
/// Installs the routine that turns a moment on a screen into its event (nullptr: none). It runs
/// synchronously on the thread that posted the notification. Kept for the life of the process.
void setLifeCycleReporter(std::function<void(LifeCycleMoment, const ScreenRef&)> reporter);

class AutoLifeCyle {
  public:
    static AutoLifeCyle& shared();
    ~AutoLifeCyle();
    /// Registers the handlers with the default notification centre, one registration per name
    /// however often (and from however many threads at once) it is called. Any thread.
    void start();
    /// Removes the registrations. Any thread.
    void stop();
    void didEnterBackground();
    void willEnterForeground();
    void willTerminate() { stop(); }
    bool isObserving() const;

  private:
    std::mutex registrationMutex_;  // makes a start's remove-then-add one step
};

class ActivityLifeCycle {
  public:
    static ActivityLifeCycle& shared();
    ~ActivityLifeCycle();
    /// Registers the handlers with the default notification centre, one registration per name
    /// however often (and from however many threads at once) it is called. Any thread.
    void start();
    /// Removes the registrations. Any thread.
    void stop();
    void pageIn(const ScreenRef& screen);
    void pageOut(const ScreenRef& screen);
    void willTerminate() { stop(); }
    bool isObserving() const;

  private:
    std::mutex registrationMutex_;  // makes a start's remove-then-add one step
};

/// A screen base class that reports its appearance: `viewDidAppear` posts "TarnPageInNotification"
/// and `viewWillDisappear` posts "TarnPageOutNotification", each with the screen as object (a
/// `ScreenRef`). Hold derived screens in a `std::shared_ptr`.
class TarnViewController : public Screen, public std::enable_shared_from_this<TarnViewController> {
  public:
    const std::string logtag = "Tarn-TarnViewController:";
    virtual void viewDidLoad() {}
    virtual void viewWillAppear(bool /*animated*/) {}
    virtual void viewDidAppear(bool animated);
    virtual void viewWillDisappear(bool animated);

  protected:
    ScreenRef selfRef();
};

}  // namespace tarn
