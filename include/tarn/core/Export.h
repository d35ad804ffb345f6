#pragma once
/// \file
/// `TARN_API`: the mark of the library's public classes and functions.
///
/// A shared build (`-DBUILD_SHARED_LIBS=ON`) compiles both libraries with hidden symbols
/// (`-fvisibility=hidden -fvisibility-inlines-hidden`), so only what carries this mark is exported
/// from `libTarniOSCommonKit.so` and `libTarniOSCommonKitQt.so`; everything else, the instances of
/// standard-library and JSON templates included, stays inside the library. In a static build the
/// mark changes nothing.

#if defined(__GNUC__) || defined(__clang__)
/// Exports a class (with its members) or a free function from the shared library.
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif
