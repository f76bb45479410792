// One command per sensor: start a test run on the hub, sleep while samples come in, answer with the
// latest. A sensor that sends nothing is no failure: the station sees -999.

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"
#include "sensors/sensor_client.h"

#define TAG "[AT_SENSOR]"
#define ALS_TYPE_PATH "/proc/sensor/als_cali/als_type"

static constexpr useconds_t kWaitUs = 800 * 1000;
// The second accelerometer gets longer than all others: kept as it stands.
static constexpr useconds_t kDualAccelWaitUs = 1000 * 1000;

// A test's answer on its way to the station.
static constexpr size_t kReplySize = 128;
using FormatReply = int (*)(char* reply, const float* values);

static int format_axes(char* reply, const float* values) {
  return snprintf(reply, kReplySize, "x : %2f  \ny : %2f  \nz : %2f  \n",
                  static_cast<double>(values[0]), static_cast<double>(values[1]),
                  static_cast<double>(values[2]));
}

static int format_count(char* reply, const float* values) {
  // What no int can hold becomes the nearest int, and what is no number 0, as the phone's processor
  // has it.
  const double count = std::isnan(values[0]) ? 0 : static_cast<double>(values[0]);
  return snprintf(reply, kReplySize, "x : %d  \n",
                  static_cast<int>(std::clamp<double>(count, INT32_MIN, INT32_MAX)));
}

static int format_lux(char* reply, const float* values) {
  return snprintf(reply, kReplySize, "lux : %2f\n", static_cast<double>(values[0]));
}

static int format_pressure(char* reply, const float* values) {
  return snprintf(reply, kReplySize, "pressure(hPa) : %.3f\n", static_cast<double>(values[0]));
}

// The two blanks are kept as they stand, and so is their absence from the hall sensor's answer.
static int format_sar_status(char* reply, const float* values) {
  return snprintf(reply, kReplySize, "status : %2f  \n", static_cast<double>(values[0]));
}

static int format_hall_status(char* reply, const float* values) {
  return snprintf(reply, kReplySize, "status : %2f\n", static_cast<double>(values[0]));
}

