// The vibration motor and the haptic driver's leakage test. The module remembers whether it
// believes the motor is running, so that a repeated command leaves the nodes alone.

#include <pthread.h>
#include <unistd.h>

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"

#define TAG "[FTM-VIBRATOR]"

static const char kDurationNode[] = "/sys/class/leds/vibrator/duration";
static const char kActivateNode[] = "/sys/class/leds/vibrator/activate";
static const char kLeakageNode[] = "/proc/aw8697_leakage";
static constexpr uint32_t kMotorDurationMs = 5000;

// The motor and the leakage test have settled when the reply goes out; the station counts on it.
static constexpr useconds_t kStartSettleUs = 700 * 1000;
static constexpr useconds_t kSettleUs = 500 * 1000;

enum MotorState { kMotorOn = 0, kMotorOff = 1, kMotorUnknown = 2 };

// Guards motor_state alone, not the node writes.
static pthread_mutex_t motor_mutex;
static MotorState motor_state = kMotorUnknown;

static MotorState get_motor_state() {
  pthread_mutex_lock(&motor_mutex);
  const MotorState state = motor_state;
  pthread_mutex_unlock(&motor_mutex);
  return state;
}

static void set_motor_state(MotorState state) {
  pthread_mutex_lock(&motor_mutex);
  motor_state = state;
  FTM_LOGD(TAG "vibrator status is set to:%s\n", state == kMotorOn ? "on" : "off");
  pthread_mutex_unlock(&motor_mutex);
}

static bool write_motor_nodes(uint32_t duration_ms, uint32_t activate) {
  const int duration_result = file_write_int(kDurationNode, duration_ms);
  const int activate_result = file_write_int(kActivateNode, activate);
  return duration_result >= 0 && activate_result >= 0;
}

static bool vibrator_start() {
  if (get_motor_state() == kMotorOn) {
    FTM_LOGD(TAG "vibrator status is already on\n");
    return true;
  }
  // A failed write does not take the state back, and the state also stays on when the motor stops
  // by itself after its duration: the next on command then writes nothing.
  set_motor_state(kMotorOn);
  return write_motor_nodes(kMotorDurationMs, 1);
}

static bool vibrator_stop() {
  if (get_motor_state() == kMotorOff) {
    FTM_LOGD(TAG "vibrator status is already off\n");
    return true;
  }
  // Nodes first, state afterwards: the reverse of starting, on purpose.
  const bool written = write_motor_nodes(0, 0);
  set_motor_state(kMotorOff);
  return written;
}

static int at_vibrator_on(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  vibrator_start();
  usleep(kStartSettleUs);
  at_send_result("OK\r\n");
  return 0;
}

static int at_vibrator_off(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  vibrator_stop();
  usleep(kSettleUs);
  at_send_result("OK\r\n");
  return 0;
}

static int switch_leakage_test(const char* handler, const char* value) {
  FTM_LOGD(TAG "%s, ret=%d\n", handler, 0);
  if (file_write_string(kLeakageNode, value) < 1) {
    FTM_LOGE("write AW8697_LEAKAGE__FILE fail\n");
    at_send_result("ERROR\n");
    return 0;
  }
  usleep(kSettleUs);
  at_send_result("OK\r\n");
  return 0;
}

static int at_aw8697_leakage_on(const char*) {
  return switch_leakage_test(__func__, "1");
}

static int at_aw8697_leakage_off(const char*) {
  return switch_leakage_test(__func__, "0");
}

static void vibrator_status_init() {
  FTM_LOGD(TAG "in func %s()\n", __func__);
  char status[5 + 1] = {};
  const int result = file_read_string(kDurationNode, status, sizeof(status) - 1);
  FTM_LOGD(TAG "init status = %s\n", status);
  if (result >= 0) {
    const auto first = static_cast<unsigned char>(status[0]);
    set_motor_state(first < '1' ? kMotorOff : kMotorOn);
  }
}

static AtCommand rows[] = {
    {.short_name = "vibrator_on", .command = "AT+EDFT=6,1", .handler = at_vibrator_on},
    {.short_name = "vibrator_off", .command = "AT+EDFT=6,0", .handler = at_vibrator_off},
    {.short_name = "aw8697_leakage_on",
     .command = "AT+AW8697_LEAKAGE_ON",
     .handler = at_aw8697_leakage_on},
    {.short_name = "aw8697_leakage_off",
     .command = "AT+AW8697_LEAKAGE_OFF",
     .handler = at_aw8697_leakage_off},
};

static void at_vibrator_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  at_register_rows(rows);
  pthread_mutex_init(&motor_mutex, nullptr);
  vibrator_status_init();
  FTM_LOGD(TAG "%s end\n", __func__);
}

static void at_vibrator_exit() {
  FTM_LOGD(TAG "%s start\n", __func__);
  if (get_motor_state() != kMotorOff) {
    vibrator_stop();
  }
  pthread_mutex_destroy(&motor_mutex);
  FTM_LOGD(TAG "%s end\n", __func__);
}

FTM_MODULE(vibrator, 3, TAG)
