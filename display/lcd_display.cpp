// The display check of the station: acknowledged after a moment, the panel is not touched.

#include <unistd.h>

#include "core/at.h"
#include "core/log.h"

#define TAG "[FTM-LCD]"

static constexpr useconds_t kAnswerDelayUs = 100 * 1000;

static int at_lcd_display(const char*) {
  usleep(kAnswerDelayUs);
  at_send_result("OK\r\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "lcd_display", .command = "AT+ELCM=0,0", .handler = at_lcd_display},
};

FTM_PLAIN_MODULE(lcd_display, 4, TAG, rows)
