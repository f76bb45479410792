// The reader of the secrecy configuration and the gate; see secrecy.h.

#include "modules/engineer/secrecy.h"

#include <errno.h>
#include <string.h>

#include "core/at.h"
#include "core/file_utils.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"

static const char kNorvaFolder[] = "/mnt/vendor/norvareserve";
static const char kNorvaFile[] = "/mnt/vendor/norvareserve/system/config/secrecy.cfg";
static const char kTarnFile[] = "/mnt/vendor/tarnreserve/system/config/secrecy.cfg";

const char* secrecy_file() {
  switch (exists(kNorvaFolder)) {
    case Existence::kThere:
      return kNorvaFile;
    case Existence::kNotThere:
      return kTarnFile;
    default:
      return nullptr;
  }
}

int read_secrecy_record(char* text) {
  RecordPlace record;
  if (!find_record(kSecrecyRecord, &record)) {
    return -1;
  }
  const int count = readInterface(record.partition, record.offset, text, kSecrecyTextSize);
  return count > 0 && text[0] == '#' ? count : 0;
}

int read_secrecy_file(const char* caller, const char* file, char* text) {
  memset(text, 0, kSecrecyTextSize);
  const int count = read_shared_file(file, text, kSecrecyTextSize);
  // It says "reserve" for the file: the text is kept as it stands.
  FTM_LOGE("%s config from reserve", caller);
  return count;
}

std::string_view take_line(std::string_view* text) {
  const std::string_view line = text->substr(0, text->find('\n'));
  text->remove_prefix(line.size() == text->size() ? line.size() : line.size() + 1);
  return line;
}

static void read_line(std::string_view line, char* imei, char* key, uint8_t* locked) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    return;
  }
  const std::string_view name = line.substr(0, equals);
  const std::string_view value = line.substr(equals + 1);
  // A name that is only the beginning of a key stands for it, the empty one for the first: kept as
  // it stands.
  if (std::string_view("imei").starts_with(name)) {
    if (value.size() < kSecrecyImeiSize) {
      imei[value.copy(imei, value.size())] = '\0';
    }
  } else if (std::string_view("rc4_key").starts_with(name)) {
    if (value.size() == kSecrecyKeyLength) {
      key[value.copy(key, value.size())] = '\0';
    }
  } else if (line.starts_with("encrypt_") && value == "true") {
    FTM_LOGD(TAG "%s locked = %d", "readSecrecyCfg", *locked);
    *locked = 1;
  }
}

int readSecrecyCfg(char* imei, char* key, uint8_t* locked) {
  char buffer[kSecrecyTextSize] = {};
  int count = read_secrecy_record(buffer);
  if (count == 0) {
    const char* file = secrecy_file();
    const Existence there = file == nullptr ? Existence::kUnknown : exists(file);
    if (there == Existence::kNotThere) {
      return 0;
    }
    count = there == Existence::kThere ? read_secrecy_file(__func__, file, buffer) : -1;
  }
  if (count < 0) {
    FTM_LOGE(TAG "%s read config file fail, %s", __func__, strerror(errno));
    return -1;
  }
  std::string_view text(buffer, strnlen(buffer, sizeof(buffer)));
  while (!text.empty()) {
    read_line(take_line(&text), imei, key, locked);
  }
  return count;
}

bool is_secrecy_locked() {
  FTM_LOGD(TAG "%s\n", __func__);
  char imei[kSecrecyImeiSize] = {};
  char key[kSecrecyKeyLength + 1] = {};
  uint8_t locked = 0;
  if (readSecrecyCfg(imei, key, &locked) >= 0 && locked == 0) {
    return false;
  }
  at_send_result("ERROR\n");
  at_send_result(" UNLOCK FIRST");
  return true;
}
