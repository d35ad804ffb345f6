#include "tarn/inapp/TarnSession.h"

namespace tarn {

TarnSession& TarnSession::shared() {
    return detail::SharedInstance<TarnSession, 200>::get();
}

}  // namespace tarn
