// Panel on and off; see lcd.h.

#include "display/lcd.h"

#include "display/graphics.h"

int ftm_open_lcd() {
  const int result = gr_init();
  if (result < 0) {
    return result;
  }
  gr_color(255, 255, 255, 255);
  gr_clear();
  gr_flip();
  return 0;
}

int ftm_close_lcd() {
  gr_color(0, 0, 0, 0);
  gr_clear();
  gr_flip();
  gr_fb_blank(true);
  gr_exit();
  return 0;
}
