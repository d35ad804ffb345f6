#pragma once
// The link between the image slider (tarn/qt/InAppPopup.h) and its loader (ImageLoader.cpp): the
// decoding tasks of the loader reach the slider only through it.

#include <mutex>

#include "tarn/qt/InAppPopup.h"

namespace tarn::qt {

/// The slider as seen by decoding tasks on the thread pool: cleared when the slider goes, so a
/// late decode result is dropped instead of reaching a dead widget.
struct ImageSlider::Alive {
    std::mutex mutex;
    ImageSlider* slider = nullptr;
};

}  // namespace tarn::qt
