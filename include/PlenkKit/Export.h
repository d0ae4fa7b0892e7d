#pragma once

// Symbols of the public API are exported from libplenkkit.so; everything else
// is hidden (the library is built with -fvisibility=hidden).
#if defined(PLENK_BUILDING_LIBRARY)
#define PLENK_EXPORT __attribute__((visibility("default")))
#else
#define PLENK_EXPORT
#endif
