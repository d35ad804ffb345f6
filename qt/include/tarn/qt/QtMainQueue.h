#pragma once
// The library's main queue on a Qt event loop.

#include <memory>

#include "tarn/core/Export.h"
#include "tarn/platform/MainQueue.h"

class QCoreApplication;

namespace tarn::qt {

/// An `Executor` whose tasks run on the GUI thread of `app`, posted as queued calls (and, for
/// delayed ones, started as precise single-shot QTimers from the GUI thread). Tasks may be posted
/// from any thread. Once the application object is destroyed, tasks are dropped: the library may
/// keep this queue beyond the application's lifetime without ever touching a dead Qt object. A
/// task that throws is caught and dropped, so nothing is thrown into Qt's event loop.
///
/// The queue posts through a small object of its own, a child of `app`. Destroying the queue
/// deletes that object (from any thread; the deletion happens on the GUI thread), so tasks not yet
/// run are dropped, as a `ThreadExecutor`'s are, and a host that installs the integration again
/// does not collect one such object per install.
class TARN_API QtMainQueue final : public Executor {
  public:
    /// A main queue on `app`'s thread and event loop.
    explicit QtMainQueue(QCoreApplication& app);
    ~QtMainQueue() override;
    void async(Task task) override;
    void asyncAfter(double seconds, Task task) override;
    bool isCurrent() const override;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarn::qt
