// The built-in font: 96 characters side by side, from the blank to the last one before the end of
// ASCII and one box for everything else, each 10 by 18 pixels.

#pragma once

constexpr int kBuiltInFontWidth = 960;  // pixels of all characters in a row
constexpr int kBuiltInFontHeight = 18;

// Runs of pixels, row by row over the whole width: length in the low seven bits, bit 7 set for ink.
// A zero byte ends the table.
extern const unsigned char kBuiltInFontRuns[];
