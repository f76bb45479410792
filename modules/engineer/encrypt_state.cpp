// Whether the encryption of the file system is still in progress.

#include <unistd.h>

#include "core/at.h"
#include "modules/engineer/engineer.h"

static const char kEncryptingMark[] = "/cache/.encrypting";

int at_check_encrypt_state(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  at_send_result(access(kEncryptingMark, F_OK) == 0 ? "ERROR\n" : "OK\r\n");
  return 0;
}
