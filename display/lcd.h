// The panel's two states. Callers go through display/panel.h, which knows whether it is open.

#pragma once

// Lights the panel plain white. Returns 0, or a negative number when there is no display (nothing
// is drawn then).
int ftm_open_lcd();

// Turns the panel black, blanks the display and releases it. Always returns 0.
int ftm_close_lcd();
