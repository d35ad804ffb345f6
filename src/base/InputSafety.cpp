#include "base/InputSafety.h"

#include <cmath>

namespace tarn {

namespace {

/// Length of the well-formed UTF-8 sequence at the start of `text`, or 0 when it is not one.
std::size_t sequenceLength(std::string_view text) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length;
    unsigned char low = 0x80, high = 0xBF;  // the allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            low = 0xA0;  // no overlong forms
        } else if (lead == 0xED) {
            high = 0x9F;  // no surrogates
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;  // nothing past U+10FFFF
        }
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    while (!text.empty()) {
        auto n = sequenceLength(text);
        if (n == 0) {
            return false;
        }
        text.remove_prefix(n);
    }
    return true;
}

std::string validUtf8(std::string_view text) {
    if (isValidUtf8(text)) {
        return std::string(text);
    }
    std::string out;
    out.reserve(text.size() + 8);
    while (!text.empty()) {
        auto n = sequenceLength(text);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, n));
            text.remove_prefix(n);
        }
    }
    return out;
}

std::string excerpt(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes) {
        return validUtf8(text);
    }
    std::size_t cut = maxBytes;
    // Step back over continuation bytes so a character is not split.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return validUtf8(text.substr(0, cut)) + "\xE2\x80\xA6";
}

bool jsonNestingExceeds(std::string_view text, std::size_t maxDepth) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                break;
            case '[':
            case '{':
                if (++depth > maxDepth) {
                    return true;
                }
                break;
            case ']':
            case '}':
                if (depth > 0) {
                    --depth;
                }
                break;
            default:
                break;
        }
    }
    return false;
}

nlohmann::json parseJsonBounded(std::string_view text) {
    if (jsonNestingExceeds(text)) {
        return nlohmann::json(nlohmann::json::value_t::discarded);
    }
    return nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
}

double clampNumber(double value, double low, double high, double fallback) {
    if (std::isnan(value)) {
        return fallback;
    }
    return value < low ? low : (value > high ? high : value);
}

}  // namespace tarn
