// Storage: sizes and states from /proc and the memory card's file system.

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/vfs.h>

#include <algorithm>
#include <iterator>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"
#include "modules/deviceinfo/deviceinfo.h"
#include "modules/deviceinfo/lines.h"

static const char kPartitions[] = "/proc/partitions";
static const char kUfsplusStatus[] = "/proc/devinfo/ufsplus_status";
static const char kMemoryCard[] = "/mnt/sdcard";

// Whole storage units, not their partitions.
static bool is_storage_unit(const char* name) {
  static const char* const kUnits[] = {"sda", "sdb", "sdc", "sdd", "sde", "sdf"};
  return std::any_of(std::begin(kUnits), std::end(kUnits),
                     [&](const char* unit) { return strcmp(name, unit) == 0; });
}

// KiB.
static int64_t get_emmc_size() {
  const UniqueFile file(fopen(kPartitions, "re"));
  if (file == nullptr) {
    return 0;
  }
  int64_t sum = 0;
  Lines lines(file.get());
  while (const char* line = lines.next()) {
    if (begins_with(line, "major")) {
      continue;
    }
    int minor = 0;
    long blocks = 0;
    char name[256];
    // Lines that do not scan, such as the blank one behind the header, add nothing.
    if (sscanf(line, "%*d %d %ld %255s\n", &minor, &blocks, name) == 3 && is_storage_unit(name) &&
        __builtin_add_overflow(sum, blocks, &sum)) {
      return INT64_MAX;
    }
  }
  return sum;
}

int at_get_emmc_size(const char*) {
  const int64_t size = get_emmc_size();
  FTM_LOGD(TAG "%s\n", __func__);
  send_number(" EMMCSIZE:", size);
  return 0;
}

int at_get_emmc_size_new(const char*) {
  // Whole GiB: the decimals are always 00.
  const int64_t whole_gib = get_emmc_size() / 1048576;
  const auto capacity = static_cast<float>(whole_gib);
  char text[64];
  bounded_format(text, sizeof(text), "capacity: %0.2f GB", static_cast<double>(capacity));
  at_send_result("OK\r\n");
  at_send_result(text);
  return 0;
}

// Fills both states as far as the file has them. Returns 0, or -1 when it cannot be read.
static int get_ufsplus_status(int* tw_status, int* hpb_status) {
  FTM_LOGI(TAG "start get_ufsplus_status!!\n");
  if (exists(kUfsplusStatus) != Existence::kThere) {
    return -1;
  }
  const UniqueFile file(fopen(kUfsplusStatus, "re"));
  if (file == nullptr) {
    FTM_LOGD(TAG "%s can't open /proc/devinfo/ufsplus_status %s \n", __func__, strerror(errno));
    return -1;
  }
  const auto read_status = [](const char* line, const char* key, int* status) {
    long number = 0;
    if (scan_number(line, key, &number)) {
      *status = static_cast<int>(std::clamp<long>(number, INT32_MIN, INT32_MAX));
    }
  };
  Lines lines(file.get());
  while (const char* line = lines.next()) {
    if (begins_with(line, "HPB status:")) {
      read_status(line, "HPB status:", hpb_status);
    } else if (begins_with(line, "TW status:")) {
      read_status(line, "TW status:", tw_status);
      break;
    }
  }
  FTM_LOGI(TAG "end get_ufsplus_status!!\n");
  FTM_LOGD(TAG "%s hpb_status=%d, tw_status=%d\n", __func__, *hpb_status, *tw_status);
  return 0;
}

int at_get_ufsplus_status(const char*) {
  static const struct {
    int tw;
    int hpb;
    const char* failure;  // null for none; without a line end
  } kOutcomes[] = {
      {1, 1, nullptr},
      {1, 0, "HPB is not enable"},
      {0, 1, "TW is not enable"},
      {0, 0, "TW And HPB are not enable"},
  };
  int tw = 0;
  int hpb = 0;
  const char* failure = "Undefined ufsplus status";
  if (get_ufsplus_status(&tw, &hpb) != 0) {
    failure = "Can't Open UFSPLUS node";
  } else {
    for (const auto& outcome : kOutcomes) {
      if (outcome.tw == tw && outcome.hpb == hpb) {
        failure = outcome.failure;
      }
    }
  }
  if (failure == nullptr) {
    at_send_result("OK\r\n");
  } else {
    at_send_result("ERROR\n");
    at_send_result(failure);
  }
  return 0;
}

int at_test_sdcard(const char*) {
  struct statfs card;
  if (statfs(kMemoryCard, &card) != 0) {
    at_send_result("ERROR\n");
    at_send_result("/mnt/sdcard not exit\n");
    return 0;
  }
  constexpr double kGibPerMib = 0.0009765625;
  const auto block_size = static_cast<uint64_t>(card.f_bsize);
  const uint64_t total = (card.f_blocks * block_size) >> 20;  // MiB
  const uint64_t free = (block_size * card.f_bfree) >> 20;
  char text[100] = {};
  bounded_format(text, sizeof(text), "SDcard total=%0.2lfGB, free=%0.2lfGB\n",
                 static_cast<double>(total) * kGibPerMib, static_cast<double>(free) * kGibPerMib);
  at_send_result("OK\r\n");
  at_send_result(text);
  return 0;
}
