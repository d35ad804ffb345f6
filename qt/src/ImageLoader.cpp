// The image slider's loader: fetches each image with the slider's QNetworkAccessManager (http and
// https only, at most 8 MB), decodes and scales it on Qt's global thread pool (at most 40
// megapixels) and hands it to the slider on the GUI thread (`ImageSlider::finished`), unless the
// slider is gone by then.

#include "ImageLoader.h"

#include <QBuffer>
#include <QImageReader>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThreadPool>
#include <algorithm>
#include <mutex>

#include "Internal.h"
#include "PictureView.h"

namespace tarn::qt {

namespace {

constexpr qint64 kMaxImageBytes = 8 * 1024 * 1024;
constexpr qint64 kMaxImagePixels = 40'000'000;
using detail::kCardMaxWidth;

}  // namespace

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

}  // namespace tarn::qt
