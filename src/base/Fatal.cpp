#include "tarn/core/Fatal.h"

#include <cstdio>
#include <cstdlib>

namespace tarn {

void fatalError(std::string_view message, std::string_view source, int line) {
    std::fflush(stdout);
    std::fprintf(stderr, "%.*s:%d: Fatal error: %.*s\n", static_cast<int>(source.size()),
                 source.data(), line, static_cast<int>(message.size()), message.data());
    std::fflush(stderr);
    std::abort();
}

}  // namespace tarn
