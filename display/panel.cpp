// The display-on flag and those who ask for the panel; see panel.h.

#include "display/panel.h"

#include "display/lcd.h"

// Keeps callers from building the display twice.
static bool display_on = false;

void open_panel_if_closed() {
  if (!display_on) {
    ftm_open_lcd();
    display_on = true;
  }
}

void close_panel_if_open() {
  if (display_on) {
    ftm_close_lcd();
    display_on = false;
  }
}

LitPanel::LitPanel() : opened_here_(!display_on) {
  open_panel_if_closed();
}

LitPanel::~LitPanel() {
  if (opened_here_) {
    close_panel_if_open();
  }
}
