#include "tarn/qt/InAppPopup.h"

#include <QBuffer>
#include <QEvent>
#include <QHBoxLayout>
#include <QImageReader>
#include <QKeyEvent>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPainter>
#include <QPushButton>
#include <QThreadPool>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>
#include <mutex>

#include "Internal.h"
#include "tarn/core/Log.h"
#include "tarn/push/TarnSliderPushHelper.h"

namespace tarn::qt {

namespace {

constexpr qint64 kMaxImageBytes = 8 * 1024 * 1024;
constexpr qint64 kMaxImagePixels = 40'000'000;
constexpr int kCardMaxWidth = 400;
constexpr int kCardMargin = 24;
constexpr int kSwipeDistance = 40;

QString css(const Color& c) {
    return QStringLiteral("rgba(%1,%2,%3,%4)").arg(c.red).arg(c.green).arg(c.blue).arg(c.alpha);
}

QString css(const std::optional<std::string>& code, const Color& fallback) {
    return css(code ? colorFromCode(*code) : fallback);
}

/// The card: a click on it outside its controls is a click on the communication itself.
class Card final : public QFrame {
  public:
    Card(QWidget* parent, std::function<void()> clicked)
        : QFrame(parent), clicked_(std::move(clicked)) {}

  protected:
    void mousePressEvent(QMouseEvent* event) override {
        pressed_ = event->button() == Qt::LeftButton;
        event->accept();
    }
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (pressed_ && event->button() == Qt::LeftButton &&
            rect().contains(event->position().toPoint())) {
            clicked_();
        }
        pressed_ = false;
        event->accept();
    }

  private:
    std::function<void()> clicked_;
    bool pressed_ = false;
};

/// The slider as the rich-push helper's collection view, so both move by the same index rules.
class SliderView final : public SliderCollectionView {
  public:
    explicit SliderView(ImageSlider& slider) : slider_(slider) {}
    double frameWidth() const override { return slider_.width(); }
    void setPagingEnabled(bool) override {}
    void scrollToItem(IndexPath indexPath, SliderScrollPosition, bool) override {
        slider_.showIndex(static_cast<int>(indexPath.item));
    }

  private:
    ImageSlider& slider_;
};

}  // namespace

/// The slider's picture: paints the current image (or the placeholder) itself, so an arriving
/// image costs a repaint of this widget only, never a layout pass of the popup.
class PictureView final : public QWidget {
  public:
    explicit PictureView(QWidget* parent) : QWidget(parent) {
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    }
    void showPixmap(const QPixmap& pixmap, const QString& placeholder) {
        pixmap_ = pixmap;
        placeholder_ = placeholder;
        update();
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        if (pixmap_.isNull()) {
            painter.setPen(Qt::NoPen);
            painter.setBrush(QColor(128, 128, 128, 40));
            painter.drawRoundedRect(rect(), 8, 8);
            painter.setPen(QColor(60, 60, 60, 200));
            painter.drawText(rect(), Qt::AlignCenter, placeholder_);
            return;
        }
        QSizeF size = pixmap_.deviceIndependentSize();
        QPointF at((width() - size.width()) / 2, (height() - size.height()) / 2);
        painter.drawPixmap(at, pixmap_);
    }

  private:
    QPixmap pixmap_;
    QString placeholder_;
};

// ---- ImageSlider

/// The slider as seen by decoding tasks on the thread pool: cleared when the slider goes, so a
/// late decode result is dropped instead of reaching a dead widget.
struct ImageSlider::Alive {
    std::mutex mutex;
    ImageSlider* slider = nullptr;
};

