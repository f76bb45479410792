// The rear and front flash. A failed write is not reported: every row answers OK.

#include <pthread.h>
#include <unistd.h>

#include "core/at.h"
#include "core/file_utils.h"
#include "modules/camera/camera.h"

static const char kRearFlash[] = "/proc/qcom_flash";
static const char kFrontFlash[] = "/sys/devices/platform/soc/2.qcom,camera-flash/fswitch";
static constexpr uint32_t kFlashOn = 3;
static constexpr uint32_t kFlashOff = 0;
static constexpr useconds_t kAfterOnUs = 50 * 1000;

static pthread_mutex_t flash_mutex;  // held around every write, and the pause after switching on

void flash_init() {
  pthread_mutex_init(&flash_mutex, nullptr);
}

void flash_exit() {
  pthread_mutex_destroy(&flash_mutex);
}

static void write_flash(const char* node, uint32_t value) {
  pthread_mutex_lock(&flash_mutex);
  file_write_int(node, value);
  if (value == kFlashOn) {
    usleep(kAfterOnUs);
  }
  pthread_mutex_unlock(&flash_mutex);
}

static int switch_flash(const char* node, uint32_t value) {
  write_flash(node, value);
  at_send_result("OK\r\n");
  return 0;
}

int at_flash_light_open(const char*) {
  return switch_flash(kRearFlash, kFlashOn);
}
int at_flash_light_close(const char*) {
  return switch_flash(kRearFlash, kFlashOff);
}
int at_front_flash_light_open(const char*) {
  return switch_flash(kFrontFlash, kFlashOn);
}
int at_front_flash_light_close(const char*) {
  return switch_flash(kFrontFlash, kFlashOff);
}

// In turns; the rows above leave its state alone.
int at_flash_light_test(const char*) {
  static bool lit = false;
  write_flash(kRearFlash, lit ? kFlashOff : kFlashOn);
  lit = !lit;
  at_send_result("OK\r\n");
  return 0;
}
