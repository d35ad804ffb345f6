#pragma once
// The in-app screen as Qt widgets.
//
// Layout. The popup is a child of the host's window that covers it whole ("over current context":
// the host's window stays visible behind a dimmed overlay) with a card centred on it, at most 400
// pixels wide. The card holds, top to bottom, a close control and the communication's rows in the
// library's order: title (bold, its colour), image slider, body text (its colour), at most three
// buttons (full width, text colour on background colour), on the card's background `bgColor`.
// Colours go through the library's colour-code parser; unreadable ones are black. A button
// without a background colour gets a light grey one and, without a text colour, black text.
// Each row widget carries the property "tarnRow" ("title", "images", "body", "button"); a title
// or body row with empty text is kept but hidden, so it takes no room.
//
// What the user does, and what is reported:
//  - shown: "in_app_opened", once, when the popup appears;
//  - the close control, Escape, or the auto-dismiss timer: "in_app_dismissed", popup closed;
//  - a click on the card outside its controls (title, body, background): "in_app_self_clicked";
//    the popup stays;
//  - a button: "in_app_button_clicked" with that button, then its action goes to the host's
//    callback unchanged; the popup closes (no dismissed report: the user chose).
//  A click on the dimmed area outside the card does nothing, so a stray click does not lose the
//  communication. When the host's window is destroyed while the popup is up, the popup goes with
//  it and nothing more is reported.
//
// Auto-dismiss: `inAppMaxShowDuration` of the server configuration is read in seconds, like the
// configuration's other durations meant for people (the queue delay, the request time-out);
// absent, zero or negative means no timer; values beyond a day are held at a day.
//
// Images load asynchronously with QNetworkAccessManager (http and https only), are decoded and
// scaled on Qt's global thread pool and only put on screen on the GUI thread, so the GUI thread
// never waits for the network or a decoder. At most `InstallOptions::maxPopupImages` are loaded;
// answers above 8 MB or images above 40 megapixels are refused. A slot whose image fails, is
// refused or times out shows a grey placeholder. Previous / next controls, Left / Right keys and a
// horizontal swipe move one image with wrap-around (the index rules of `TarnSliderPushHelper`).
//
// The popup is a QWidget of the GUI thread; all its members are to be called there.

#include <QFrame>
#include <QPixmap>
#include <QPointer>
#include <QWidget>
#include <memory>
#include <vector>

#include "tarn/core/Export.h"
#include "tarn/inapp/InAppModel.h"

class QLabel;
class QTimer;
class QToolButton;

namespace tarn::qt {

namespace detail {
class ImageFetcher;
}
class InAppPopup;
class PictureView;

/// The image row: one image at a time with previous / next controls and a page label.
class TARN_API ImageSlider : public QWidget {
  public:
    /// The loading state of one image.
    enum class SlotState { loading, loaded, failed };

    /// A slider of at most `maxImages` of `urls`, each request given `timeoutSeconds`.
    ImageSlider(std::vector<std::string> urls, int maxImages, int timeoutSeconds, QWidget* parent);
    ~ImageSlider() override;

    /// The number of image slots.
    int count() const { return static_cast<int>(slots_.size()); }
    /// The index of the image shown.
    int currentIndex() const { return index_; }
    /// The loading state of image `index`.
    SlotState state(int index) const { return slots_.at(index).state; }
    /// Moves to the next / previous image, with wrap-around; returns the new index.
    int next();
    /// Shows the previous image and returns the index shown.
    int previous();
    /// Shows image `index` (no bounds wrap; ignored when out of range).
    void showIndex(int index);
    /// Sizes the picture for a row `width` pixels wide (16:9).
    void setPictureWidth(int width);
    /// Number of slots no longer loading.
    int settledCount() const;

  protected:
    /// Starts a swipe.
    void mousePressEvent(QMouseEvent* event) override;
    /// Ends a swipe: a drag to either side shows the next or previous image.
    void mouseReleaseEvent(QMouseEvent* event) override;
    /// Keeps the previous and next arrows at the sides, centred on the picture.
    void resizeEvent(QResizeEvent* event) override;

  private:
    struct Slot {
        std::string url;
        SlotState state = SlotState::loading;
        QPixmap pixmap;
    };
    void load(int index, int timeoutSeconds);
    void finished(int index, const QImage& image);
    void refresh();

    std::vector<Slot> slots_;
    int index_ = 0;
    PictureView* picture_ = nullptr;
    QLabel* page_ = nullptr;
    QToolButton* previous_ = nullptr;
    QToolButton* next_ = nullptr;
    detail::ImageFetcher* fetcher_ = nullptr;
    QPoint pressAt_;
    bool pressed_ = false;
};

/// The popup (see above). Made by the library's in-app screen; a host does not create it.
class TARN_API InAppPopup : public QWidget {
  public:
    /// Builds the popup over `host` (its window) for `screen`'s communication. Shown by `open`.
    InAppPopup(QWidget* host, std::shared_ptr<InAppViewController> screen, int maxImages,
               int imageTimeoutSeconds);
    ~InAppPopup() override;

    /// Shows the popup, reports it opened and starts the auto-dismiss timer. The popup takes the
    /// keyboard focus; whichever way it closes, the focus goes back to the widget that had it.
    void open();
    /// Closes the popup with "in_app_dismissed" (the close control, Escape, the timer).
    void dismiss();
    /// The card's row widgets in their order.
    std::vector<QWidget*> rows() const;
    /// The image slider, or nullptr when the popup has no images.
    ImageSlider* slider() const { return slider_; }
    /// The auto-dismiss delay in milliseconds, 0 when there is none.
    int autoDismissMs() const { return autoDismissMs_; }

  protected:
    /// Paints the dimmed backdrop over the host's window.
    void paintEvent(QPaintEvent* event) override;
    /// Escape dismisses the popup; the arrow keys move the image slider.
    void keyPressEvent(QKeyEvent* event) override;
    /// Follows the size of the host's window.
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void build();
    void place();
    void buttonClicked(const AppCommunicationButton& button);
    void finish();

    std::shared_ptr<InAppViewController> screen_;
    QFrame* card_ = nullptr;
    ImageSlider* slider_ = nullptr;
    QTimer* autoDismiss_ = nullptr;
    int autoDismissMs_ = 0;
    int maxImages_;
    int imageTimeoutSeconds_;
    bool finished_ = false;
    /// The widget that had the keyboard focus when the popup opened; it gets it back on close.
    QPointer<QWidget> focusBefore_;
};

}  // namespace tarn::qt