ImageSlider::ImageSlider(std::vector<std::string> urls, int maxImages, int timeoutSeconds,
                         QWidget* parent)
    : QWidget(parent), alive_(std::make_shared<Alive>()) {
    alive_->slider = this;
    setProperty("tarnRow", "images");
    setObjectName("tarnSlider");
    // Its own sheet, so a host's sheet that paints every widget stays out of the card.
    setStyleSheet("QWidget#tarnSlider, QLabel { background: transparent; }");
    maxImages = std::max(1, maxImages);
    if (urls.size() > static_cast<std::size_t>(maxImages)) {
        log("popup carries " + std::to_string(urls.size()) + " images; showing the first " +
                std::to_string(maxImages),
            detail::kViewTag);
        urls.resize(static_cast<std::size_t>(maxImages));
    }
    for (auto& url : urls) {
        slots_.push_back(Slot{std::move(url), SlotState::loading, {}});
    }

    picture_ = new PictureView(this);
    picture_->setObjectName("tarnPicture");
    page_ = new QLabel(this);
    page_->setAlignment(Qt::AlignCenter);
    page_->setStyleSheet("color: rgba(90,90,90,255); font-size: 11px; background: transparent;");
    auto makeArrow = [this](const QString& text, const QString& name) {
        auto* button = new QToolButton(this);
        button->setText(text);
        button->setObjectName(name);
        button->setCursor(Qt::PointingHandCursor);
        button->setStyleSheet(
            "QToolButton { background: rgba(0,0,0,90); color: white;"
            " border: none; border-radius: 14px; font-size: 16px;"
            " font-weight: bold; }"
            "QToolButton:hover { background: rgba(0,0,0,140); }");
        button->setFixedSize(28, 28);
        return button;
    };
    previous_ = makeArrow(QStringLiteral("\u2039"), "tarnPrevious");
    next_ = makeArrow(QStringLiteral("\u203A"), "tarnNext");
    connect(previous_, &QToolButton::clicked, this, [this] { previous(); });
    connect(next_, &QToolButton::clicked, this, [this] { next(); });
    previous_->setVisible(slots_.size() > 1);
    next_->setVisible(slots_.size() > 1);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);
    layout->addWidget(picture_);
    layout->addWidget(page_);

    network_ = new QNetworkAccessManager(this);
    for (int i = 0; i < count(); ++i) {
        load(i, timeoutSeconds);
    }
    refresh();
}

ImageSlider::~ImageSlider() {
    std::lock_guard lock(alive_->mutex);
    alive_->slider = nullptr;
}

void ImageSlider::load(int index, int timeoutSeconds) {
    QUrl url(QString::fromStdString(slots_[index].url), QUrl::StrictMode);
    if (!url.isValid() || (url.scheme() != "http" && url.scheme() != "https")) {
        slots_[index].state = SlotState::failed;
        return;
    }
    QNetworkRequest request(url);
    request.setTransferTimeout(std::max(1, timeoutSeconds) * 1000);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply* reply = network_->get(request);
    reply->setParent(this);
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64 total) {
        if (received > kMaxImageBytes || total > kMaxImageBytes) {
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, index] {
        reply->deleteLater();
        if (reply->error() != QNetworkReply::NoError) {
            finished(index, QImage());
            return;
        }
        QByteArray data = reply->read(kMaxImageBytes + 1);
        if (data.size() > kMaxImageBytes) {
            finished(index, QImage());
            return;
        }
        QSize target = picture_->size().isEmpty() ? QSize(kCardMaxWidth, kCardMaxWidth * 9 / 16)
                                                  : picture_->size();
        target *= devicePixelRatioF();
        QThreadPool::globalInstance()->start(
            [alive = alive_, data = std::move(data), target, index]() mutable {
                QBuffer buffer(&data);
                buffer.open(QIODevice::ReadOnly);
                QImageReader reader(&buffer);
                QSize size = reader.size();
                QImage image;
                if (size.isValid() &&
                    static_cast<qint64>(size.width()) * size.height() <= kMaxImagePixels) {
                    image = reader.read();
                    if (!image.isNull()) {
                        image = image.scaled(target, Qt::KeepAspectRatio, Qt::SmoothTransformation);
                    }
                }
                std::lock_guard lock(alive->mutex);
                if (alive->slider) {
                    QMetaObject::invokeMethod(
                        alive->slider,
                        [slider = alive->slider, index, image = std::move(image)] {
                            slider->finished(index, image);
                        },
                        Qt::QueuedConnection);
                }
            });
    });
}

void ImageSlider::finished(int index, const QImage& image) {
    if (index < 0 || index >= count()) {
        return;
    }
    auto& slot = slots_[index];
    if (image.isNull()) {
        slot.state = SlotState::failed;
        log("image " + std::to_string(index + 1) + " could not be shown", detail::kViewTag);
    } else {
        slot.state = SlotState::loaded;
        slot.pixmap = QPixmap::fromImage(image);
        slot.pixmap.setDevicePixelRatio(devicePixelRatioF());
    }
    if (index == index_) {
        refresh();
    }
}

int ImageSlider::settledCount() const {
    return static_cast<int>(std::count_if(
        slots_.begin(), slots_.end(), [](const Slot& s) { return s.state != SlotState::loading; }));
}

int ImageSlider::next() {
    if (count() > 0) {
        SliderView view(*this);
        TarnSliderPushHelper::scrollNextItem(&view, index_, count());
    }
    return index_;
}

int ImageSlider::previous() {
    if (count() > 0) {
        SliderView view(*this);
        TarnSliderPushHelper::scrollPreviousItem(&view, index_, count());
    }
    return index_;
}

void ImageSlider::showIndex(int index) {
    if (index >= 0 && index < count()) {
        index_ = index;
        refresh();
    }
}

