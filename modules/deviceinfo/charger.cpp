// The fast-charge controller's firmware check.

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "modules/deviceinfo/deviceinfo.h"

static const char kZephFwCheck[] = "/proc/zeph_fw_check";

int at_get_zeph_fw_check(const char*) {
  const int state = node_number(kZephFwCheck);
  FTM_LOGD(TAG "%s\n", __func__);
  send_number(" ZEPH FW CHECK:", state);
  return 0;
}
