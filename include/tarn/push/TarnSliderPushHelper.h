#pragma once
// Helpers for a notification content extension that shows a slider push: a horizontally paged
// strip of the images carried by the push payload, moved one image at a time with wrap-around.
//
// The helper keeps no state: the host owns its collection view and the current index, and adapts
// its own notification and view objects to the two small interfaces below. Every operation runs on
// the extension's main thread, since it touches the host's views.

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"

namespace tarn {

/// A delivered notification as the slider helper sees it.
class TARN_API SliderNotification {
  public:
    virtual ~SliderNotification() = default;
    /// The notification's user-info dictionary. A slider payload carries under "data" a string
    /// holding the JSON of a `NotificationAppCommunicationItem`.
    virtual const nlohmann::json& userInfo() const = 0;
    /// Whether a mutable copy of the notification request's content is mutable notification
    /// content (the platform's "best attempt content").
    virtual bool isContentMutable() const = 0;
};

/// A ready-made `SliderNotification` holding its values, for hosts that copy them out of their own
/// notification object.
class TARN_API SliderNotificationValue : public SliderNotification {
  public:
    /// The slider of the notification whose user-info dictionary is `userInfo`.
    explicit SliderNotificationValue(nlohmann::json userInfo, bool contentMutable = true)
        : userInfo_(std::move(userInfo)), contentMutable_(contentMutable) {}
    const nlohmann::json& userInfo() const override { return userInfo_; }
    bool isContentMutable() const override { return contentMutable_; }

  private:
    nlohmann::json userInfo_;
    bool contentMutable_;
};

/// Position of an item in a collection view.
struct TARN_API IndexPath {
    /// The item's index within its section.
    std::int64_t item = 0;
    /// The section's index.
    std::int64_t section = 0;
    /// Index paths are equal when both indexes are.
    bool operator==(const IndexPath&) const = default;
};

/// Which edge of the collection view a scrolled-to item is aligned with.
enum class SliderScrollPosition { left, right };

/// Size of one item of the strip, in points.
struct TARN_API SliderItemSize {
    /// Width in points.
    double width = 0;
    /// Height in points.
    double height = 0;
    /// Sizes are equal when both sides are.
    bool operator==(const SliderItemSize&) const = default;
};

/// The host's horizontally scrolling collection view, as the slider helper drives it.
class TARN_API SliderCollectionView {
  public:
    virtual ~SliderCollectionView() = default;
    /// Width of the view's frame, in points.
    virtual double frameWidth() const = 0;
    /// Switches paged scrolling on or off.
    virtual void setPagingEnabled(bool enabled) = 0;
    /// Scrolls so that the item at `indexPath` lies against the given edge.
    virtual void scrollToItem(IndexPath indexPath, SliderScrollPosition position,
                              bool animated) = 0;
};

/// Static helpers of the slider push. Log tag "Tarn-TarnSliderPushHelper:".
class TARN_API TarnSliderPushHelper {
  public:
    /// Prefix of this component's log lines.
    static constexpr const char* logtag = "Tarn-TarnSliderPushHelper:";

    TarnSliderPushHelper() = delete;

    /// The image addresses of the notification's payload, in payload order; images without a url
    /// are skipped. When the content is not mutable it logs "bestAttemptContent couldn't be
    /// assigned" and gives an empty list; a missing or non-string "data", text that does not decode
    /// as a `NotificationAppCommunicationItem`, or a payload without images give an empty list.
    static std::vector<std::string> getImageList(const SliderNotification& notification);

    /// Size of every item: as wide as the view's frame and 20 points less high than that width.
    /// The index path and the count do not influence it.
    static SliderItemSize getSize(const SliderCollectionView& collectionView,
                                  IndexPath sizeForItemAt, std::int64_t listCount);

    /// Moves to the next image, from the last back to the first, and returns the new index: 0 when
    /// `currentIndex` is `listCount - 1`, else `currentIndex + 1`. Paging is switched off around a
    /// programmatic scroll to that item (section 0), aligned to the right edge, animated.
    /// A null `collectionView` is a programming error and ends the process.
    /// With `listCount` 0 (no images, which callers are not expected to pass) the index follows the
    /// same rule (0 from -1, else `currentIndex + 1`) but the view is left untouched, since it has
    /// no item to scroll to.
    static std::int64_t scrollNextItem(SliderCollectionView* collectionView,
                                       std::int64_t currentIndex, std::int64_t listCount);

    /// Moves to the previous image, from the first to the last, and returns the new index:
    /// `listCount - 1` when `currentIndex` is 0, else `currentIndex - 1`. Paging is switched off
    /// around a programmatic scroll to that item (section 0), aligned to the left edge, animated.
    /// A null `collectionView` is a programming error and ends the process.
    /// With `listCount` 0 the index follows the same rule (-1 from 0, else `currentIndex - 1`) but
    /// the view is left untouched.
    static std::int64_t scrollPreviousItem(SliderCollectionView* collectionView,
                                           std::int64_t currentIndex, std::int64_t listCount);
};

}  // namespace tarn