void ImageSlider::refresh() {
    if (slots_.empty()) {
        return;
    }
    const auto& slot = slots_[index_];
    switch (slot.state) {
        case SlotState::loaded:
            picture_->showPixmap(slot.pixmap, {});
            break;
        case SlotState::loading:
            picture_->showPixmap({}, tr("Loading\u2026"));
            break;
        case SlotState::failed:
            picture_->showPixmap({}, tr("Image unavailable"));
            break;
    }
    page_->setText(count() > 1 ? QStringLiteral("%1 / %2").arg(index_ + 1).arg(count())
                               : QString());
    page_->setVisible(count() > 1);
}

void ImageSlider::setPictureWidth(int width) {
    picture_->setFixedHeight(std::max(1, width) * 9 / 16);
}

void ImageSlider::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    int y = (picture_->height() - previous_->height()) / 2;
    previous_->move(8, y);
    next_->move(width() - next_->width() - 8, y);
    previous_->raise();
    next_->raise();
}

void ImageSlider::mousePressEvent(QMouseEvent* event) {
    pressed_ = event->button() == Qt::LeftButton;
    pressAt_ = event->position().toPoint();
    event->accept();
}

void ImageSlider::mouseReleaseEvent(QMouseEvent* event) {
    if (pressed_ && event->button() == Qt::LeftButton) {
        int dx = event->position().toPoint().x() - pressAt_.x();
        if (dx <= -kSwipeDistance) {
            next();
        } else if (dx >= kSwipeDistance) {
            previous();
        }
    }
    pressed_ = false;
    event->accept();
}

// ---- InAppPopup

InAppPopup::InAppPopup(QWidget* host, std::shared_ptr<InAppViewController> screen, int maxImages,
                       int imageTimeoutSeconds)
    : QWidget(host),
      screen_(std::move(screen)),
      maxImages_(maxImages),
      imageTimeoutSeconds_(imageTimeoutSeconds) {
    setObjectName("TarnInAppPopup");
    setAttribute(Qt::WA_DeleteOnClose);
    setFocusPolicy(Qt::StrongFocus);
    // The host's style sheet cascades into children; the popup draws its own backgrounds.
    setAttribute(Qt::WA_StyledBackground, false);
    setAutoFillBackground(false);
    setStyleSheet(
        "QWidget#TarnInAppPopup { background: transparent; }"
        " QLabel { background: transparent; }");
    if (!host) {
        // Nothing of the host to go over: a window of its own.
        setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
        resize(460, 640);
    } else {
        host->installEventFilter(this);
    }
    build();
}

InAppPopup::~InAppPopup() = default;

void InAppPopup::build() {
    const auto& model = *screen_->inApp;
    const auto& item = model.appCommunucation;
    card_ = new Card(this, [this] {
        if (!finished_) {
            screen_->reportSelfClicked();
        }
    });
    card_->setObjectName("tarnCard");
    card_->setCursor(Qt::PointingHandCursor);
    card_->setStyleSheet(QStringLiteral("QFrame#tarnCard { background: %1; border-radius: 14px; }")
                             .arg(css(colorFromCode(item.bgColor))));
    auto* layout = new QVBoxLayout(card_);
    layout->setContentsMargins(20, 12, 20, 20);
    layout->setSpacing(12);

    auto* close = new QToolButton(card_);
    close->setObjectName("tarnClose");
    close->setText(QStringLiteral("\u2715"));
    close->setToolTip(tr("Close"));
    close->setCursor(Qt::PointingHandCursor);
    close->setStyleSheet(
        "QToolButton { border: none; background: rgba(0,0,0,18); color: #555;"
        " border-radius: 13px; font-size: 13px; }"
        "QToolButton:hover { background: rgba(0,0,0,40); }");
    close->setFixedSize(26, 26);
    connect(close, &QToolButton::clicked, this, [this] { dismiss(); });
    auto* top = new QHBoxLayout;
    top->setContentsMargins(0, 0, -8, 0);
    top->addStretch();
    top->addWidget(close);
    layout->addLayout(top);

    for (const auto& row : model.presentations) {
        if (const auto* title = std::get_if<TitleTableViewCellPresentation>(&row)) {
            auto* label = new QLabel(QString::fromStdString(title->title), card_);
            label->setProperty("tarnRow", "title");
            label->setObjectName("tarnTitle");
            label->setWordWrap(true);
            label->setAlignment(Qt::AlignHCenter);
            label->setStyleSheet(QStringLiteral("color: %1; font-size: 19px; font-weight: 600;")
                                     .arg(css(title->color)));
            label->setVisible(!title->title.empty());
            layout->addWidget(label);
        } else if (const auto* images = std::get_if<ImageTableViewCellPresentation>(&row)) {
            slider_ = new ImageSlider(images->imageUrls, maxImages_, imageTimeoutSeconds_, card_);
            layout->addWidget(slider_);
        } else if (const auto* body = std::get_if<BodyTextTableViewCellPresentation>(&row)) {
            auto* label = new QLabel(QString::fromStdString(body->text), card_);
            label->setProperty("tarnRow", "body");
            label->setObjectName("tarnBody");
            label->setWordWrap(true);
            label->setAlignment(Qt::AlignHCenter);
            label->setStyleSheet(
                QStringLiteral("color: %1; font-size: 14px;").arg(css(body->color)));
            label->setVisible(!body->text.empty());
            layout->addWidget(label);
        } else if (const auto* cell = std::get_if<ButtonTableViewCellPresentation>(&row)) {
            const auto& button = cell->button;
            auto* push = new QPushButton(QString::fromStdString(button.text.value_or("")), card_);
            push->setProperty("tarnRow", "button");
            push->setObjectName(QStringLiteral("tarnButton%1").arg(layout->count()));
            push->setCursor(Qt::PointingHandCursor);
            push->setMinimumHeight(40);
            push->setStyleSheet(
                QStringLiteral("QPushButton { color: %1; background: %2; border: 1px solid"
                               " rgba(0,0,0,30); border-radius: 10px; font-size: 14px;"
                               " font-weight: 600; padding: 8px 14px; }"
                               "QPushButton:pressed { padding-top: 9px; }")
                    .arg(css(button.textColor, Color::black()),
                         css(button.color, Color{0xE8, 0xEA, 0xED, 255})));
            connect(push, &QPushButton::clicked, this, [this, button] { buttonClicked(button); });
            layout->addWidget(push);
        }
    }

    if (auto seconds = model.configuration.inAppMaxShowDuration; seconds && *seconds > 0) {
        autoDismissMs_ = static_cast<int>(std::min<std::int64_t>(*seconds, 86400) * 1000);
        autoDismiss_ = new QTimer(this);
        autoDismiss_->setSingleShot(true);
        autoDismiss_->setInterval(autoDismissMs_);
        connect(autoDismiss_, &QTimer::timeout, this, [this] { dismiss(); });
    }
}

