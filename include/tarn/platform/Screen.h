#pragma once
// A host screen (the phone's view controller), as the library sees it.

#include <memory>
#include <string>

#include "tarn/core/Export.h"

namespace tarn {

/// A screen of the host. The library reads only its class name (reported as a page name when no
/// other is given) and hands it back to the host's in-app presenter. Hosts derive their own screen
/// type from it, or from `TarnViewController` for automatic page tracking.
class TARN_API Screen {
  public:
    virtual ~Screen() = default;
    /// The screen's type name, as a page name.
    virtual std::string className() const = 0;
};

/// A screen known only by its name, for hosts that have no screen objects of their own.
class TARN_API NamedScreen final : public Screen {
  public:
    /// A screen whose class name is `name`.
    explicit NamedScreen(std::string name) : name_(std::move(name)) {}
    std::string className() const override { return name_; }

  private:
    std::string name_;
};

using ScreenRef = std::shared_ptr<Screen>;

}  // namespace tarn
