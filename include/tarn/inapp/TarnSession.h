#pragma once
// The latest in-app answer, shared by the in-app manager, the event manager and the facade.

#include <memory>
#include <optional>

#include "tarn/core/Shared.h"
#include "tarn/inapp/AppCommunication.h"

namespace tarn {

/// Holds the latest in-app answer.
class TarnSession {
  public:
    static TarnSession& shared();

    /// The latest answer, or nullptr. The returned value never changes; a new fetch replaces it.
    std::shared_ptr<const AppCommunication> appCommunication() const {
        return appCommunication_.get();
    }
    void setAppCommunication(std::optional<AppCommunication> value) {
        appCommunication_.set(value ? std::make_shared<const AppCommunication>(std::move(*value))
                                    : nullptr);
    }

  private:
    Locked<std::shared_ptr<const AppCommunication>> appCommunication_;
};

}  // namespace tarn
