// Records that the factory line leaves on the reserve partition: the main board's (PCBA) number and
// the marks of the software download. Nothing is written here.

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "core/at.h"
#include "core/bounded.h"
#include "core/log.h"
#include "core/properties.h"
#include "core/shared_files.h"
#include "core/unique.h"
#include "modules/deviceinfo/deviceinfo.h"

static const char kNorvaReserve[] = "/dev/block/bootdevice/by-name/norvareserve1";
static const char kTarnReserve[] = "/dev/block/bootdevice/by-name/tarnreserve1";
static const char kReserve4[] = "/dev/block/bootdevice/by-name/reserve4";
static const char kPcbaItemFile[] = "/data/tarnnvitems/6855";

// Where a record lies: from the start of the integrated reserve partition, or before the end of the
// older layout's. Offsets in bytes, from the record format.
struct Record {
  off_t offset;
  const char* seek_failed;
  off_t offset_from_end;
  const char* seek_from_end_failed;
};

static const Record kPcba = {0x428000, TAG "lseek to TARN_PARTITION_PCBA_OFFSET error  \n", -3584,
                             TAG "lseek to PCBAENDOFFSET error  \n"};
static const Record kDownloadEnd = {
    0x427000, TAG "lseek to TARN_PARTITION_DOWNLOAD_STATUS_END_OFFSET error  \n", -512,
    TAG "lseek to DOWNLOAD_STATUS_END_OFFSET error  \n"};
static const Record kDownloadStart = {
    0x426000, TAG "lseek to TARN_PARTITION_DOWNLOAD_STATUS_START_OFFSET error  \n", -1024,
    TAG "lseek to DOWNLOAD_STATUS_START_OFFSET error  \n"};

static constexpr size_t kPcbaRecordSize = 183;
static constexpr size_t kPcbaScrambled = 30;  // bytes 1 to 30
static constexpr size_t kPcbaNumberOffset = 7;
static constexpr size_t kPcbaNumberSize = 32;
static constexpr size_t kItemSize = 126;  // a length byte and up to 125 characters
static constexpr size_t kEndMarkSize = 13;
static constexpr size_t kStartMarkSize = 14;

// The key of the scrambling is agreed with the station that writes the record: 60 hexadecimal
// digits.
static_assert(sizeof(FTM_PCBA_KEY) == 2 * kPcbaScrambled + 1, "FTM_PCBA_KEY takes 60 hex digits");

static constexpr unsigned hex_digit(char c) {
  return static_cast<unsigned>(c >= 'a' ? c - 'a' + 10 : c >= 'A' ? c - 'A' + 10 : c - '0');
}

static constexpr uint8_t key_byte(size_t index) {
  return static_cast<uint8_t>(hex_digit(FTM_PCBA_KEY[2 * index]) << 4 |
                              hex_digit(FTM_PCBA_KEY[2 * index + 1]));
}

struct Partition {
  UniqueFd fd;
  bool integrated;  // records count from the start
};

static Partition open_partition() {
  char value[PROP_VALUE_MAX];
  const int length = property_get("ro.sys.reserve.integrate", value, "true");
  if (strcmp(value, "true") == 0) {
    FTM_LOGE("getprop ro.sys.reserve.integrate = true\n");
  }
  if (length != 0) {
    FTM_LOGD("useTarnReserve = %d\n", 1);
    for (const char* path : {kNorvaReserve, kTarnReserve}) {
      UniqueFd fd(open(path, O_RDWR | O_CLOEXEC));
      if (fd.ok()) {
        return {std::move(fd), true};
      }
      FTM_LOGE("READ:Unable to open %s\n", path);
    }
    return {UniqueFd(), true};
  }
  // Out of reach while the property has a default; kept for builds of the older layout.
  FTM_LOGD("Can't getprop ro.sys.reserve.integrate\n");
  FTM_LOGD("useTarnReserve = %d\n", 0);
  UniqueFd fd(open(kReserve4, O_RDWR | O_CLOEXEC));
  if (!fd.ok()) {
    FTM_LOGE(TAG "Unable to open %s\n", kReserve4);
  }
  return {std::move(fd), false};
}

