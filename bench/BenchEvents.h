#pragma once
// What the event benchmarks record: one custom event with ten host parameters.

#include <nlohmann/json.hpp>

namespace tarn::bench {

inline nlohmann::json tenParameters() {
    return {{"productId", "SKU-1029384"},
            {"productName", "Linen shirt"},
            {"category", "apparel/shirts"},
            {"price", 49.9},
            {"currency", "EUR"},
            {"quantity", 2},
            {"inStock", true},
            {"colour", "navy"},
            {"size", "M"},
            {"campaign", "spring-2024"}};
}

}  // namespace tarn::bench
