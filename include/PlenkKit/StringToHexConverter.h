#pragma once

#include <PlenkKit/Export.h>

extern "C" {
// Converts a NUL-terminated text of hexadecimal digits into bytes, in the order
// they are written: "0A1B" gives 0x0A, 0x1B. Pairs are taken from the end of the
// text; `out` must hold at least strlen(text) / 2 bytes. Digits are not checked
// (a non-hex character gives whatever its arithmetic gives). For an odd length
// the unpaired leading character is ignored. A null text writes nothing.
// Always returns true.
PLENK_EXPORT bool stringToHexConverter(const char* text, unsigned char* out);
}
