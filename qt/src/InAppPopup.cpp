// The popup: its card and rows, what the user does with them, and the auto-dismiss timer. The
// image row is the slider (ImageSlider.cpp), whose images come from its loader (ImageLoader.cpp).

#include "tarn/qt/InAppPopup.h"

#include <QApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

#include "Internal.h"

namespace tarn::qt {

namespace {

using detail::kCardMaxWidth;
constexpr int kCardMargin = 24;

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

}  // namespace

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
    focusBefore_ = QApplication::focusWidget();
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
    // Hiding the popup passed the focus on to the next widget in the window's chain; give it back
    // to the one the user was in, if it is still there to take it.
    if (focusBefore_ && focusBefore_ != this && focusBefore_->isVisible() &&
        focusBefore_->isEnabled()) {
        focusBefore_->setFocus(Qt::PopupFocusReason);
    }
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
