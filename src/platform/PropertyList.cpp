#include "tarn/platform/PropertyList.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string_view>

#include "base/InputSafety.h"

namespace tarn {

namespace {

std::string base64(const char* data, std::size_t size) {
    static const char* table = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    for (std::size_t i = 0; i < size; i += 3) {
        unsigned v = static_cast<unsigned char>(data[i]) << 16;
        if (i + 1 < size)
            v |= static_cast<unsigned char>(data[i + 1]) << 8;
        if (i + 2 < size)
            v |= static_cast<unsigned char>(data[i + 2]);
        out += table[(v >> 18) & 63];
        out += table[(v >> 12) & 63];
        out += i + 1 < size ? table[(v >> 6) & 63] : '=';
        out += i + 2 < size ? table[v & 63] : '=';
    }
    return out;
}

/// Reads a big-endian unsigned integer of `size` bytes.
std::uint64_t bigEndian(const unsigned char* p, std::size_t size) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < size; ++i) {
        v = (v << 8) | p[i];
    }
    return v;
}

/// Why the string objects of a binary property list cannot be read safely, or nullptr when they
/// can. libplist hands strings and keys out as C strings (and asserts that their length matches),
/// so a NUL character inside one is refused before the file is parsed. Walks the object offset
/// table only, and reads anything in the file that the table points at, even where libplist would
/// refuse the layout: a refusal here only anticipates one there. Objects of a well-formed file do
/// not overlap, so the strings together are never longer than the file; a table that makes them
/// longer is refused too, which keeps this walk linear in the file's size.
const char* binaryStringProblem(const std::string& bytes) {
    constexpr std::size_t kTrailer = 32;
    if (bytes.size() < 8 + kTrailer) {
        return nullptr;
    }
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t end = bytes.size();
    const unsigned char* trailer = data + end - kTrailer;
    const std::size_t offsetSize = trailer[6];
    const std::uint64_t objects = bigEndian(trailer + 8, 8);
    const std::uint64_t table = bigEndian(trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || table >= end || objects > (end - table) / offsetSize) {
        return nullptr;  // libplist refuses a table that does not fit in the file
    }
    std::uint64_t scanned = 0;
    for (std::uint64_t i = 0; i < objects; ++i) {
        const std::uint64_t offset = bigEndian(data + table + i * offsetSize, offsetSize);
        if (offset >= end) {
            continue;
        }
        const unsigned marker = data[offset];
        const unsigned type = marker >> 4;
        if (type != 0x5 && type != 0x6 && type != 0x7) {  // ASCII, UTF-16 and UTF-8 strings
            continue;
        }
        std::uint64_t count = marker & 0xF;
        std::size_t at = offset + 1;
        if (count == 0xF) {  // the length follows as an integer object
            if (at >= end || (data[at] >> 4) != 0x1 || (data[at] & 0xF) > 3) {
                continue;
            }
            const std::size_t width = std::size_t{1} << (data[at] & 0xF);
            if (end - at - 1 < width) {
                continue;
            }
            count = bigEndian(data + at + 1, width);
            at += 1 + width;
        }
        const std::size_t unit = type == 0x6 ? 2 : 1;
        // A string running past the end of the file is cut there: its part inside still counts.
        const std::uint64_t units = std::min<std::uint64_t>(count, (end - at) / unit);
        scanned += units * unit;
        if (scanned > end) {
            return "string objects overlap";
        }
        for (std::uint64_t c = 0; c < units; ++c) {
            const unsigned char* ch = data + at + c * unit;
            if (ch[0] == 0 && (unit == 1 || ch[1] == 0)) {
                return "a string holds a NUL character";
            }
        }
    }
    return nullptr;
}

/// True when an XML property list opens more than `kMaxNestingDepth` arrays and dictionaries
/// inside one another. Counts the tags without parsing; comments and CDATA are counted too, which
/// only makes the bound stricter.
bool xmlNestingExceeds(const std::string& text) {
    std::size_t depth = 0;
    for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
        auto opens = [&](std::string_view tag) {
            return text.compare(at + 1, tag.size(), tag) == 0;
        };
        if (opens("array>") || opens("dict>")) {
            if (++depth > kMaxNestingDepth) {
                return true;
            }
        } else if ((opens("/array>") || opens("/dict>")) && depth > 0) {
            --depth;
        }
    }
    return false;
}

/// Converts a parsed property list, refusing what a JSON value of the library cannot hold safely.
class Converter {
  public:
    std::string error;

