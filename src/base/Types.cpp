#include "tarn/core/BaseTypes.h"

#include <sys/random.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "base/ForkGeneration.h"

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

namespace {

/// Random bytes read from the kernel a page at a time, per thread, so that an identifier costs no
/// system call of its own. Trivially destructible: nothing runs at thread or process exit.
struct RandomPool {
    unsigned char bytes[512];
    std::size_t used = sizeof bytes;
    unsigned generation = 0;

    bool take(unsigned char* out, std::size_t count) {
        // A child's pool holds its parent's bytes, which must not be handed out again.
        auto now = detail::forkGeneration();
        if (generation != now) {
            used = sizeof bytes;
            generation = now;
        }
        if (used + count > sizeof bytes) {
            std::size_t filled = 0;
            while (filled < sizeof bytes) {
                auto got = ::getrandom(bytes + filled, sizeof bytes - filled, GRND_NONBLOCK);
                if (got > 0) {
                    filled += static_cast<std::size_t>(got);
                } else if (got < 0 && errno != EINTR) {
                    return false;
                }
            }
            used = 0;
        }
        std::memcpy(out, bytes + used, count);
        used += count;  // each byte is handed out once
        return true;
    }
};

thread_local RandomPool randomPool;

}  // namespace

std::string makeUuidString() {
    // Sixteen bytes from the kernel's random source, made a version 4 UUID: what libuuid's random
    // generator does too, less its reseeding of the C library's generator on every call. The
    // bytes come from a per-thread pool filled a page at a time and discarded in a forked child.
    // libuuid remains the fallback when the kernel's source cannot answer at once (no getrandom,
    // or not yet seeded at boot).
    uuid_t id;
    if (randomPool.take(id, sizeof id)) {
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
