// The drawing surface that the graphics functions and the display backend share.

#pragma once

#include <stdint.h>

struct GRSurface {
  int width;        // pixels
  int height;       // pixels
  int row_bytes;    // bytes from one row to the next
  int pixel_bytes;  // bytes of a pixel
  unsigned char* data;
};
