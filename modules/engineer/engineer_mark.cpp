// The reset of the engineer mode: the test records are deleted and the engineer-mode mark on the
// reserve partition is zeroed.

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/shared_files.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"
#include "modules/engineer/secrecy.h"

static const char kTestRecords[] = "/mnt/vendor/persist/engineermode/test_record";
static const char kAsFolder[] = "/mnt/vendor/persist/engineermode/test_record/";

static bool remove_test_record(const char* caller, DIR* folder, const char* name) {
  char path[256];
  const int length = snprintf(path, sizeof(path), "%s%s", kAsFolder, name);
  const bool whole = length < static_cast<int>(sizeof(path));
  if (!whole || unlinkat(dirfd(folder), name, 0) != 0) {
    FTM_LOGE("%s remove %s failed, err:%s ", caller, path, strerror(whole ? errno : ENAMETOOLONG));
    return false;
  }
  FTM_LOGD("%s remove %s", caller, path);
  return true;
}

// Deletes the files of the test-records folder; folders in it stay. A folder that is not readable
// holds nothing to delete, which is no failure.
static bool remove_test_records(const char* caller) {
  if (access(kAsFolder, R_OK) != 0) {
    return true;
  }
  const UniqueDir folder = open_folder(kTestRecords);
  if (folder == nullptr) {
    FTM_LOGE("%s invalid root path, err:%s ", caller, strerror(errno));
    return false;
  }
  bool removed_all = true;
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(folder.get());
    if (entry == nullptr) {
      return removed_all && errno == 0;
    }
    // The bit of regular files is also in the types of links and sockets: these go too.
    if ((entry->d_type & DT_REG) != 0 && !remove_test_record(caller, folder.get(), entry->d_name)) {
      removed_all = false;
    }
  }
}

int at_reset_engineermode_mark(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (is_secrecy_locked()) {
    return 0;
  }
  const bool removed_all = remove_test_records(__func__);
  const char mark[kEngineermodeMarkRecord.size] = {};
  const int result = write_record(kEngineermodeMarkRecord, mark);
  if (result < 1) {
    FTM_LOGE(TAG "reset_engineermode_mark fail, res = %d", result);
  }
  at_send_result(result >= 1 && removed_all ? "OK\r\n" : "ERROR\n");
  return 0;
}
