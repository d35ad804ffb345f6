#include <gtest/gtest.h>

#include "tarn/inapp/ColorCode.h"

using namespace tarn;

TEST(ColorCode, ReadsTheHexFormsAndTakesUnreadableCodesAsBlack) {
    const std::vector<std::pair<std::string, Color>> readable = {
        {"#FF8800", {255, 136, 0, 255}},   {"ff8800", {255, 136, 0, 255}},
        {"#fF88aA", {255, 136, 170, 255}}, {"#F80", {255, 136, 0, 255}},
        {"f80", {255, 136, 0, 255}},       {"#F808", {255, 136, 0, 136}},
        {"#FF000080", {255, 0, 0, 128}},  // alpha last
        {"#00000000", {0, 0, 0, 0}},       {"  #0a0B0c \t\n", {10, 11, 12, 255}}};
    for (const auto& [code, color] : readable) {
        EXPECT_EQ(parseColorCode(code), color) << code;
        EXPECT_EQ(colorFromCode(code), color) << code;
    }
    for (const char* code : {"", "   ", "#", "##FFF", "#FF", "#FFFFF", "#FFFFFFF", "#FFFFFFFFF",
                             "#GGGGGG", "red", "rgb(1,2,3)", "# FFF", "#FF FF FF", "0xFFFFFF"}) {
        EXPECT_FALSE(parseColorCode(code)) << code;
        EXPECT_EQ(colorFromCode(code), (Color{0, 0, 0, 255})) << code;
    }
    EXPECT_FALSE(parseColorCode(std::string_view("#FFF\0", 5)));
}
