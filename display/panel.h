// The panel as its users share it: opened by whoever needs it lit first, closed once. Called by the
// device information, lights and sleep modules on the command worker, and by the lights module's
// init on the main thread.

#pragma once

// Opens the panel where nobody has; it then counts as open, also when there is no display.
void open_panel_if_closed();

// Closes the panel where somebody has opened it.
void close_panel_if_open();

// Keeps the panel lit for as long as it lives, and closes it only where it has opened it itself.
class LitPanel {
 public:
  LitPanel();
  ~LitPanel();
  LitPanel(const LitPanel&) = delete;
  LitPanel& operator=(const LitPanel&) = delete;

 private:
  const bool opened_here_;
};
