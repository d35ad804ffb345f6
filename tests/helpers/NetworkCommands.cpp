// Second-process commands for the network tests.
#include <cstdio>

#include "helpers/HelperMain.h"
#include "support/LoopbackServer.h"
#include "tarn/core/Settings.h"
#include "tarn/network/ServiceClient.h"

// exit-with-requests-in-flight: sends three requests that the server holds, then ends the process
// while they are still open. Exit code 0 and "exiting" on standard output when all went well.
TARN_HELPER_COMMAND(exit_with_requests_in_flight) {
    (void)args;
    // Kept alive (and reachable) until the very end, so the requests stay open through exit.
    static auto* server = new tarn::test::LoopbackServer();
    server->on("/hold", tarn::test::ScriptedAnswer::never());
    tarn::processSettings().baseUrl = server->baseUrl();
    auto& client = tarn::ServiceClient::shared();
    for (int i = 0; i < 3; ++i) {
        client.request(client.url("/hold"), {{"i", i}}, true, [](auto, auto, auto) {
            std::printf("completion\n");
            std::fflush(stdout);
        });
    }
    if (!server->waitForCount("/hold", 3)) {
        return 3;
    }
    std::printf("exiting\n");
    std::fflush(stdout);
    return 0;
}
