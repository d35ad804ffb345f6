#include "FuzzSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "tarn/platform/DataDirectory.h"

namespace tarn::fuzz {

void prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        char pattern[] = "/tmp/tarn-fuzz-XXXXXX";
        if (const char* folder = ::mkdtemp(pattern)) {
            setDataDirectory(folder);
        }
        // Log lines go to standard output; libFuzzer reports on standard error.
        int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            ::dup2(null, STDOUT_FILENO);
            ::close(null);
        }
    });
}

void violated(const char* what) {
    std::fprintf(stderr, "fuzz property violated: %s\n", what);
    std::abort();
}

}  // namespace tarn::fuzz
