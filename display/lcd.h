// The panel for those who need it lit or dark. Called by the device information, lights and sleep
// modules on the command worker, and once by the lights module's init on the main thread.

#pragma once

// Whether the panel is open: 0 at start. Neither function below touches it; a caller that finds it
// 0 opens the panel and sets it to 1, a caller that closes the panel sets it to 0. It keeps callers
// from building the display twice.
extern unsigned char display_on;

// Lights the panel plain white. Returns 0, or a negative number when there is no display (nothing
// is drawn then).
int ftm_open_lcd();

// Turns the panel black, blanks the display and releases it. Always returns 0.
int ftm_close_lcd();
