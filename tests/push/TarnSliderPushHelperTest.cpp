#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/TestSupport.h"
#include "tarn/push/TarnSliderPushHelper.h"

using namespace tarn;
using nlohmann::json;

namespace {

// A collection view that records what the helper asks of it.
class RecordingCollectionView : public SliderCollectionView {
  public:
    explicit RecordingCollectionView(double width = 320) : width_(width) {}
    double frameWidth() const override { return width_; }
    void setPagingEnabled(bool enabled) override {
        calls.push_back(enabled ? "paging on" : "paging off");
    }
    void scrollToItem(IndexPath indexPath, SliderScrollPosition position, bool animated) override {
        calls.push_back("scroll " + std::to_string(indexPath.section) + ":" +
                        std::to_string(indexPath.item) +
                        (position == SliderScrollPosition::left ? " left" : " right") +
                        (animated ? " animated" : ""));
    }
    std::vector<std::string> calls;

  private:
    double width_;
};

SliderNotificationValue notificationWithData(const json& item, bool mutableContent = true) {
    return SliderNotificationValue({{"aps", {{"mutable-content", 1}}}, {"data", item.dump()}},
                                   mutableContent);
}

}  // namespace

class TarnSliderPushHelperTest : public test::TarnTest {};

TEST_F(TarnSliderPushHelperTest, ImageListComesFromTheDataPayload) {
    json item = {{"uuid", "p1"},
                 {"sliderSupport", true},
                 {"images",
                  {{{"url", "https://cdn.example.com/1.png"}},
                   {{"url", nullptr}},
                   {{"url", "https://cdn.example.com/2.png"}},
                   json::object(),
                   {{"url", "https://cdn.example.com/3.png"}}}}};
    EXPECT_EQ(
        TarnSliderPushHelper::getImageList(notificationWithData(item)),
        (std::vector<std::string>{"https://cdn.example.com/1.png", "https://cdn.example.com/2.png",
                                  "https://cdn.example.com/3.png"}));

    item["images"] = {json::object(), {{"url", nullptr}}};
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(notificationWithData(item)).empty());
    item.erase("images");
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(notificationWithData(item)).empty());

    // Payloads that do not decode give nothing: no uuid, a wrong type, "data" not a string, no
    // "data" at all, text that is not JSON.
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(
                    notificationWithData({{"images", {{{"url", "https://x/1.png"}}}}}))
                    .empty());
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(
                    notificationWithData({{"uuid", "p"}, {"images", {{{"url", 7}}}}}))
                    .empty());
    json decoded = {{"uuid", "p"}, {"images", {{{"url", "https://x/1.png"}}}}};
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(SliderNotificationValue(json{{"data", decoded}}))
                    .empty());
    EXPECT_TRUE(
        TarnSliderPushHelper::getImageList(SliderNotificationValue(json::object())).empty());
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(SliderNotificationValue(nullptr)).empty());
    EXPECT_TRUE(
        TarnSliderPushHelper::getImageList(SliderNotificationValue(json{{"data", "{\"uuid\":"}}))
            .empty());
    EXPECT_EQ(
        TarnSliderPushHelper::getImageList(SliderNotificationValue(json{{"data", decoded.dump()}})),
        std::vector<std::string>{"https://x/1.png"});
}

TEST_F(TarnSliderPushHelperTest, ContentThatIsNotMutableIsLoggedAndGivesNothing) {
    test::LogCapture logs;
    json item = {{"uuid", "p1"}, {"images", {{{"url", "https://cdn.example.com/1.png"}}}}};
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(notificationWithData(item, false)).empty());
    EXPECT_TRUE(
        logs.contains("Tarn-TarnSliderPushHelper: bestAttemptContent couldn't be assigned;"));
    EXPECT_EQ(logs.lines().size(), 1u);

    EXPECT_EQ(TarnSliderPushHelper::getImageList(notificationWithData(item)).size(), 1u);
    EXPECT_EQ(logs.lines().size(), 1u);
}

TEST_F(TarnSliderPushHelperTest, ItemsAreAsWideAsTheViewAndTwentyPointsLower) {
    RecordingCollectionView view(300);
    EXPECT_EQ(TarnSliderPushHelper::getSize(view, IndexPath{.item = 0, .section = 0}, 3),
              (SliderItemSize{300, 280}));
    EXPECT_EQ(TarnSliderPushHelper::getSize(view, IndexPath{.item = 5, .section = 2}, 0),
              (SliderItemSize{300, 280}));
    RecordingCollectionView narrow(414.5);
    EXPECT_EQ(TarnSliderPushHelper::getSize(narrow, IndexPath{}, 1),
              (SliderItemSize{414.5, 394.5}));
    EXPECT_TRUE(view.calls.empty());
}

TEST_F(TarnSliderPushHelperTest, ScrollingWrapsAroundWithPagingOffDuringTheScroll) {
    RecordingCollectionView view;
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 2, 3), 0);
    EXPECT_EQ(view.calls,
              (std::vector<std::string>{"paging off", "scroll 0:0 right animated", "paging on"}));
    view.calls.clear();
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 0, 3), 2);
    EXPECT_EQ(view.calls,
              (std::vector<std::string>{"paging off", "scroll 0:2 left animated", "paging on"}));
    view.calls.clear();

    // Walking forward and back through three images.
    std::int64_t index = 0;
    std::vector<std::int64_t> forward;
    for (int i = 0; i < 4; ++i) {
        index = TarnSliderPushHelper::scrollNextItem(&view, index, 3);
        forward.push_back(index);
    }
    EXPECT_EQ(forward, (std::vector<std::int64_t>{1, 2, 0, 1}));
    std::vector<std::int64_t> back;
    for (int i = 0; i < 4; ++i) {
        index = TarnSliderPushHelper::scrollPreviousItem(&view, index, 3);
        back.push_back(index);
    }
    EXPECT_EQ(back, (std::vector<std::int64_t>{0, 2, 1, 0}));
    EXPECT_EQ(view.calls.size(), 8u * 3);

    // One image stays where it is, but is still scrolled to.
    view.calls.clear();
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 0, 1), 0);
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 0, 1), 0);
    EXPECT_EQ(view.calls,
              (std::vector<std::string>{"paging off", "scroll 0:0 right animated", "paging on",
                                        "paging off", "scroll 0:0 left animated", "paging on"}));
}

TEST_F(TarnSliderPushHelperTest, NoImagesComputesTheIndexButLeavesTheViewAlone) {
    RecordingCollectionView view;
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, -1, 0), 0);
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 0, 0), 1);
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 0, 0), -1);
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 3, 0), 2);
    EXPECT_TRUE(view.calls.empty());
}

TEST_F(TarnSliderPushHelperTest, AbsentCollectionViewEndsTheProcess) {
    EXPECT_DEATH(TarnSliderPushHelper::scrollNextItem(nullptr, 0, 3), "Fatal error");
    EXPECT_DEATH(TarnSliderPushHelper::scrollPreviousItem(nullptr, 0, 3), "Fatal error");
}
