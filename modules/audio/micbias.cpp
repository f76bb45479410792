// The codec's microphone bias, on and off while the station measures its voltage. Every row answers
// OK whatever the control tool says.

#include <stdio.h>
#include <unistd.h>

#include "core/at.h"
#include "core/log.h"
#include "core/unique.h"

#define TAG "[FTM-AUDIO]"

static constexpr useconds_t kSettleUs = 10 * 1000;
static constexpr useconds_t kMeasureUs = 1000 * 1000;

static void run_tool(const char* command, const char* caller) {
  const UniquePipe tool(popen(command, "we"));
  if (tool == nullptr) {
    FTM_LOGD(TAG "%s popen failed\n", caller);
  }
}

static int micbias_on(const char* command, const char* caller) {
  FTM_LOGD(TAG "%s\n", caller);
  run_tool(command, caller);
  usleep(kSettleUs);
  at_send_result("OK\r\n");
  return 0;
}

static int at_micbias1_on(const char*) {
  return micbias_on("/system/bin/tinymix 'Enable Micbias' MICBIAS1", __func__);
}

static int at_micbias2_on(const char*) {
  return micbias_on("/system/bin/tinymix 'Enable Micbias' MICBIAS2", __func__);
}

static int at_micbias_off(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  usleep(kMeasureUs);
  // Before the bias goes: the station has a second to finish its measurement.
  at_send_result("OK\r\n");
  usleep(kMeasureUs);
  run_tool("/system/bin/tinymix 'Enable Micbias' DISABLE", __func__);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "micbias1_on", .command = "AT+MIC1VOLT_OPEN", .handler = at_micbias1_on},
    {.short_name = "micbias_off", .command = "AT+MIC1VOLT_CLOSE", .handler = at_micbias_off},
    {.short_name = "micbias2_on", .command = "AT+HPMICVOLT_OPEN", .handler = at_micbias2_on},
    {.short_name = "micbias2_off", .command = "AT+HPMICVOLT_CLOSE", .handler = at_micbias_off},
};

FTM_PLAIN_MODULE(micbias, 4, TAG, rows)
