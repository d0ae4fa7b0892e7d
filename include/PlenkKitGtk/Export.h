#pragma once

// Symbols of the GTK library's public API are exported from libplenkkit-gtk.so;
// everything else is hidden.
#if defined(PLENK_GTK_BUILDING_LIBRARY)
#define PLENK_GTK_EXPORT __attribute__((visibility("default")))
#else
#define PLENK_GTK_EXPORT
#endif
