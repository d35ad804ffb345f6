#pragma once
// The small value types that every layer shares: the initialisation status, the push token
// kinds, and new identifiers.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library.

#include <string>

namespace tarn {

/// The process-wide initialisation status.
enum class InitializeStatusType { initializing, initialized, notInitialized, initializeFailed };
/// "initializing", "initialized", "notInitialized", "initializeFailed".
const char* rawValue(InitializeStatusType status);

/// Which push token changed: `apns` the platform device token, `firebase` the provider's token.
enum class TokenProviderType { apns, firebase };
/// "apns", "firebase".
const char* rawValue(TokenProviderType provider);

/// A new random UUID in canonical upper-case text (8-4-4-4-12).
std::string makeUuidString();

}  // namespace tarn
