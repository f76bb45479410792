// A minimal full-screen graphics layer: one current colour, two buffers, fill and flip. Called by
// ftm_open_lcd and ftm_close_lcd, on one thread at a time.

#pragma once

#include "display/surface.h"

// Loads the font, sets the display up and makes its buffers. Returns 0, or -1 when no display is
// found or can be set up.
int gr_init();

// Releases the display, if there is one.
void gr_exit();

// Shows what has been drawn; drawing goes on in the other buffer.
void gr_flip();

// Fills the draw buffer with the current colour.
void gr_clear();

// Sets the current colour; alpha 255 is opaque.
void gr_color(unsigned char red, unsigned char green, unsigned char blue, unsigned char alpha);

// Turns the display off (true) or on again (false).
void gr_fb_blank(bool blank);

// Loads a one-channel image by its resource name. Returns 0 and the surface, which the caller owns,
// or a negative error. This system has no image source: every name gives -7, not a one-channel
// image.
int res_create_alpha_surface(const char* name, GRSurface** surface);
