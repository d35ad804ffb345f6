#pragma once
// Popup images for both integrations: fetched with Qt's network access (http and https only, at
// most 8 MB), decoded and scaled on Qt's global thread pool (at most 40 megapixels) and handed
// back on the GUI thread, so the GUI thread never waits for the network or a decoder.

#include <QImage>
#include <QObject>
#include <QSize>
#include <functional>
#include <memory>
#include <string>

class QNetworkAccessManager;

namespace tarn::qt::detail {

/// Loads images for one owner (a child of it). A result that arrives after the fetcher is gone is
/// dropped on the thread pool and never reaches the owner.
class ImageFetcher final : public QObject {
  public:
    explicit ImageFetcher(QObject* parent);
    ~ImageFetcher() override;
    /// Starts loading `url`, giving the request `timeoutSeconds`. When the answer is in, `target`
    /// (asked on the GUI thread then) gives the size to scale into, in device pixels; `done` runs
    /// later on the GUI thread with the image, or a null image when it failed or was refused.
    /// Returns false, calling nothing, for an address that is not http or https.
    bool fetch(const std::string& url, int timeoutSeconds, std::function<QSize()> target,
               std::function<void(const QImage&)> done);

  private:
    struct Alive;
    QNetworkAccessManager* network_ = nullptr;
    std::shared_ptr<Alive> alive_;
};

}  // namespace tarn::qt::detail
