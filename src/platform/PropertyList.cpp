#include "tarn/platform/PropertyList.h"

#include <plist/plist.h>

#include <cstdlib>
#include <memory>

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

nlohmann::json toJson(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return b != 0;
        }
        case PLIST_UINT: {
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            // libplist keeps negative integers in the same node type, as two's complement.
            return static_cast<int64_t>(v);
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return d;
        }
        case PLIST_STRING: {
            char* s = nullptr;
            plist_get_string_val(node, &s);
            std::string value = s ? s : "";
            std::free(s);
            return value;
        }
        case PLIST_KEY: {
            char* s = nullptr;
            plist_get_key_val(node, &s);
            std::string value = s ? s : "";
            std::free(s);
            return value;
        }
        case PLIST_DATA: {
            char* d = nullptr;
            uint64_t len = 0;
            plist_get_data_val(node, &d, &len);
            auto encoded = base64(d, static_cast<std::size_t>(len));
            std::free(d);
            return nlohmann::json{{"$data", encoded}};
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
                array.push_back(toJson(plist_array_get_item(node, i)));
            }
            return array;
        }
        case PLIST_DICT: {
            auto object = nlohmann::json::object();
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            while (true) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (!value) {
                    std::free(key);
                    break;
                }
                object[key ? key : ""] = toJson(value);
                std::free(key);
            }
            std::free(it);
            return object;
        }
        default:
            return nullptr;
    }
}

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
    plist_t root = nullptr;
    if (bytes.size() >= 8 && bytes.compare(0, 8, "bplist00") == 0) {
        plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    } else if (bytes.find("<plist") != std::string::npos) {
        plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    }
    if (!root) {
        if (error) {
            *error = bytes.empty() ? "the file is empty" : "not an XML or binary property list";
        }
        return std::nullopt;
    }
    auto value = toJson(root);
    plist_free(root);
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
