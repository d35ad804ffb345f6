// A preference file as found on disk: the store reads it (or moves it aside), and a write after
// that keeps the file readable.
#include <cstdio>

#include "FuzzSupport.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PreferenceStore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    auto store = tarn::PreferenceStore::suite("fuzz");
    if (!store) {
        tarn::fuzz::violated("the store cannot be opened");
    }
    auto file = tarn::dataDirectory() / "Preferences" / "fuzz.json";
    if (std::FILE* f = std::fopen(file.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    (void)store->string("actorId");
    (void)store->integer("0F6A2C1E-7B9D-4E55-9A51-3C7F0B1D2E4A");
    store->set("pushToken", "fuzz-token");
    if (store->string("pushToken") != std::optional<std::string>("fuzz-token")) {
        tarn::fuzz::violated("a written value does not read back");
    }
    return 0;
}
