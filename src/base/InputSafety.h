#pragma once
// Guards for data the library does not control: strings handed in by the host, files on disk and
// answers from the server. None of these helpers throws.

#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tarn {

/// The deepest nesting of arrays and objects (or property-list arrays and dictionaries) that any
/// reader of outside or stored data accepts. Every document the library reads or writes is a few
/// levels deep; anything nested deeper than this is treated as malformed, so that no reader or
/// writer recurses without bound or does quadratic work on hostile input.
inline constexpr std::size_t kMaxNestingDepth = 128;

/// The longest excerpt of an offending value that an error message quotes, in bytes.
inline constexpr std::size_t kMaxQuotedBytes = 64;

/// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isValidUtf8(std::string_view text);

/// `text` with every byte sequence that is not well-formed UTF-8 replaced by U+FFFD. Valid text is
/// returned unchanged.
std::string validUtf8(std::string_view text);

/// At most `maxBytes` of `text` (cut on a character boundary and made valid UTF-8), followed by
/// "…" when something was cut. For quoting an offending value in a log line or error text.
std::string excerpt(std::string_view text, std::size_t maxBytes = kMaxQuotedBytes);

/// True when the JSON text `text` nests arrays and objects deeper than `maxDepth`. Counts the
/// brackets outside string literals in one pass without parsing, so it is safe on any input;
/// on invalid JSON the answer only bounds what a parser would build.
bool jsonNestingExceeds(std::string_view text, std::size_t maxDepth = kMaxNestingDepth);

/// Parses JSON text read from a file, the store or the server, without throwing: a discarded
/// value when the text is not JSON or nests deeper than `kMaxNestingDepth`.
nlohmann::json parseJsonBounded(std::string_view text);

/// `value` limited to [`low`, `high`]; `fallback` when it is not a number (NaN). Infinities clamp
/// to the nearer bound. For durations and counts from the server, before any conversion.
double clampNumber(double value, double low, double high, double fallback);

}  // namespace tarn
