// The secure-boot stage, judged against the board's build stage: a development board must have
// secure boot in one of its two stages, a production board in the second one.

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"

#define TAG "[FTM-SEC]"

static const char kPcbVersionNode[] = "/proc/norvaVersion/pcbVersion";
static const char kSecureTypeNode[] = "/proc/norva_secure_common/secureType";
static constexpr size_t kPcbVersionSize = 10;
static constexpr size_t kSecureTypeSize = 256;

static constexpr int kFirstDvtBoard = 32;
static constexpr int kFirstPvtBoard = 40;

enum SecureBootStage { kSecureBootOff, kSecureBootOn, kSecureBootStage1, kSecureBootStage2 };
static const char* const kStageNames[] = {"OFF", "ON", "STAGE1", "STAGE2"};

// Reads up to size bytes once. Returns 0, or -1 when there is nothing to read.
static int ftm_sec_read_proc(const char* path, char* buffer, size_t size) {
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) {
    FTM_LOGE(TAG "%s: failed to open %s\n", __func__, path);
    return -1;
  }
  const int result = static_cast<int>(read(fd.get(), buffer, size));
  if (result <= 0) {
    FTM_LOGE(TAG "%s: read %s with error size: %d\n", __func__, path, result);
    return -1;
  }
  return 0;
}

// Stores the decimal number that the node's text begins with. Returns 0, or -1 when the node cannot
// be read.
static int read_stage(const char* caller, const char* path, size_t size, int* stage) {
  // One cleared byte more than is read: the text ends inside the allocation.
  const std::unique_ptr<char[]> text(new (std::nothrow) char[size + 1]());
  if (text == nullptr) {
    FTM_LOGE(TAG "%s: failed to malloc read buffer for %s\n", caller, path);
    return -1;
  }
  if (ftm_sec_read_proc(path, text.get(), size) != 0) {
    FTM_LOGE(TAG "%s: failed to read %s\n", caller, path);
    return -1;
  }
  *stage = parse_int(text.get());
  return 0;
}

static int ftm_sec_get_pcb_version(int* version) {
  return read_stage(__func__, kPcbVersionNode, kPcbVersionSize, version);
}

static int ftm_sec_get_secureboot_stage(int* stage) {
  return read_stage(__func__, kSecureTypeNode, kSecureTypeSize, stage);
}

static const char* stage_name(int stage) {
  return stage >= kSecureBootOff && stage <= kSecureBootStage2 ? kStageNames[stage] : "";
}

// Whether the stage is good enough for the board.
static bool ftm_sec_check_secureboot(int pcb_version, int stage) {
  if (pcb_version >= kFirstPvtBoard) {
    if (stage != kSecureBootStage2) {
      FTM_LOGE(TAG "%s secureboot is not stage two for pvt board\n", __func__);
      return false;
    }
  } else if (pcb_version >= kFirstDvtBoard) {
    if (stage != kSecureBootStage1 && stage != kSecureBootStage2) {
      FTM_LOGE(TAG "%s secureboot is not open for dvt board\n", __func__);
      return false;
    }
  }
  return true;
}

static int at_test_sec(const char*) {
  int pcb_version = 0;
  if (ftm_sec_get_pcb_version(&pcb_version) != 0) {
    at_send_result("UNKNOWN PCB VERSION\n");
    at_send_result("ERROR\n");
    return 0;
  }
  int stage = 0;
  if (ftm_sec_get_secureboot_stage(&stage) != 0) {
    at_send_result("UNKNOWN SECURE BOOT STATUS\n");
    at_send_result("ERROR\n");
    return 0;
  }
  char status[32];
  bounded_format(status, sizeof(status), "SECURE BOOT %s\n", stage_name(stage));
  at_send_result(status);
  at_send_result(ftm_sec_check_secureboot(pcb_version, stage) ? "OK\r\n" : "ERROR\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "sec_test", .command = "AT^SECUREBOOT_STATUS_CHECK", .handler = at_test_sec},
};

static void at_sec_test_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  at_register_rows(rows);
  FTM_LOGD(TAG "%s end\n", __func__);
}

// The init function is the exit function too: shut-down registers the row once more.
FTM_MODULE_EXIT_IS_INIT(sec_test, 5, TAG)
