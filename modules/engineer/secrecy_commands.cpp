// The commands on the secrecy lock: its state, the IMEI it is bound to, and unlocking with the key,
// which is a plain text in the configuration that the station must send.

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/shared_files.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"
#include "modules/engineer/secrecy.h"

struct SecrecyCfg {
  char imei[kSecrecyImeiSize] = {};
  char key[kSecrecyKeyLength + 1] = {};
  uint8_t locked = 0;
};

static void log_unreadable() {
  const char* path = secrecy_file();
  FTM_LOGE(TAG "Unable to open %s\n", path == nullptr ? "the secrecy file" : path);
}

// Reads the configuration, or replies that it cannot be read.
static bool read_cfg(SecrecyCfg* cfg) {
  if (readSecrecyCfg(cfg->imei, cfg->key, &cfg->locked) >= 0) {
    return true;
  }
  log_unreadable();
  at_send_result("ERROR\n");
  return false;
}

// Whether the configuration has a key, or replies that there is nothing to lock with.
static bool has_key(const SecrecyCfg& cfg) {
  if (strlen(cfg.key) == kSecrecyKeyLength) {
    return true;
  }
  FTM_LOGE(TAG "not exist rc4_key\n");
  at_send_result("OK\r\n");
  at_send_result(" NO LOCK");
  return false;
}

int at_secrecy_lock_status(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  SecrecyCfg cfg;
  if (!read_cfg(&cfg) || !has_key(cfg)) {
    return 0;
  }
  at_send_result("OK\r\n");
  at_send_result(cfg.locked != 0 ? " LOCKED" : " UNLOCKED");
  return 0;
}

int at_get_secrecy_imei(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  SecrecyCfg cfg;
  if (!read_cfg(&cfg)) {
    return 0;
  }
  if (cfg.imei[0] == '\0') {
    FTM_LOGE(TAG "not exist imei\n");
    at_send_result("OK\r\n");
    at_send_result(" NO IMEI");
    return 0;
  }
  at_send_result("OK\r\n");
  at_send_result(" IMEI: ");
  at_send_result(cfg.imei);
  return 0;
}

// The configuration's text with every "true" turned into "false".
struct UnlockedText {
  char bytes[kSecrecyTextSize] = {};
  size_t length = 0;
  bool changed = false;
  bool overflown = false;

  void append(std::string_view part) {
    if (part.size() > sizeof(bytes) - length) {
      overflown = true;
      return;
    }
    length += part.copy(bytes + length, part.size());
  }
};

static void unlock_text(std::string_view text, UnlockedText* unlocked) {
  while (!text.empty()) {
    const std::string_view line = take_line(&text);
    if (line.empty()) {
      continue;
    }
    // Every line, not only those that lock, on purpose.
    const size_t equals = line.find('=');
    if (equals != std::string_view::npos && line.substr(equals + 1) == "true") {
      unlocked->append(line.substr(0, equals + 1));
      unlocked->append("false");
      unlocked->changed = true;
    } else {
      unlocked->append(line);
    }
    unlocked->append("\n");
  }
}

static void write_secrecy_file(const char* caller, const char* path, const UnlockedText& text) {
  const UniqueFd fd = open_regular(path, O_WRONLY | O_CREAT | O_TRUNC, 0664);
  // Two blanks behind the name: the text is kept as it stands.
  if (!fd.ok()) {
    FTM_LOGE("%s  open %s failed! err:%s", caller, path, strerror(errno));
    return;
  }
  const auto count = static_cast<int>(write(fd.get(), text.bytes, sizeof(text.bytes)));
  if (count < 0) {
    FTM_LOGE("%s  write failed! size:%d", caller, count);
    return;
  }
  FTM_LOGD("%s  write %d bytes", caller, count);
  fsync(fd.get());
}

// Unlocks the configuration in the file and in the record. Returns a negative number for a failure,
// 0 when the record took nothing, else the bytes of the record, which decides alone: a failed file
// does not count. A configuration with nothing to unlock is a success.
static int unlockSecrecyCfg() {
  char buffer[kSecrecyTextSize] = {};
  int count = read_secrecy_record(buffer);
  if (count == 0) {
    const char* file = secrecy_file();
    count = file == nullptr ? -1 : read_secrecy_file(__func__, file, buffer);
  }
  if (count < 1) {
    return -1;
  }
  UnlockedText unlocked;
  unlock_text({buffer, strnlen(buffer, sizeof(buffer))}, &unlocked);
  if (!unlocked.changed) {
    return count;
  }
  if (unlocked.overflown) {
    return -1;  // a text with its end cut off must not replace the whole one
  }
  // Both places are known before either is written.
  const char* file = secrecy_file();
  RecordPlace record;
  if (file == nullptr || !find_record(kSecrecyRecord, &record)) {
    return -1;
  }
  write_secrecy_file(__func__, file, unlocked);
  const int result =
      writeInterface(record.partition, record.offset, unlocked.bytes, sizeof(unlocked.bytes));
  FTM_LOGD("%s count = %d", __func__, result);
  return result;
}

int at_unlock_secrecy(const char* argument) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (argument == nullptr || strlen(argument) < kSecrecyKeyLength) {
    at_send_result("ERROR\n");
    at_send_result(" INVALID KEY");
    return 0;
  }
  SecrecyCfg cfg;
  if (!read_cfg(&cfg) || !has_key(cfg)) {
    return 0;
  }
  // The argument came in upper case.
  if (strncmp(strupr(cfg.key), argument, kSecrecyKeyLength) != 0) {
    at_send_result("ERROR\n");
    at_send_result(" KEY DOESN'T MATCH");
    return 0;
  }
  const int outcome = unlockSecrecyCfg();
  if (outcome < 0) {
    log_unreadable();
    at_send_result("ERROR\n");
    return 0;
  }
  at_send_result("OK\r\n");
  at_send_result(outcome == 0 ? " ISN'T LOCKED" : " UNLOCKED SUCCESS");
  return 0;
}
