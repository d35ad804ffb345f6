// The popup's image row: one image at a time, moved by its controls, the keys (through the popup)
// and swipes, with the rich-push helper's index rules. How its images arrive is in
// ImageLoader.cpp.

#include "tarn/qt/InAppPopup.h"

#include <QLabel>
#include <QMouseEvent>
#include <QResizeEvent>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>
#include <mutex>

#include "ImageFetch.h"
#include "Internal.h"
#include "PictureView.h"
#include "tarn/core/Log.h"
#include "tarn/push/TarnSliderPushHelper.h"

namespace tarn::qt {

namespace {

constexpr int kSwipeDistance = 40;

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

ImageSlider::ImageSlider(std::vector<std::string> urls, int maxImages, int timeoutSeconds,
                         QWidget* parent)
    : QWidget(parent) {
    setProperty("tarnRow", "images");
    setObjectName("tarnSlider");
    // Its own sheet, so a host's sheet that paints every widget stays out of the card.
    setStyleSheet("QWidget#tarnSlider, QLabel { background: transparent; }");
    maxImages = std::max(1, maxImages);
    if (urls.size() > static_cast<std::size_t>(maxImages)) {
        log("popup carries " + std::to_string(urls.size()) + " images; showing the first " +
                std::to_string(maxImages),
            detail::kViewTag, LogLevel::warning);
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

    fetcher_ = new detail::ImageFetcher(this);
    for (int i = 0; i < count(); ++i) {
        load(i, timeoutSeconds);
    }
    refresh();
}

ImageSlider::~ImageSlider() = default;

void ImageSlider::finished(int index, const QImage& image) {
    if (index < 0 || index >= count()) {
        return;
    }
    auto& slot = slots_[index];
    if (image.isNull()) {
        slot.state = SlotState::failed;
        log("image " + std::to_string(index + 1) + " could not be shown", detail::kViewTag,
            LogLevel::warning);
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

}  // namespace tarn::qt
