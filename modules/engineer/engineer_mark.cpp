// The reset of the engineer mode: the test records are deleted and the engineer-mode mark on the
// reserve partition is zeroed.

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/unique.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"
#include "modules/engineer/secrecy.h"

static const char kTestRecords[] = "/mnt/vendor/persist/engineermode/test_record/";

static bool remove_test_record(const char* caller, const char* name) {
  char path[256];
  const int length = snprintf(path, sizeof(path), "%s%s", kTestRecords, name);
  // A cut path would name another file.
  const bool whole = length < static_cast<int>(sizeof(path));
  if (!whole || unlink(path) != 0) {
    FTM_LOGE("%s remove %s failed, err:%s ", caller, path, strerror(whole ? errno : ENAMETOOLONG));
    return false;
  }
  FTM_LOGD("%s remove %s", caller, path);
  return true;
}

// Deletes the files of the test-records folder; folders in it stay. A folder that is not readable
// holds nothing to delete, which is no failure.
static bool remove_test_records(const char* caller) {
  if (access(kTestRecords, R_OK) != 0) {
    return true;
  }
  const UniqueDir folder(opendir(kTestRecords));
  if (folder == nullptr) {
    FTM_LOGE("%s invalid root path, err:%s ", caller, strerror(errno));
    return false;
  }
  bool removed_all = true;
  while (const dirent* entry = readdir(folder.get())) {
    // The bit of regular files is also in the types of links and sockets: these go too.
    if ((entry->d_type & DT_REG) != 0 && !remove_test_record(caller, entry->d_name)) {
      removed_all = false;
    }
  }
  return removed_all;
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
