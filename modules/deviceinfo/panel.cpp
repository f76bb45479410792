// The panel's serial number, which holds its production time, and the display bridge's recovery
// mode. Both want the panel lit.

#include "display/panel.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "modules/deviceinfo/deviceinfo.h"

static const char kPanelNumberNode[] = "/sys/kernel/norva_display/panel_serial_number";
static const char kIrisNode[] = "/sys/kernel/tarn_display/iris_rm_check";

// The hexadecimal number behind the node's first colon, or 0.
static uint64_t read_panel_number() {
  const LitPanel panel;
  char text[129] = {};
  if (file_read_string(kPanelNumberNode, text, sizeof(text) - 1) < 1) {
    return 0;
  }
  const char* colon = strchr(text, ':');
  return colon == nullptr ? 0 : strtoull(colon + 1, nullptr, 16);
}

static unsigned long bits(uint64_t number, int first, int count) {
  return static_cast<unsigned long>(number >> first & ((1U << count) - 1));
}

int at_get_lcd_sn_check(const char*) {
  const uint64_t number = read_panel_number();
  FTM_LOGD(TAG "%s, 0x%lx\n", __func__, static_cast<unsigned long>(number));
  if (number == 0) {
    at_send_result("ERROR\n");
    FTM_LOGE(TAG "not find panel sn\n");
    return 0;
  }
  constexpr unsigned long kFirstYear = 2011;
  char time[32];
  bounded_format(time, sizeof(time), "%04lu%02lu%02lu%02lu%02lu%02lu",
                 bits(number, 56, 4) + kFirstYear, bits(number, 48, 4), bits(number, 40, 5),
                 bits(number, 32, 5), bits(number, 24, 6), bits(number, 16, 6));
  at_send_result("OK\r\n");
  at_send_result(" LCD SN CHECK:");
  at_send_result(time);
  return 0;
}

int at_iris_recovery_mode_check(const char*) {
  const LitPanel panel;  // closed after the reply, where it was opened here
  at_send_result(node_number(kIrisNode, 4) != 0 ? "ERROR\n" : "OK\r\n");
  return 0;
}
