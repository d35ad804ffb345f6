// `tarn demo` (filled in once the event pipeline is available).
#include "Commands.h"
#include "Output.h"

namespace tarn::cli {

int runDemo(const DemoOptions&) {
    emit(stderr, "tarn demo: not available in this build\n");
    return 1;
}

}  // namespace tarn::cli