std::vector<QWidget*> InAppPopup::rows() const {
    std::vector<QWidget*> result;
    auto* layout = card_->layout();
    for (int i = 0; i < layout->count(); ++i) {
        auto* widget = layout->itemAt(i)->widget();
        if (widget && widget->property("tarnRow").isValid()) {
            result.push_back(widget);
        }
    }
    return result;
}

void InAppPopup::open() {
    place();
    show();
    raise();
    setFocus(Qt::OtherFocusReason);
    screen_->reportOpened();
    if (autoDismiss_) {
        autoDismiss_->start();
    }
}

void InAppPopup::dismiss() {
    if (finished_) {
        return;
    }
    screen_->reportDismissed();
    finish();
}

void InAppPopup::buttonClicked(const AppCommunicationButton& button) {
    if (finished_) {
        return;
    }
    finish();  // first, so a host callback that opens a dialog finds the popup gone
    screen_->reportButtonClicked(button);
}

void InAppPopup::finish() {
    finished_ = true;
    if (autoDismiss_) {
        autoDismiss_->stop();
    }
    close();  // deletes the popup (WA_DeleteOnClose) once control is back in the event loop
}

void InAppPopup::place() {
    if (parentWidget()) {
        setGeometry(parentWidget()->rect());
    }
    int width = std::min(kCardMaxWidth, std::max(200, this->width() - 2 * kCardMargin));
    card_->setFixedWidth(width);
    if (slider_) {
        auto margins = card_->layout()->contentsMargins();
        slider_->setPictureWidth(width - margins.left() - margins.right());
    }
    card_->adjustSize();
    int height =
        std::min(card_->sizeHint().height(), std::max(120, this->height() - 2 * kCardMargin));
    card_->setFixedHeight(height);
    card_->move((this->width() - width) / 2, std::max(0, (this->height() - height) / 2));
}

void InAppPopup::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), QColor(0, 0, 0, parentWidget() ? 120 : 60));
}

void InAppPopup::keyPressEvent(QKeyEvent* event) {
    switch (event->key()) {
        case Qt::Key_Escape:
            dismiss();
            break;
        case Qt::Key_Left:
            if (slider_) {
                slider_->previous();
            }
            break;
        case Qt::Key_Right:
            if (slider_) {
                slider_->next();
            }
            break;
        default:
            QWidget::keyPressEvent(event);
            return;
    }
    event->accept();
}

bool InAppPopup::eventFilter(QObject* watched, QEvent* event) {
    if (watched == parentWidget() && event->type() == QEvent::Resize) {
        place();
    }
    return QWidget::eventFilter(watched, event);
}

}  // namespace tarn::qt
