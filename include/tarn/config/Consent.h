#pragma once
// The user's answer to tracking, and the gate every stored event and every request passes.
//
// The answer is kept in the application's standard preference store under "tarnConsent" ("granted"
// or "denied"; absent while the user has not been asked), so it survives restarts and is the same
// for an app group's processes only when they share the data folder. Whether the host requires an
// answer before anything happens is a switch of this process (`required`), set before
// `Tarn::initialize` (tarn/core/Privacy.h holds the host's calls).
//
// Tracking is off while the answer is "denied", while an answer is required and not "granted", and
// from an erasure of the local data until the next initialisation. While it is off nothing is
// stored, no request leaves the process and no in-app communication is shown; the first call that
// finds it off logs one line, once per process.
#include <atomic>
#include <chrono>
#include <string>

#include "tarn/core/Export.h"

namespace tarn {

/// The user's answer: not asked yet, agreed, or declined.
enum class ConsentState { notAsked, granted, denied };

/// "notAsked", "granted" or "denied".
TARN_API const char* rawValue(ConsentState state);

/// Keeps the user's answer and says whether tracking may happen (see above). Safe from any thread.
class TARN_API ConsentManager {
  public:
    /// The one instance, created on first use.
    static ConsentManager& shared();
    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-Consent:";
    /// The key of the answer in the standard preference store.
    static constexpr const char* kPreferenceKey = "tarnConsent";

    /// Whether the host requires an answer before tracking (false: the library tracks unless the
    /// user declined).
    std::atomic<bool> required{false};
    /// Set by an erasure of the local data, cleared by the next initialisation.
    std::atomic<bool> erased{false};

    /// The stored answer (read from the store on first use, then kept).
    ConsentState state() const;
    /// Stores the answer (`notAsked` removes it); false when it could be kept in memory only.
    bool setState(ConsentState state) const;
    /// True when tracking may happen now.
    bool allowsTracking() const;
    /// Takes `state` as the answer without storing it (after the store's file was deleted).
    void assumeState(ConsentState state) const { cached_ = static_cast<int>(state); }
    /// `allowsTracking`; when false, logs that tracking is off (once per process).
    bool checkTracking();
    /// `allowsTracking` without reading the store: an answer not read yet counts as not given
    /// only when one is required. For the layers that never open the store themselves (a
    /// request made by a tool), so that asking does not create the data folder.
    bool allowsRequests() const;

    /// Marks a public call as under way for its lifetime, so that an erasure can wait for the
    /// calls that passed the gate before it closed (`waitForCalls`). Mark before asking the gate.
    class TARN_API CallScope {
      public:
        CallScope();
        ~CallScope();
        CallScope(const CallScope&) = delete;
        CallScope& operator=(const CallScope&) = delete;
    };
    /// Waits, at most `limit`, until no call marked by `CallScope` is under way; false when the
    /// limit passed first (a call still running, or the waiting thread inside one itself).
    static bool waitForCalls(std::chrono::milliseconds limit);

  private:
    /// The answer as last read or written, -1 before the first read.
    mutable std::atomic<int> cached_{-1};
    std::atomic<bool> offLogged_{false};
};

}  // namespace tarn