// Which of the two light sensors the unit has, by its calibration node. -1 without the node.
static int light_sensor_type() {
  const UniqueFd fd(open(ALS_TYPE_PATH, O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) {
    return -1;
  }
  char als_type_buffer[10 + 1] = {};
  if (read(fd.get(), als_type_buffer, sizeof(als_type_buffer) - 1) < 0) {
    als_type_buffer[0] = '\0';
  }
  FTM_LOGD(TAG "als_type_buffer =%s\n", als_type_buffer);
  const int als_type = parse_int(als_type_buffer);
  FTM_LOGD(TAG "als_type =%d\n", als_type);
  return als_type == 2 || als_type == 3 ? kSensorWiseLight : kSensorAmbientLight;
}

static constexpr int kLightSensor = -1;  // whichever the unit has

static int test_sensor(const char* handler, int type_id, FormatReply format,
                       useconds_t wait = kWaitUs) {
  FTM_LOGD(TAG "%s\n", handler);
  const std::unique_ptr<float, FreeMemory> values(
      static_cast<float*>(malloc(kSensorValues * sizeof(float))));
  if (values == nullptr) {
    FTM_LOGE(TAG "malloc fail at step 1");
    at_send_result("ERROR\n");
    return 0;
  }
  std::fill_n(values.get(), kSensorValues, kNoSensorData);
  const std::unique_ptr<char, FreeMemory> reply(static_cast<char*>(calloc(1, kReplySize)));
  if (reply == nullptr) {
    FTM_LOGE(TAG "malloc fail at step 2");
    at_send_result("ERROR\n");
    return 0;
  }
  if (type_id == kLightSensor) {
    type_id = light_sensor_type();
    if (type_id < 0) {
      at_send_result("ERROR\n");
      FTM_LOGE(TAG "open ALS_TYPE_PATH fail\n");
      return 0;
    }
  }
  if (open_sensor(type_id) != 0) {
    at_send_result("ERROR\n");
    FTM_LOGE(TAG "open_sensor fail\n");
    return 0;
  }
  usleep(wait);
  fetch_sensor_data(values.get());
  const int length = format(reply.get(), values.get());
  FTM_LOGD("data_buff %s", reply.get());
  close_sensor(type_id);
  if (length < 0 || static_cast<size_t>(length) >= kReplySize) {
    // Only axes of some thirty digits each come here; a cut line could be taken for a value.
    at_send_result("ERROR\n");
    return 0;
  }
  at_send_result(reply.get());
  at_send_result("OK\r\n");
  return 0;
}

static int at_test_gsensor_adsp(const char*) {
  return test_sensor(__func__, kSensorAccel, format_axes);
}

static int at_test_gyro_adsp(const char*) {
  return test_sensor(__func__, kSensorGyro, format_axes);
}

static int at_test_msensor_adsp(const char*) {
  return test_sensor(__func__, kSensorMag, format_axes);
}

static int at_test_prox_adsp(const char*) {
  return test_sensor(__func__, kSensorProximity, format_count);
}

static int at_test_light_adsp(const char*) {
  return test_sensor(__func__, kLightSensor, format_lux);
}

static int at_test_pressure_adsp(const char*) {
  return test_sensor(__func__, kSensorPressure, format_pressure);
}

static int at_test_sar_adsp(const char*) {
  return test_sensor(__func__, kSensorSar, format_sar_status);
}

static int at_test_dual_gsensor_adsp(const char*) {
  return test_sensor(__func__, kSensorSecondAccel, format_axes, kDualAccelWaitUs);
}

static int at_test_dual_gyro_adsp(const char*) {
  return test_sensor(__func__, kSensorSecondGyro, format_axes);
}

static int at_test_hall_adsp(const char*) {
  return test_sensor(__func__, kSensorHall, format_hall_status);
}

static int at_test_angle_hall_adsp(const char*) {
  return test_sensor(__func__, kSensorAngleHall, format_axes);
}

static int at_test_padals_adsp(const char*) {
  return test_sensor(__func__, kSensorPadAls, format_lux);
}

static int at_test_vice_padals_adsp(const char*) {
  return test_sensor(__func__, kSensorVicePadAls, format_lux);
}

static int at_test_sar_down_adsp(const char*) {
  return test_sensor(__func__, kSensorSars, format_sar_status);
}

static AtCommand rows[] = {
    {.short_name = "G_sensor_adsp_test", .command = "AT+GSENSOR", .handler = at_test_gsensor_adsp},
    {.short_name = "Gyro_adsp_test", .command = "AT+GYRO", .handler = at_test_gyro_adsp},
    {.short_name = "Msensor_adsp_test", .command = "AT+MSENSOR", .handler = at_test_msensor_adsp},
    {.short_name = "Prox_adsp_test", .command = "AT+PROX", .handler = at_test_prox_adsp},
    {.short_name = "Light_adsp_test", .command = "AT+LIGHT", .handler = at_test_light_adsp},
    {.short_name = "Press_adsp_test", .command = "AT+PRESS", .handler = at_test_pressure_adsp},
    {.short_name = "Sar_adsp_test", .command = "AT+SAR", .handler = at_test_sar_adsp},
    {.short_name = "Dual_Gsensor_adsp_test",
     .command = "AT+DUAL_GSENSOR",
     .handler = at_test_dual_gsensor_adsp},
    {.short_name = "Dual_Gyro_adsp_test",
     .command = "AT+DUAL_GYRO",
     .handler = at_test_dual_gyro_adsp},
    {.short_name = "Hall_adsp_test", .command = "AT+HALL", .handler = at_test_hall_adsp},
    {.short_name = "Angle_Hall_adsp_test",
     .command = "AT+ANGLE_HALL",
     .handler = at_test_angle_hall_adsp},
    {.short_name = "PadALS_adsp_test", .command = "AT+PAD_ALS", .handler = at_test_padals_adsp},
    {.short_name = "Vice_PadALS_adsp_test",
     .command = "AT+VICE_PAD_ALS",
     .handler = at_test_vice_padals_adsp},
    {.short_name = "Sar_Down_adsp_test",
     .command = "AT+VICE_SAR",
     .handler = at_test_sar_down_adsp},
};

static void at_sensor_adsp_init() {
  at_register_rows(rows);
}

static void at_sensor_adsp_exit() {}

FTM_MODULE(sensor_adsp, 6, TAG)
