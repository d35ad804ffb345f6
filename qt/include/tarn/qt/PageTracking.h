#pragma once
// Page tracking for widgets: "TarnPageInNotification" when a page is shown and
// "TarnPageOutNotification" when it is hidden, each with the page's screen (`screenFor`) as
// object. With `isSendActivityLifeCycleEventEnabled` the library turns them into "page_in" and
// "page_out" events whose page name is the screen's class name. All on the GUI thread.

#include <QObject>
#include <QWidget>

#include "tarn/core/Export.h"

namespace tarn::qt {

/// A page base class: derive a host page from it instead of QWidget. Its show event posts the
/// page-in notification and its hide event the page-out one (spontaneous ones too, so minimising
/// the window counts as leaving the page).
class TARN_API TarnWidget : public QWidget {
  public:
    /// A widget whose showing and hiding are page events.
    explicit TarnWidget(QWidget* parent = nullptr, Qt::WindowFlags flags = {});

  protected:
    /// Reports the page in.
    void showEvent(QShowEvent* event) override;
    /// Reports the page out.
    void hideEvent(QHideEvent* event) override;
};

/// Tracks an existing widget without deriving from it: an event filter (a child of the widget,
/// so it goes with it) that posts the same notifications on the widget's show and hide events.
/// Tracking a widget twice installs one filter. Returns the filter.
TARN_API QObject* trackPage(QWidget* widget);

}  // namespace tarn::qt
