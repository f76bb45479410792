// Whether an RF test cable is plugged into one of the antenna ports: the node's number has a digit
// per port, and anything but zero is a cable that should not be there.

#include <iterator>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/properties.h"

#define TAG "[FTM-RF]"

static const char kProjectProperty[] = "ro.boot.prj_version";
static const char kCableNode[] = "/proc/tarn_rf/rf_cable";

// The one project that has five ports; the others have one.
static constexpr int kFivePortProject = 12;
// The fifth port is ANT7, not ANT4.
static const char* const kFivePorts[] = {" ANT0", " ANT1", " ANT2", " ANT3", " ANT7"};
static const char kOnePort[] = " ANT0";

static void log_antennas(const char* handler, const char* value, int project) {
  char antennas[std::size(kFivePorts) * 6 + 1] = {};
  int used = 0;
  for (size_t port = 0; port < std::size(kFivePorts) && value[port] != '\0'; ++port) {
    if (value[port] == '1') {
      used += bounded_format(antennas + used, sizeof(antennas) - used, "%s",
                             project == kFivePortProject ? kFivePorts[port] : kOnePort);
    }
  }
  FTM_LOGD(TAG "%s cable_buffer=%s proj=%d\n", handler, antennas, project);
}

static int at_test_rf_cable(const char*) {
  char property[PROP_VALUE_MAX] = {};
  property_get(kProjectProperty, property, "");
  const int project = parse_int(property);

  const int cable = node_number(kCableNode);
  FTM_LOGD(TAG "%s cable=%d\n", __func__, cable);

  char value[16];
  bounded_format(value, sizeof(value), project == kFivePortProject && cable != 0 ? "%05d" : "%d",
                 cable);
  log_antennas(__func__, value, project);

  at_send_result(cable != 0 ? "RFCABLE:ERROR " : "RFCABLE:OK ");
  at_send_result(value);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "rf_cable_test", .command = "AT_RF_CABLE", .handler = at_test_rf_cable},
};

static void at_rf_cable_test_init() {
  at_register_rows(rows);
}

// The init function is the exit function too: shut-down registers the row once more.
FTM_MODULE_EXIT_IS_INIT(rf_cable_test, 5, TAG)
