#pragma once

#include <PlenkKit/Export.h>

// The library's version symbols, exported unmangled for hosts that look them up.
extern "C" {
// 1.0 for this release.
PLENK_EXPORT extern const double PlenkKitVersionNumber;
// "@(#)PROGRAM:PlenkKit  PROJECT:PlenkKit-1" and a line feed, NUL-terminated; the
// "@(#)" prefix lets what(1) find it in the binary.
PLENK_EXPORT extern const unsigned char PlenkKitVersionString[];
}
