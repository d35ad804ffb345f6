#pragma once
// The host's privacy calls: the user's consent to tracking, and erasing what the library keeps on
// the device.
//
// Consent. By default the library tracks from `Tarn::initialize` on, as it always has. A host that
// must ask first calls `setConsentRequired(true)` before `initialize`: from then on, until the user
// agrees (`grantConsent`), nothing is stored, no request of any kind leaves the process (no token,
// no in-app fetch, no event), no in-app communication is shown, and every public call returns at
// once; one line says that tracking is off (once per process). `initialize` is remembered and
// resumes when consent is granted: token, in-app fetch, then "install" (first run) and
// "sdk_initialize", so only events recorded after the grant are ever sent. `denyConsent` (whether
// consent is required or not) stops tracking the same way, stops the queue's timer and deletes
// every event still waiting in it. The answer is kept in the preference store and survives
// restarts; the switch `setConsentRequired` is not kept and must be set by every launch.
//
// Erasure. `eraseLocalData` deletes the event queue, the conversion markers, the in-app show counts
// and every preference the library wrote (identity, tokens, install status, and the consent answer
// unless it is to be kept), with their files. Tracking then stays off until the next `initialize`,
// which is a first installation with a new guest identifier.
//
// Threads: every call may be made from any thread, also while other threads use the library; none
// has a callback. Resuming after `grantConsent` runs `initialize` on the calling thread.
//
// Plain enumerations and functions, so that the C interface can wrap them one for one.
#include "tarn/config/Consent.h"
#include "tarn/core/Export.h"

namespace tarn {

/// Whether the library waits for the user's consent before tracking. Call it before
/// `Tarn::initialize`, at every launch; false (the default) keeps the library tracking unless the
/// user declined.
TARN_API void setConsentRequired(bool required);
/// Whether `setConsentRequired(true)` was called in this process.
TARN_API bool isConsentRequired();
/// The user's stored answer.
TARN_API ConsentState consentState();
/// Stores that the user agrees; when an initialisation waits for it (or was stopped by a denial),
/// it runs now on the calling thread.
TARN_API void grantConsent();
/// Stores that the user declines: tracking stops, the queue's timer stops and every event still
/// waiting to be sent is deleted. Requests already under way are not called back.
TARN_API void denyConsent();

/// What `eraseLocalData` leaves in place.
enum class EraseOption {
    /// Delete everything, the consent answer too.
    everything,
    /// Keep the user's consent answer.
    keepConsent,
};

/// Deletes everything the library keeps on the device (see above) and stops tracking until the
/// next `Tarn::initialize`. Public calls already under way on other threads are waited for (up to
/// two seconds) before anything is deleted; later ones return at once. True when every file is gone; false when one could not be deleted, or
/// when called from inside the library's own callbacks while the store is in use.
TARN_API bool eraseLocalData(EraseOption option = EraseOption::everything);

}  // namespace tarn
