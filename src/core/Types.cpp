#include "tarn/core/Types.h"

#include <sys/random.h>
#include <uuid/uuid.h>

#include <cerrno>

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
    // Sixteen bytes straight from the kernel's random source, made a version 4 UUID. This is what
    // libuuid's random generator does too, less its reseeding of the C library's generator on
    // every call, which cost more than the rest of an identifier. libuuid remains the fallback
    // when the kernel's source cannot answer at once (no getrandom, or not yet seeded at boot).
    uuid_t id;
    std::size_t filled = 0;
    while (filled < sizeof id) {
        auto got = ::getrandom(id + filled, sizeof id - filled, GRND_NONBLOCK);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            break;
        }
    }
    if (filled == sizeof id) {
        id[6] = static_cast<unsigned char>((id[6] & 0x0F) | 0x40);  // version 4
        id[8] = static_cast<unsigned char>((id[8] & 0x3F) | 0x80);  // RFC 4122 variant
    } else {
        uuid_generate_random(id);
    }
    char text[37];
    uuid_unparse_upper(id, text);
    return text;
}

}  // namespace tarn
