#include "tarn/qt/PageTracking.h"

#include <QEvent>

#include "tarn/core/Log.h"
#include "tarn/platform/NotificationCenter.h"
#include "tarn/qt/TarnQt.h"

namespace tarn::qt {

namespace {

constexpr const char* kTrackerName = "_tarn_page_tracker";

void postPage(QWidget* widget, const char* name) {
    NotificationCenter::defaultCenter().post(name, screenFor(widget));
}

class PageTracker final : public QObject {
  public:
    explicit PageTracker(QWidget* widget) : QObject(widget) { setObjectName(kTrackerName); }

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched == parent()) {
            if (event->type() == QEvent::Show) {
                postPage(static_cast<QWidget*>(watched), kTarnPageInNotification);
            } else if (event->type() == QEvent::Hide) {
                postPage(static_cast<QWidget*>(watched), kTarnPageOutNotification);
            }
        }
        return false;
    }
};

}  // namespace

TarnWidget::TarnWidget(QWidget* parent, Qt::WindowFlags flags) : QWidget(parent, flags) {}

void TarnWidget::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    postPage(this, kTarnPageInNotification);
}

void TarnWidget::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    postPage(this, kTarnPageOutNotification);
}

QObject* trackPage(QWidget* widget) {
    if (!widget) {
        return nullptr;
    }
    if (auto* existing = widget->findChild<QObject*>(kTrackerName, Qt::FindDirectChildrenOnly)) {
        return existing;
    }
    auto* tracker = new PageTracker(widget);
    widget->installEventFilter(tracker);
    return tracker;
}

}  // namespace tarn::qt
