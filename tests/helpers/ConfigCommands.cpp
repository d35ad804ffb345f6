// Second-process commands for the preference and identity tests.
#include <cstdio>

#include "helpers/HelperMain.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/DataDirectory.h"

// get-actor <data folder> <app group>: prints what getActorID returns; exit 0 when found, 1 when
// not.
TARN_HELPER_COMMAND(get_actor) {
    if (args.size() != 2)
        return 2;
    tarn::setDataDirectory(args[0]);
    auto actor = tarn::Tarn::shared().getActorID(args[1]);
    return actor ? 0 : 1;
}
