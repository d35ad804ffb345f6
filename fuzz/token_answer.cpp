// The token endpoint's answer, through the repository's answer handler: it always calls back once,
// and true only when it stored a token.
#include "FuzzSupport.h"
#include "tarn/core/Tarn.h"
#include "tarn/network/Authorization.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    int calls = 0;
    tarn::AuthorizationRepository::shared().handleAccessTokenResponse(
        tarn::Data(data, data + size), std::nullopt, 200, [&](bool) { ++calls; });
    if (calls != 1) {
        tarn::fuzz::violated("the token handler did not call back exactly once");
    }
    return 0;
}
