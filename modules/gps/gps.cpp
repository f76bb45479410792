// Two commands of the station's sequence that have nothing to do on this phone: acknowledged only.

#include "core/at.h"
#include "core/log.h"

#define TAG "[FTM-GPS]"

static int at_open_gps(const char*) {
  at_send_result("OK\r\n");
  return 0;
}

static int at_close_gps(const char*) {
  at_send_result("OK\r\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "gps_test_on", .command = "AT^OPEN_GPS", .handler = at_open_gps},
    {.short_name = "gps_test_off", .command = "AT^CLOSE_GPS", .handler = at_close_gps},
};

FTM_PLAIN_MODULE(gps, 4, TAG, rows)
