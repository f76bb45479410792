// Whether the encryption of the file system is still in progress.

#include "core/at.h"
#include "core/file_utils.h"
#include "modules/engineer/engineer.h"

static const char kEncryptingMark[] = "/cache/.encrypting";

int at_check_encrypt_state(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  at_send_result(exists(kEncryptingMark) == Existence::kNotThere ? "OK\r\n" : "ERROR\n");
  return 0;
}
