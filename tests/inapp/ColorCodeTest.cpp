#include <gtest/gtest.h>

#include "tarn/inapp/ColorCode.h"

using namespace tarn;

TEST(ColorCode, ReadsTheHexForms) {
    struct Case {
        const char* code;
        Color color;
    };
    const Case cases[] = {
        {"#FF8800", {255, 136, 0, 255}},   {"ff8800", {255, 136, 0, 255}},
        {"#fF88aA", {255, 136, 170, 255}}, {"#F80", {255, 136, 0, 255}},
        {"f80", {255, 136, 0, 255}},       {"#F808", {255, 136, 0, 136}},
        {"#FF000080", {255, 0, 0, 128}},  // alpha last
        {"#00000000", {0, 0, 0, 0}},       {"  #0a0B0c \t\n", {10, 11, 12, 255}},
        {"#FFFFFF", {255, 255, 255, 255}},
    };
    for (const auto& c : cases) {
        auto parsed = parseColorCode(c.code);
        ASSERT_TRUE(parsed) << c.code;
        EXPECT_EQ(*parsed, c.color) << c.code;
        EXPECT_EQ(colorFromCode(c.code), c.color) << c.code;
    }
    EXPECT_DOUBLE_EQ(colorFromCode("#FF000080").alphaComponent(), 128 / 255.0);
    EXPECT_DOUBLE_EQ(colorFromCode("#FF8800").redComponent(), 1.0);
}

TEST(ColorCode, UnreadableCodesAreBlack) {
    for (const char* code : {"", "   ", "#", "##FFF", "#FF", "#FFFFF", "#FFFFFFF", "#FFFFFFFFF",
                             "#GGGGGG", "red", "rgb(1,2,3)", "# FFF", "#FF FF FF", "0xFFFFFF"}) {
        EXPECT_FALSE(parseColorCode(code)) << code;
        EXPECT_EQ(colorFromCode(code), Color::black()) << code;
    }
    EXPECT_EQ(Color::black(), (Color{0, 0, 0, 255}));
    EXPECT_FALSE(parseColorCode(std::string_view("#FFF\0", 5)));
}
