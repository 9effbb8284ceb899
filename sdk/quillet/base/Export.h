#pragma once

/// Marks a class, function or variable as part of the library's binary interface. The library is
/// built with hidden visibility, so only what carries this mark is visible outside the shared
/// library. Static linking is unaffected.
#if defined(_WIN32)
#if defined(QUILLET_BUILDING_SHARED)
#define QUILLET_EXPORT __declspec(dllexport)
#elif defined(QUILLET_STATIC)
#define QUILLET_EXPORT
#else
#define QUILLET_EXPORT __declspec(dllimport)
#endif
#else
#define QUILLET_EXPORT __attribute__((visibility("default")))
#endif
