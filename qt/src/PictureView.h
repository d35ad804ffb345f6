#pragma once
// The image slider's picture (see tarn/qt/InAppPopup.h): shared by the slider, which shows images
// in it, and its image loader, which scales each image to the picture's size.

#include <QPainter>
#include <QPixmap>
#include <QString>
#include <QWidget>

namespace tarn::qt {

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

}  // namespace tarn::qt
