// The image slider's loader: each image comes through the shared fetcher (ImageFetch.h: network,
// then decoding and scaling on the thread pool) and is handed to the slider on the GUI thread
// (`ImageSlider::finished`), unless the slider is gone by then.

#include "ImageFetch.h"
#include "Internal.h"
#include "PictureView.h"
#include "tarn/qt/InAppPopup.h"

namespace tarn::qt {

void ImageSlider::load(int index, int timeoutSeconds) {
    bool started = fetcher_->fetch(
        slots_[index].url, timeoutSeconds,
        [this] {
            QSize target = picture_->size().isEmpty()
                               ? QSize(detail::kCardMaxWidth, detail::kCardMaxWidth * 9 / 16)
                               : picture_->size();
            return target * devicePixelRatioF();
        },
        [this, index](const QImage& image) { finished(index, image); });
    if (!started) {
        slots_[index].state = SlotState::failed;
    }
}

}  // namespace tarn::qt
