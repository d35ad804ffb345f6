#pragma once
// The library's main queue on a Qt event loop.

#include <memory>

#include "tarn/platform/MainQueue.h"

class QCoreApplication;

namespace tarn::qt {

/// An `Executor` whose tasks run on the GUI thread of `app`, posted as queued calls (and, for
/// delayed ones, started as precise single-shot QTimers from the GUI thread). Tasks may be posted
/// from any thread. Once the application object is destroyed, tasks are dropped: the library may
/// keep this queue beyond the application's lifetime without ever touching a dead Qt object. A
/// task that throws is caught and dropped, so nothing is thrown into Qt's event loop.
class QtMainQueue final : public Executor {
  public:
    explicit QtMainQueue(QCoreApplication& app);
    void async(Task task) override;
    void asyncAfter(double seconds, Task task) override;
    bool isCurrent() const override;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarn::qt
