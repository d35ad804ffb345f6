// The rich-push payload: the slider helper reads the item under "data" of the notification's user
// info, whatever it holds.
#include "FuzzSupport.h"
#include "tarn/push/TarnSliderPushHelper.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    tarn::SliderNotificationValue notification(
        nlohmann::json{{"data", tarn::fuzz::text(data, size)}});
    auto urls = tarn::TarnSliderPushHelper::getImageList(notification);
    if (urls.size() > size) {
        tarn::fuzz::violated("more image addresses than input bytes");
    }
    return 0;
}
