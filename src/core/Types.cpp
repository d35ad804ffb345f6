#include "tarn/core/Types.h"

#include <uuid/uuid.h>

namespace tarn {

const char* rawValue(InitializeStatusType status) {
    switch (status) {
        case InitializeStatusType::initializing:
            return "initializing";
        case InitializeStatusType::initialized:
            return "initialized";
        case InitializeStatusType::notInitialized:
            return "notInitialized";
        case InitializeStatusType::initializeFailed:
            return "initializeFailed";
    }
    return "notInitialized";
}

const char* rawValue(TokenProviderType provider) {
    return provider == TokenProviderType::apns ? "apns" : "firebase";
}

std::string makeUuidString() {
    uuid_t id;
    uuid_generate_random(id);
    char text[37];
    uuid_unparse_upper(id, text);
    return text;
}

}  // namespace tarn
