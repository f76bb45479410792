// The Wi-Fi radio test: loads the WLAN driver and scans, unloads it again, and looks whether the
// radio's calibration file is in place. The driver goes in and out with the kernel's own module
// calls; interface and scans use the system's shell tools.

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"

#define TAG "[FTM-WIFI]"

static const char kDriverFile[] = "/vendor/lib/modules/qca_cld3_wlan.ko";
static const char kCalibrationFile[] = "/mnt/vendor/persist/copy/bdwlan.bin";

static constexpr useconds_t kAfterInsmodUs = 50 * 1000;
static constexpr int kScans = 5;
static constexpr useconds_t kAfterScanUs = 200 * 1000;
static constexpr useconds_t kAfterScansUs = 100 * 1000;
static constexpr int kScanNotRun = -96;
static constexpr int kUnloadAttempts = 10;
static constexpr useconds_t kUnloadRetryUs = 500 * 1000;

struct FileImage {
  std::unique_ptr<char[]> data;  // null when the file could not be read whole
  size_t size = 0;
};

static FileImage load_file(const char* path) {
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  struct stat info = {};
  if (!fd.ok() || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 0) {
    return {};
  }
  const auto size = static_cast<size_t>(info.st_size);
  // One byte more than the file should hold, so that a file that grows meanwhile is noticed.
  const size_t capacity = size + 1;
  std::unique_ptr<char[]> data(new (std::nothrow) char[capacity]);
  if (data == nullptr) {
    return {};
  }
  size_t filled = 0;
  while (filled < capacity) {
    const ssize_t count = read(fd.get(), data.get() + filled, capacity - filled);
    if (count < 0) {
      return {};
    }
    if (count == 0) {
      break;
    }
    filled += static_cast<size_t>(count);
  }
  if (filled != size) {
    return {};
  }
  return {std::move(data), size};
}

static void insmod(const char* path) {
  const FileImage image = load_file(path);
  if (image.data != nullptr) {
    // The result is not looked at: a driver that is already loaded is no error here.
    syscall(SYS_init_module, image.data.get(), image.size, "");
  }
}

// Returns 0, or kScanNotRun when the shell could not be run. What a scan itself answers does not
// matter.
static int wifi_schedule_scan() {
  FTM_LOGD(TAG "%s: Start\n", __func__);
  // Reported as a success whatever came of it.
  [[maybe_unused]] const int result = system("ifconfig wlan0 up");
  FTM_LOGE("set wlan0 up success\n");
  for (int left = kScans - 1; left >= 0; --left) {
    if (system("iw wlan0 scan") < 0) {
      FTM_LOGE("iw wlan0 scan fail----- ");
      return kScanNotRun;
    }
    FTM_LOGD("iw wlan0 scan ok, count = %d", left);
    usleep(kAfterScanUs);
  }
  usleep(kAfterScansUs);
  FTM_LOGD(TAG "%s: Stop\n", __func__);
  return 0;
}

static int at_open_wifi(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  insmod(kDriverFile);
  FTM_LOGE("insmod for %s \n", kDriverFile);
  usleep(kAfterInsmodUs);
  wifi_schedule_scan();
  at_send_result("OK\r\n");
  return 0;
}

static void rmmod(const char* name) {
  int error = 0;
  for (int attempt = 0; attempt < kUnloadAttempts; ++attempt) {
    if (syscall(SYS_delete_module, name, O_NONBLOCK | O_EXCL) == 0) {
      return;
    }
    error = errno;
    if (error != EAGAIN) {
      break;
    }
    usleep(kUnloadRetryUs);
  }
  FTM_LOGE("Unable to unload driver module \"%s\": %s\n", name, strerror(error));
}

static int at_close_wifi(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  // Acknowledged before unloading, on purpose.
  at_send_result("OK\r\n");
  rmmod("wlan");
  rmmod("cfg80211");
  at_send_result("STOP");
  return 0;
}

static int at_check_wifi(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  // The sense is inverted on purpose: a calibration file that is there is an ERROR.
  at_send_result(exists(kCalibrationFile) == Existence::kNotThere ? "OK\r\n" : "ERROR\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "open_wifi", .command = "AT^OPEN_WIFI", .handler = at_open_wifi},
    {.short_name = "close_wifi", .command = "AT^CLOSE_WIFI", .handler = at_close_wifi},
    {.short_name = "check_wifi", .command = "AT^CHECK_WIFI", .handler = at_check_wifi},
};

FTM_PLAIN_MODULE(wifi, 5, TAG, rows)
