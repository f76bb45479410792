// The back-cover colour: eight characters in a record of the reserve partition.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/unique.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"
#include "modules/engineer/secrecy.h"

static constexpr size_t kColorLength = kBackcoverColorRecord.size;

// Opens the partition at the colour record. On failure the descriptor is none and the station has
// had what it gets: no reply at all for a partition that does not open (kept as it stands),
// "ERROR\n" for an unknown place and for a failed seek.
static UniqueFd open_color_record(int flags) {
  RecordPlace color;
  if (!find_record(kBackcoverColorRecord, &color)) {
    at_send_result("ERROR\n");
    return {};
  }
  UniqueFd fd(open(color.partition, flags | O_CLOEXEC));
  if (!fd.ok()) {
    FTM_LOGE(TAG "Unable to open %s\n", color.partition);
    return fd;
  }
  if (lseek(fd.get(), color.offset, SEEK_SET) < 0) {
    FTM_LOGE(TAG "lseek SEEK_SET fail\n");
    at_send_result("ERROR\n");
    fd.reset();
  }
  return fd;
}

int at_set_backcover_color(const char* argument) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (is_secrecy_locked()) {
    return 0;
  }
  if (argument == nullptr) {
    argument = "";
  }
  FTM_LOGD(TAG "%s, cookie=%s\n", __func__, argument);
  // Any eight characters are a colour; what follows them, a line end among it, falls away.
  char color[kColorLength + 1] = {};
  memcpy(color, argument, strnlen(argument, kColorLength));
  FTM_LOGD(TAG "%s, temp=%s, len=%zu\n", __func__, color, strlen(color));
  if (strlen(color) != kColorLength) {
    at_send_result("ERROR\n");
    at_send_result(" INVALID COLOR");
    return 0;
  }
  strupr(color);
  const UniqueFd fd = open_color_record(O_RDWR);
  if (!fd.ok()) {
    return 0;
  }
  if (write(fd.get(), color, kColorLength) < 1) {
    FTM_LOGE(TAG "Write reserve4 fail, errno = %d", errno);
    at_send_result("ERROR\n");
    return 0;
  }
  fsync(fd.get());
  FTM_LOGD(TAG "Write reserve4 success, color = %s", color);
  at_send_result("OK\r\n");
  return 0;
}

int at_get_backcover_color(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  const UniqueFd fd = open_color_record(O_RDONLY);
  if (!fd.ok()) {
    return 0;
  }
  char color[16] = {};
  if (read(fd.get(), color, kColorLength) < 1) {
    FTM_LOGE(TAG "read none from reserve4\n");
    at_send_result("ERROR\n");
    return 0;
  }
  at_send_result("OK\r\n");
  at_send_result(color);
  return 0;
}
