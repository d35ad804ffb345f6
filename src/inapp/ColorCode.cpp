#include "tarn/inapp/ColorCode.h"

namespace tarn {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::optional<Color> parseColorCode(std::string_view code) {
    while (!code.empty() && isSpace(code.front())) {
        code.remove_prefix(1);
    }
    while (!code.empty() && isSpace(code.back())) {
        code.remove_suffix(1);
    }
    if (!code.empty() && code.front() == '#') {
        code.remove_prefix(1);
    }

    int digits[8];
    if (code.size() > 8) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < code.size(); ++i) {
        digits[i] = hexDigit(code[i]);
        if (digits[i] < 0) {
            return std::nullopt;
        }
    }

    auto single = [&](std::size_t i) { return static_cast<std::uint8_t>(digits[i] * 17); };
    auto pair = [&](std::size_t i) {
        return static_cast<std::uint8_t>(digits[i] * 16 + digits[i + 1]);
    };
    switch (code.size()) {
        case 3:
            return Color{single(0), single(1), single(2), 255};
        case 4:
            return Color{single(0), single(1), single(2), single(3)};
        case 6:
            return Color{pair(0), pair(2), pair(4), 255};
        case 8:
            return Color{pair(0), pair(2), pair(4), pair(6)};
        default:
            return std::nullopt;
    }
}

Color colorFromCode(std::string_view code) {
    return parseColorCode(code).value_or(Color::black());
}

}  // namespace tarn
