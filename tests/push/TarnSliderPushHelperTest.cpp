#include "support/TestSupport.h"
#include "tarn/push/TarnSliderPushHelper.h"

using namespace tarn;
using nlohmann::json;
using Strings = std::vector<std::string>;

namespace {

// A collection view that records what the helper asks of it.
struct RecordingCollectionView : SliderCollectionView {
    double frameWidth() const override { return 300; }
    void setPagingEnabled(bool on) override { calls.push_back(on ? "paging on" : "paging off"); }
    void scrollToItem(IndexPath at, SliderScrollPosition position, bool animated) override {
        calls.push_back("scroll " + std::to_string(at.section) + ":" + std::to_string(at.item) +
                        (position == SliderScrollPosition::left ? " left" : " right") +
                        (animated ? " animated" : ""));
    }
    Strings calls;
};

Strings images(const json& data, bool mutableContent = true) {
    return TarnSliderPushHelper::getImageList(SliderNotificationValue(
        {{"aps", {{"mutable-content", 1}}}, {"data", data.dump()}}, mutableContent));
}

}  // namespace

class TarnSliderPushHelperTest : public test::TarnTest {};

TEST_F(TarnSliderPushHelperTest, ImagesComeFromTheDataPayloadItemsFillTheViewScrollingWraps) {
    const json list = {{{"url", "https://cdn.example.com/1.png"}},
                       {{"url", nullptr}},
                       json::object(),
                       {{"url", "https://cdn.example.com/3.png"}}};
    EXPECT_EQ(images({{"uuid", "p1"}, {"sliderSupport", true}, {"images", list}}),
              (Strings{"https://cdn.example.com/1.png", "https://cdn.example.com/3.png"}));
    EXPECT_TRUE(images({{"uuid", "p1"},
                        {"sliderSupport", true},
                        {"images", {json::object(), {{"url", nullptr}}}}})
                    .empty());
    // Payloads that do not decode give nothing: no uuid, "data" not a string.
    EXPECT_TRUE(images({{"images", list}}).empty());
    const json decoded = {{"uuid", "p"}, {"images", list}};
    EXPECT_TRUE(TarnSliderPushHelper::getImageList(SliderNotificationValue(json{{"data", decoded}}))
                    .empty());
    // Content that is not mutable is logged once and gives nothing.
    test::LogCapture logs;
    EXPECT_TRUE(images(decoded, false).empty());
    EXPECT_EQ(logs.lines(),
              Strings{"Tarn-TarnSliderPushHelper: bestAttemptContent couldn't be assigned;"});

    // Items are as wide as the view and twenty points lower; scrolling wraps around with paging
    // off during the scroll.
    RecordingCollectionView view;
    EXPECT_EQ(TarnSliderPushHelper::getSize(view, IndexPath{.item = 5, .section = 2}, 3),
              (SliderItemSize{300, 280}));
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 2, 3), 0);
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 0, 3), 2);
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 0, 3), 1);
    // One image stays where it is, but is still scrolled to.
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 0, 1), 0);
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 0, 1), 0);
    EXPECT_EQ(view.calls, (Strings{"paging off", "scroll 0:0 right animated", "paging on",  //
                                   "paging off", "scroll 0:2 left animated", "paging on",   //
                                   "paging off", "scroll 0:1 right animated", "paging on",  //
                                   "paging off", "scroll 0:0 right animated", "paging on",  //
                                   "paging off", "scroll 0:0 left animated", "paging on"}));

    // No images: the index is computed but the view is left alone.
    view.calls.clear();
    EXPECT_EQ(TarnSliderPushHelper::scrollNextItem(&view, 0, 0), 1);
    EXPECT_EQ(TarnSliderPushHelper::scrollPreviousItem(&view, 0, 0), -1);
    EXPECT_TRUE(view.calls.empty());
    EXPECT_DEATH(TarnSliderPushHelper::scrollNextItem(nullptr, 0, 3), "Fatal error");
}