    std::optional<nlohmann::json> convert(plist_t node, std::size_t depth) {
        if (depth > kMaxNestingDepth) {
            error = "arrays and dictionaries nested more than " + std::to_string(kMaxNestingDepth) +
                    " deep";
            return std::nullopt;
        }
        switch (plist_get_node_type(node)) {
            case PLIST_BOOLEAN: {
                uint8_t b = 0;
                plist_get_bool_val(node, &b);
                return nlohmann::json(b != 0);
            }
            case PLIST_UINT: {
                uint64_t v = 0;
                plist_get_uint_val(node, &v);
                // libplist keeps negative integers in the same node type, as two's complement.
                return nlohmann::json(static_cast<int64_t>(v));
            }
            case PLIST_REAL: {
                double d = 0;
                plist_get_real_val(node, &d);
                return nlohmann::json(d);
            }
            case PLIST_STRING: {
                uint64_t length = 0;
                const char* s = plist_get_string_ptr(node, &length);
                return text(s, s ? length : 0);
            }
            case PLIST_DATA: {
                uint64_t len = 0;
                const char* d = plist_get_data_ptr(node, &len);
                return nlohmann::json{{"$data", base64(d, d ? static_cast<std::size_t>(len) : 0)}};
            }
            case PLIST_DATE: {
                int32_t sec = 0, usec = 0;
                plist_get_date_val(node, &sec, &usec);
                // Property-list dates count from 2001-01-01.
                return nlohmann::json{{"$date", 978307200.0 + sec + usec / 1e6}};
            }
            case PLIST_UID: {
                uint64_t v = 0;
                plist_get_uid_val(node, &v);
                return nlohmann::json{{"$uid", v}};
            }
            case PLIST_ARRAY: {
                auto array = nlohmann::json::array();
                uint32_t n = plist_array_get_size(node);
                for (uint32_t i = 0; i < n; ++i) {
                    auto item = convert(plist_array_get_item(node, i), depth + 1);
                    if (!item) {
                        return std::nullopt;
                    }
                    array.push_back(std::move(*item));
                }
                return array;
            }
            case PLIST_DICT:
                return dictionary(node, depth);
            default:
                return nlohmann::json(nullptr);
        }
    }

  private:
    /// A string of known length; a NUL inside is refused, other bytes are kept as they stand.
    std::optional<nlohmann::json> text(const char* s, uint64_t length) {
        std::string_view view(s ? s : "", s ? static_cast<std::size_t>(length) : 0);
        if (view.find('\0') != std::string_view::npos) {
            error = "a string holds a NUL character";
            return std::nullopt;
        }
        return nlohmann::json(std::string(view));
    }

    std::optional<nlohmann::json> dictionary(plist_t node, std::size_t depth) {
        auto object = nlohmann::json::object();
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        std::optional<nlohmann::json> result;
        while (true) {
            char* key = nullptr;
            plist_t value = nullptr;
            // Keys holding a NUL were refused before parsing (binaryStringProblem); an XML key
            // cannot hold one.
            plist_dict_next_item(node, it, &key, &value);
            if (!value) {
                std::free(key);
                result = std::move(object);
                break;
            }
            std::string name = key ? key : "";
            std::free(key);
            auto item = convert(value, depth + 1);
            if (!item) {
                break;
            }
            object[name] = std::move(*item);
        }
        std::free(it);
        return result;
    }
};

plist_t fromJson(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::boolean:
            return plist_new_bool(value.get<bool>() ? 1 : 0);
        case nlohmann::json::value_t::number_integer:
        case nlohmann::json::value_t::number_unsigned:
            return plist_new_uint(static_cast<uint64_t>(value.get<int64_t>()));
        case nlohmann::json::value_t::number_float:
            return plist_new_real(value.get<double>());
        case nlohmann::json::value_t::string:
            return plist_new_string(value.get_ref<const std::string&>().c_str());
        case nlohmann::json::value_t::array: {
            plist_t array = plist_new_array();
            for (const auto& item : value) {
                plist_array_append_item(array, fromJson(item));
            }
            return array;
        }
        case nlohmann::json::value_t::object: {
            plist_t dict = plist_new_dict();
            for (const auto& [k, v] : value.items()) {
                plist_dict_set_item(dict, k.c_str(), fromJson(v));
            }
            return dict;
        }
        default:
            return plist_new_string("");
    }
}

}  // namespace

std::optional<nlohmann::json> parsePropertyList(const std::string& bytes, std::string* error) {
    auto refuse = [&](std::string why) -> std::optional<nlohmann::json> {
        if (error) {
            *error = std::move(why);
        }
        return std::nullopt;
    };
    if (bytes.size() > std::numeric_limits<uint32_t>::max()) {
        return refuse("the file is too large");
    }
    plist_t root = nullptr;
    if (bytes.size() >= 8 && bytes.compare(0, 8, "bplist00") == 0) {
        if (const char* problem = binaryStringProblem(bytes)) {
            return refuse(problem);
        }
        plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    } else if (bytes.find("<plist") != std::string::npos) {
        if (xmlNestingExceeds(bytes)) {
            return refuse("arrays and dictionaries nested more than " +
                          std::to_string(kMaxNestingDepth) + " deep");
        }
        plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    }
    if (!root) {
        return refuse(bytes.empty() ? "the file is empty" : "not an XML or binary property list");
    }
    Converter converter;
    auto value = converter.convert(root, 0);
    plist_free(root);
    if (!value) {
        return refuse(converter.error);
    }
    return value;
}

std::string writePropertyList(const nlohmann::json& value, bool binary) {
    plist_t root = fromJson(value);
    char* out = nullptr;
    uint32_t len = 0;
    if (binary) {
        plist_to_bin(root, &out, &len);
    } else {
        plist_to_xml(root, &out, &len);
    }
    std::string text(out ? out : "", len);
    std::free(out);
    plist_free(root);
    return text;
}

}  // namespace tarn
