#include "tarn/push/TarnSliderPushHelper.h"

#include <string>

#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/inapp/AppCommunicationCoding.h"

namespace tarn {

std::vector<std::string> TarnSliderPushHelper::getImageList(
    const SliderNotification& notification) {
    if (!notification.isContentMutable()) {
        log("bestAttemptContent couldn't be assigned", std::string(logtag), LogLevel::error);
        return {};
    }
    const auto& userInfo = notification.userInfo();
    if (!userInfo.is_object()) {
        return {};
    }
    auto data = userInfo.find("data");
    if (data == userInfo.end() || !data->is_string()) {
        return {};
    }
    auto item = decode<NotificationAppCommunicationItem>(data->get_ref<const std::string&>());
    if (!item || !item.value().images) {
        return {};
    }
    std::vector<std::string> urls;
    for (const auto& image : *item.value().images) {
        if (image.url) {
            urls.push_back(*image.url);
        }
    }
    return urls;
}

SliderItemSize TarnSliderPushHelper::getSize(const SliderCollectionView& collectionView, IndexPath,
                                             std::int64_t) {
    double width = collectionView.frameWidth();
    return SliderItemSize{width, width - 20};
}

namespace {

void scrollTo(SliderCollectionView& view, std::int64_t index, SliderScrollPosition position) {
    view.setPagingEnabled(false);
    view.scrollToItem(IndexPath{.item = index, .section = 0}, position, true);
    view.setPagingEnabled(true);
}

}  // namespace

std::int64_t TarnSliderPushHelper::scrollNextItem(SliderCollectionView* collectionView,
                                                  std::int64_t currentIndex,
                                                  std::int64_t listCount) {
    if (collectionView == nullptr) {
        TARN_FATAL("TarnSliderPushHelper.scrollNextItem: no collection view");
    }
    std::int64_t next = currentIndex == listCount - 1 ? 0 : currentIndex + 1;
    if (listCount > 0) {
        scrollTo(*collectionView, next, SliderScrollPosition::right);
    }
    return next;
}

std::int64_t TarnSliderPushHelper::scrollPreviousItem(SliderCollectionView* collectionView,
                                                      std::int64_t currentIndex,
                                                      std::int64_t listCount) {
    if (collectionView == nullptr) {
        TARN_FATAL("TarnSliderPushHelper.scrollPreviousItem: no collection view");
    }
    std::int64_t previous = (currentIndex == 0 ? listCount : currentIndex) - 1;
    if (listCount > 0) {
        scrollTo(*collectionView, previous, SliderScrollPosition::left);
    }
    return previous;
}

}  // namespace tarn
