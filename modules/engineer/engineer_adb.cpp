// The mark on the reserve partition that enables ADB in engineer mode.

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/unique.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"
#include "modules/engineer/secrecy.h"

static const char kAdbMark[] = "ENABLE_BY_FTM";

int at_enable_engineermode_adb(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (is_secrecy_locked()) {
    return 0;
  }
  RecordPlace mark;
  if (!find_record(kEngineerAdbRecord, &mark)) {
    at_send_result("ERROR\n");
    return 0;
  }
  // Created when missing: kept as it stands.
  const UniqueFd fd(open(mark.partition, O_RDWR | O_CREAT | O_CLOEXEC, 0664));
  if (!fd.ok()) {
    FTM_LOGE(TAG "Unable to open %s\n", mark.partition);
    at_send_result("ERROR\n");
    return 0;
  }
  if (lseek(fd.get(), mark.offset, SEEK_SET) < 0) {
    FTM_LOGE(TAG "lseek to reserve error  \n");
    return 0;  // without a reply
  }
  if (write(fd.get(), kAdbMark, strlen(kAdbMark)) < 1) {
    FTM_LOGE(TAG "fail to write file %s\n", mark.partition);
  } else {
    fsync(fd.get());
  }
  // A failed write is acknowledged too.
  at_send_result("OK\r\n");
  return 0;
}
