// The battery's measurements in one line, from the power-supply nodes, and the switch of the
// wireless reverse-charging transmitter.

#include <stdint.h>
#include <stdlib.h>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"

#define TAG "[FTM-Battery&Charging]"

static const char kPresentNode[] = "/sys/class/power_supply/battery/present";
static const char kCapacityNode[] = "/sys/class/power_supply/battery/capacity";
static const char kVoltageNode[] = "/sys/class/power_supply/battery/voltage_now";
static const char kAcOnlineNode[] = "/sys/class/power_supply/ac/online";
static const char kUsbOnlineNode[] = "/sys/class/power_supply/usb/online";
static const char kChargeNode[] = "/sys/class/power_supply/battery/charge_now";
static const char kCurrentNode[] = "/sys/class/power_supply/battery/current_now";
static const char kTemperatureNode[] = "/sys/class/power_supply/battery/temp";
static const char kReverseChargeNode[] = "/proc/wireless/enable_tx";

// Kept between commands: a value that cannot be read keeps its previous value.
struct BatteryRecord {
  int32_t voltage;      // mV
  int32_t charge;       // mAh
  int32_t current;      // as the node gives it
  int32_t temperature;  // 0.1 degrees Celsius
  int32_t capacity;     // percent
  char report[1024];
  bool charger_online;
  bool battery_present;
};

static BatteryRecord* battery = nullptr;

struct NodeText {
  char text[128 + 1] = {};
};

// False when the node gives no byte at all.
static bool read_node(const char* path, NodeText* node) {
  return file_read_string(path, node->text, sizeof(node->text) - 1) >= 1;
}

// Stores the node's number divided by divisor.
static void read_number(const char* path, int32_t divisor, int32_t* value) {
  NodeText node;
  if (read_node(path, &node)) {
    *value = parse_int(node.text) / divisor;
  }
}

// Sets flag when the node's first byte is the digit 1. False, with flag as it was, when the node
// gives no byte at all.
static bool read_flag(const char* path, bool* flag) {
  NodeText node;
  if (!read_node(path, &node)) {
    return false;
  }
  *flag = node.text[0] == '1';
  return true;
}

static void read_measurements(BatteryRecord* record) {
  if (!read_flag(kPresentNode, &record->battery_present) || !record->battery_present) {
    FTM_LOGE(TAG "battery is not available\n");
    return;
  }
  read_number(kCapacityNode, 1, &record->capacity);
  read_number(kVoltageNode, 1000, &record->voltage);
  if (!read_flag(kAcOnlineNode, &record->charger_online) || !record->charger_online) {
    read_flag(kUsbOnlineNode, &record->charger_online);
  }
  read_number(kChargeNode, 1000, &record->charge);
  read_number(kCurrentNode, 1, &record->current);
  read_number(kTemperatureNode, 1, &record->temperature);
}

static const char* battery_status_info_get() {
  // Takes the record's place, from zeros on, when there was no memory for one.
  static BatteryRecord stand_in;
  BatteryRecord* record = battery != nullptr ? battery : &stand_in;
  read_measurements(record);

  // The third column is a fixed 0.00: kept as it stands.
  const int length =
      bounded_format(record->report, sizeof(record->report), "+EADC: %.2f,%.2f,%s,%.3f,%.2f",
                     record->voltage / 1000.0, record->temperature / 10.0, "0.00",
                     record->current / 1000.0, record->charge / 1000.0);
  FTM_LOGD("BATTERY STATUS INFO:\n");
  // Logs the empty text behind the report, not the report: kept as it stands.
  FTM_LOGD("%s\n", record->report + length);
  return record->report;
}

static int at_adc_info_get(const char*) {
  at_send_result("OK\r\n");
  at_send_result(battery_status_info_get());
  return 0;
}

static int set_reverse_charge(const char* handler, const char* mode) {
  FTM_LOGD(TAG "%s\n", handler);
  if (exists(kReverseChargeNode) != Existence::kThere) {
    FTM_LOGE(TAG "open reverse charge file failed");
    at_send_result("ERROR\n");
    return 0;
  }
  FTM_LOGD(TAG "target mode: %s\n", mode);
  if (file_write_string(kReverseChargeNode, mode) < 1) {
    at_send_result("ERROR\n");
    return 0;
  }
  FTM_LOGD(TAG "write success");
  at_send_result("OK\r\n");
  return 0;
}

static int at_open_reverse_charge_mode(const char*) {
  return set_reverse_charge(__func__, "1");
}

static int at_close_reverse_charge_mode(const char*) {
  return set_reverse_charge(__func__, "0");
}

static AtCommand rows[] = {
    {.short_name = "adc_read", .command = "AT+EADC=1", .handler = at_adc_info_get},
    {.short_name = "open reverse charge",
     .command = "AT+OPEN_REVERSE_CHARGE",
     .handler = at_open_reverse_charge_mode},
    {.short_name = "close reverse charge",
     .command = "AT+CLOSE_REVERSE_CHARGE",
     .handler = at_close_reverse_charge_mode},
};

static void at_adc_read_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  at_register_rows(rows);
  battery = static_cast<BatteryRecord*>(calloc(1, sizeof(BatteryRecord)));
  FTM_LOGD(TAG "%s end\n", __func__);
}

static void at_adc_read_exit() {
  FTM_LOGD(TAG "%s start\n", __func__);
  free(battery);
  battery = nullptr;
  FTM_LOGD(TAG "%s end\n", __func__);
}

FTM_MODULE(adc_read, 4, TAG)
