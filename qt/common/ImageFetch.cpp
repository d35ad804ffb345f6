#include "ImageFetch.h"

#include <QBuffer>
#include <QImageReader>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThreadPool>
#include <QUrl>
#include <algorithm>
#include <mutex>

namespace tarn::qt::detail {

namespace {

constexpr qint64 kMaxImageBytes = 8 * 1024 * 1024;
constexpr qint64 kMaxImagePixels = 40'000'000;

}  // namespace

/// The fetcher as seen by decoding tasks on the thread pool: cleared when the fetcher goes.
struct ImageFetcher::Alive {
    std::mutex mutex;
    ImageFetcher* fetcher = nullptr;
};

ImageFetcher::ImageFetcher(QObject* parent)
    : QObject(parent), network_(new QNetworkAccessManager(this)), alive_(std::make_shared<Alive>()) {
    alive_->fetcher = this;
}

ImageFetcher::~ImageFetcher() {
    std::lock_guard lock(alive_->mutex);
    alive_->fetcher = nullptr;
}

bool ImageFetcher::fetch(const std::string& address, int timeoutSeconds,
                         std::function<QSize()> target, std::function<void(const QImage&)> done) {
    QUrl url(QString::fromStdString(address), QUrl::StrictMode);
    if (!url.isValid() || (url.scheme() != "http" && url.scheme() != "https")) {
        return false;
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
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, target = std::move(target), done = std::move(done)] {
                reply->deleteLater();
                if (reply->error() != QNetworkReply::NoError) {
                    done(QImage());
                    return;
                }
                QByteArray data = reply->read(kMaxImageBytes + 1);
                if (data.size() > kMaxImageBytes) {
                    done(QImage());
                    return;
                }
                QSize size = target();
                QThreadPool::globalInstance()->start([alive = alive_, data = std::move(data), size,
                                                      done]() mutable {
                    QBuffer buffer(&data);
                    buffer.open(QIODevice::ReadOnly);
                    QImageReader reader(&buffer);
                    QSize original = reader.size();
                    QImage image;
                    if (original.isValid() && static_cast<qint64>(original.width()) *
                                                      original.height() <=
                                                  kMaxImagePixels) {
                        image = reader.read();
                        if (!image.isNull()) {
                            image = image.scaled(size, Qt::KeepAspectRatio,
                                                 Qt::SmoothTransformation);
                        }
                    }
                    std::lock_guard lock(alive->mutex);
                    if (alive->fetcher) {
                        QMetaObject::invokeMethod(
                            alive->fetcher,
                            [done = std::move(done), image = std::move(image)] { done(image); },
                            Qt::QueuedConnection);
                    }
                });
            });
    return true;
}

}  // namespace tarn::qt::detail
