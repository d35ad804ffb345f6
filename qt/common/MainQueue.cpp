#include "tarn/qt/QtMainQueue.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <cmath>
#include <mutex>

namespace tarn::qt {

/// The posting target, a child of the application object. Cleared (under the lock) when Qt
/// destroys it, so a post never reaches a dead object.
struct QtMainQueue::State {
    std::mutex mutex;
    QObject* context = nullptr;
    QThread* thread = nullptr;
};

namespace {

void runGuarded(const Executor::Task& task) {
    try {
        task();
    } catch (...) {
        // The library's tasks do not throw; a host's might. Qt's event loop must not see it.
    }
}

}  // namespace

QtMainQueue::QtMainQueue(QCoreApplication& app) : state_(std::make_shared<State>()) {
    auto* context = new QObject(&app);
    state_->context = context;
    state_->thread = app.thread();
    QObject::connect(context, &QObject::destroyed, [state = state_] {
        std::lock_guard lock(state->mutex);
        state->context = nullptr;
    });
}

QtMainQueue::~QtMainQueue() {
    std::lock_guard lock(state_->mutex);
    if (state_->context) {
        // Not `delete`: this may run on any thread, and Qt objects are deleted on their own.
        // Until the deletion the object is unreachable: no post finds it any more.
        state_->context->deleteLater();
        state_->context = nullptr;
    }
}

void QtMainQueue::async(Task task) {
    std::lock_guard lock(state_->mutex);
    if (!state_->context) {
        return;
    }
    QMetaObject::invokeMethod(
        state_->context, [task = std::move(task)] { runGuarded(task); }, Qt::QueuedConnection);
}

void QtMainQueue::asyncAfter(double seconds, Task task) {
    if (!(seconds > 0)) {  // zero, negative and NaN: as soon as possible
        async(std::move(task));
        return;
    }
    // Timers belong to the GUI thread: start it there. A day is far beyond anything the library
    // schedules and keeps the milliseconds inside an int.
    int ms = static_cast<int>(std::ceil(std::min(seconds, 86400.0) * 1000.0));
    std::lock_guard lock(state_->mutex);
    if (!state_->context) {
        return;
    }
    QObject* context = state_->context;
    QMetaObject::invokeMethod(
        context,
        [context, ms, task = std::move(task)]() mutable {
            QTimer::singleShot(ms, Qt::PreciseTimer, context,
                               [task = std::move(task)] { runGuarded(task); });
        },
        Qt::QueuedConnection);
}

bool QtMainQueue::isCurrent() const {
    return QThread::currentThread() == state_->thread;
}

}  // namespace tarn::qt
