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

static void at_gps_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  for (AtCommand& row : rows) {
    at_register(&row);
  }
  FTM_LOGD(TAG "%s end\n", __func__);
}

static void at_gps_exit() {
  FTM_LOGD(TAG "%s start\n", __func__);
  FTM_LOGD(TAG "%s end\n", __func__);
}

FTM_MODULE(gps, 4, TAG)
