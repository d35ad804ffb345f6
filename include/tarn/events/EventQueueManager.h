#pragma once
// The offline event queue: drains the stored events to the server, one per timer tick, oldest
// first.
//
// The timer and every drain step run on the main queue (`mainQueue()`); `startTimer` and
// `stopTimer` may be called from any thread and hop there. The manager observes the application
// notifications (`kApplicationDidEnterBackgroundNotification`,
// `kApplicationWillEnterForegroundNotification`, `kApplicationWillTerminateNotification`) on
// `NotificationCenter::defaultCenter()` from its creation: background stops the timer, foreground
// restarts it when initialised, termination unsubscribes.
//
// An event whose sending fails is lost: it was taken out of the store before it was sent and is not
// stored again. Events stay stored while the library is not initialised.
//
// A stored body is posted exactly as it was stored, once a pass over the text has found a JSON
// object whose (last) top-level "name" is a string; it is not parsed into a tree and printed again.
// The timer keeps a fixed rate (see `RepeatingTimer`): one tick per queue delay, whatever a tick
// took.

#include <atomic>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/MainQueue.h"

namespace tarn {

/// Drains the offline queue to the server (see above).
class TARN_API EventQueueManager {
  public:
    /// The one instance, created on first use and never destroyed.
    static EventQueueManager& shared();
    EventQueueManager();
    ~EventQueueManager();

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-QueueManager:";
    /// Whether draining is under way, as the pipeline and the drain see it. Safe from any thread.
    std::atomic<bool> isTimerActive{false};

    /// Creates the repeating timer on the main queue with the current queue delay. A timer already
    /// held is invalidated and replaced, so at most one queue timer is ever live.
    void startTimer();
    /// Schedules one last drain step on the main queue, then invalidates and clears the timer.
    void stopTimer();
    /// One drain step (runs on the main queue).
    void timerAction();
    /// Stops draining while the application is in the background.
    void appDidEnterBackground();
    /// Starts draining again when the library is initialised.
    void willEnterForeground();
    /// Unsubscribes from the application notifications.
    void willTerminate();

    /// True while a timer is held.
    bool hasTimer() const { return timer_.get() != nullptr; }

  private:
    void sendEvent(const std::string& text, const std::string& requestId, const std::string& name);

    Locked<std::shared_ptr<RepeatingTimer>> timer_;
};

}  // namespace tarn
