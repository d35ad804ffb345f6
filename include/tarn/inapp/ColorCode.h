#pragma once
// Colour codes of the in-app payload ("color", "textColor", "bgColor") turned into colours.
//
// Accepted forms, after surrounding white space is trimmed, with or without a leading "#", hex
// digits in either letter case:
//   RGB        each digit doubled ("#F80" is "#FF8800"), opaque
//   RGBA       as RGB, the fourth digit doubled is the alpha
//   RRGGBB     opaque
//   RRGGBBAA   alpha last, as in CSS ("#FF000080" is half-transparent red)
// Anything else (empty text, other lengths, non-hex characters, "rgb(...)" or colour names) is
// unreadable. Unreadable codes are drawn in opaque black.
//
// Pure functions, callable from any thread.

#include <cstdint>
#include <optional>
#include <string_view>

#include "tarn/core/Export.h"

namespace tarn {

/// An sRGB colour with 8-bit channels; `alpha` 255 is opaque.
struct TARN_API Color {
    /// Red channel, 0 to 255.
    std::uint8_t red = 0;
    /// Green channel, 0 to 255.
    std::uint8_t green = 0;
    /// Blue channel, 0 to 255.
    std::uint8_t blue = 0;
    /// Opacity, 0 (transparent) to 255 (opaque).
    std::uint8_t alpha = 255;

    /// Channels as fractions from 0 to 1, as drawing code usually wants them.
    double redComponent() const { return red / 255.0; }
    /// Green as a fraction from 0 to 1.
    double greenComponent() const { return green / 255.0; }
    /// Blue as a fraction from 0 to 1.
    double blueComponent() const { return blue / 255.0; }
    /// Opacity as a fraction from 0 to 1.
    double alphaComponent() const { return alpha / 255.0; }

    /// Opaque black, the colour of an unreadable colour code.
    static constexpr Color black() { return Color{0, 0, 0, 255}; }

    /// Colours are equal when every channel is.
    bool operator==(const Color&) const = default;
};

/// The colour of `code`, or nothing when the code is unreadable.
TARN_API std::optional<Color> parseColorCode(std::string_view code);

/// The colour of `code`; opaque black when the code is unreadable.
TARN_API Color colorFromCode(std::string_view code);

}  // namespace tarn