// Reads up to size bytes of a record in one call. Returns the bytes read; 0 when there are none or
// the partition cannot be had.
static size_t read_factory_record(const Partition& partition, const Record& record, void* data,
                                  size_t size) {
  const off_t sought = partition.integrated
                           ? lseek(partition.fd.get(), record.offset, SEEK_SET)
                           : lseek(partition.fd.get(), record.offset_from_end, SEEK_END);
  if (sought < 0) {
    FTM_LOGE("%s", partition.integrated ? record.seek_failed : record.seek_from_end_failed);
    return 0;
  }
  const ssize_t count = read(partition.fd.get(), data, size);
  if (count < 1) {
    FTM_LOGE(TAG "read none from reserve4\n");  // whichever partition it was
    return 0;
  }
  return static_cast<size_t>(count);
}

// The number, or the empty text. A length byte above 32 ends the process.
static const char* ftm_getReserve4_pcba() {
  static char number[kPcbaNumberSize + 1];
  const Partition partition = open_partition();
  uint8_t record[kPcbaRecordSize] = {};
  if (!partition.fd.ok() || read_factory_record(partition, kPcba, record, sizeof(record)) == 0) {
    return "";
  }
  for (size_t i = 0; i < kPcbaScrambled; ++i) {
    const auto byte = static_cast<uint8_t>(record[1 + i] ^ key_byte(i));
    record[1 + i] = static_cast<uint8_t>(byte << 4 | byte >> 4);
  }
  memset(number, 0, sizeof(number));
  bounded_copy(number, kPcbaNumberSize, record + kPcbaNumberOffset, record[0]);
  return number;
}

// The number from the non-volatile item file, or the empty text.
static const char* ftm_getNV_pcba() {
  static char number[kItemSize];
  const UniqueFd file = open_regular(kPcbaItemFile, O_RDWR);
  if (!file.ok()) {
    FTM_LOGE(TAG "Unable to open %s\n", kPcbaItemFile);
    return "";
  }
  uint8_t item[kItemSize] = {};
  const size_t count = read_up_to(file.get(), item, sizeof(item));
  // A file that is shorter than its length byte says ends the number.
  const size_t length = std::min<size_t>(item[0], count < 1 ? 0 : count - 1);
  memset(number, 0, sizeof(number));
  memcpy(number, item + 1, length);
  return number;
}

// A mark's text, or the empty text. buffer has one byte more than the field, which keeps searches
// inside it.
static const char* read_mark(const Record& record, char* buffer, size_t field) {
  const Partition partition = open_partition();
  if (!partition.fd.ok()) {
    return "";
  }
  if (!partition.integrated) {
    memset(buffer, 0, field);
  }
  return read_factory_record(partition, record, buffer, field) == 0 ? "" : buffer;
}

static const char* ftm_getReserve4_download_end_status() {
  static char mark[kEndMarkSize + 1];
  return read_mark(kDownloadEnd, mark, kEndMarkSize);
}

static const char* ftm_getReserve4_download_start_status() {
  static char mark[kStartMarkSize + 1];
  return read_mark(kDownloadStart, mark, kStartMarkSize);
}

int at_pcb_number_get(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  at_send_result("OK\r\n");
  at_send_result(" PCBA:");
  const char* number = ftm_getReserve4_pcba();
  if (number[0] == '\0') {
    number = ftm_getNV_pcba();
  }
  // A number that fills the buffer has no room for its end: fatal, like every such overflow.
  char reply[32];
  bounded_format(reply, sizeof(reply), "%s", number);
  at_send_result(reply);
  return 0;
}

int at_download_status_get(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (strstr(ftm_getReserve4_download_end_status(), "download over") != nullptr) {
    at_send_result(" DOWNLOAD:over\n");
  } else if (strstr(ftm_getReserve4_download_start_status(), "download start") != nullptr) {
    at_send_result(" DOWNLOAD:start\n");
  } else {
    at_send_result(" DOWNLOAD:NULL\n");
  }
  return 0;
}
