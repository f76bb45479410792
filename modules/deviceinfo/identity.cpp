// Build and identity: software version, serial number, checksums of the installed trees, the
// panel's production time, the display bridge's recovery mode.

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/properties.h"
#include "core/unique.h"
#include "display/lcd.h"
#include "modules/deviceinfo/deviceinfo.h"

static const char kPcbVersionNode[] = "/sys/devices/system/soc/soc0/hw_pcb_version";
static const char kSerialNumberNode[] = "/sys/devices/soc0/serial_number_dummy";
static const char kPanelNumberNode[] = "/sys/kernel/norva_display/panel_serial_number";
static const char kIrisNode[] = "/sys/kernel/tarn_display/iris_rm_check";

// ---- Software version
// ----------------------------------------------------------------------------

static char report[1024];

struct ReportLine {
  const char* format;
  const char* property;  // null: the board version's node
};

static const ReportLine kReportLines[] = {
    {"Model: %s\n", "ro.product.model"},
    {"Android Version: %s\n", "ro.build.version.release"},
    {"Kernel: %s\n", "ro.build.kernel.id"},
    {"Version: %s\n", "ro.build.display.id"},
    {"Branch: %s\n", "ro.product.model"},  // the model once more, on purpose
    {"Branch Version: %s\n", "ro.xxversion"},
    {"PCB Number: %s\n", nullptr},
    {"Build Time: %s\n", "ro.build.date.YmdHM"},
    {"OTA version: %s\n", "ro.build.version.ota"},
};

// The node's text is taken raw: a line feed that it gives stays in the report.
static void read_pcb_version(char (&value)[PROP_VALUE_MAX + 1]) {
  const UniqueFd fd(open(kPcbVersionNode, O_RDONLY));
  if (!fd.ok() || read(fd.get(), value, PROP_VALUE_MAX) < 0) {
    value[0] = '\0';
  }
}

int at_software_version(const char*) {
  memset(report, 0, sizeof(report));
  FTM_LOGD(TAG "%s\n", __func__);
  size_t used = 0;
  for (const ReportLine& line : kReportLines) {
    char value[PROP_VALUE_MAX + 1] = {};
    if (line.property == nullptr) {
      read_pcb_version(value);
    } else {
      property_get(line.property, value, "NULL");
    }
    used += static_cast<size_t>(
        bounded_format(report + used, sizeof(report) - used, line.format, value));
  }
  at_send_result(report);
  at_send_result("OK\r\n");
  return 0;
}

// ---- Serial number
// -------------------------------------------------------------------------------

int at_serial_no(const char*) {
  static char reply[128];
  // Left open after the read, on purpose; the next command's takes its place, so that one stays.
  static UniqueFile stream;
  memset(reply, 0, sizeof(reply));
  stream.reset(fopen(kSerialNumberNode, "r"));
  if (stream != nullptr) {
    char text[16 + 1] = {};
    if (fread(text, 1, sizeof(text) - 1, stream.get()) == 0) {
      text[0] = '\0';
    }
    // Serial numbers use all 32 bits; sixteen digits always fit a long.
    bounded_format(reply, sizeof(reply), "SN: %x\n",
                   static_cast<uint32_t>(strtol(text, nullptr, 10)));
  } else {
    FTM_LOGE(TAG "failed read node, use property instead \n");
    char value[PROP_VALUE_MAX];
    property_get("ro.serialno", value, "NULL");
    bounded_format(reply, sizeof(reply), "SN: %s\n", value);
  }
  // The reverse order of the software version's, which the station counts on.
  at_send_result("OK\r\n");
  at_send_result(reply);
  return 0;
}

// ---- Checksums of the system and vendor trees
// ----------------------------------------------------

#define MD5_FOLDER "/persist/ftm_admin/tmp"

static const char kReferenceArchive[] = "/system/sysmd5.zip";
static const char kCurrentFile[] = MD5_FOLDER "/md5_cur.txt";
static const char kDifferenceFile[] = MD5_FOLDER "/md5_diff.txt";
static const char kBuildTime[] = "`cat system/build.prop  | $XKIT grep utc| $XKIT cut -b  19-`";

// The checksum of the sorted checksums of every file of a tree. The double blanks are part of it.
#define TREE_CHECKSUM(tree)                                                                       \
  "`$XKIT find " tree                                                                             \
  " -type f | sed 's/system_root//g'| $XKIT grep -Ev "                                            \
  "'ck.fs|pl.fs|sysmd5.zip|sd_after|install-recovery.sh|install_recovery.sh|recovery-from-boot.p" \
  "|recovery_rootcheck|vendor/nvdata|vendor/nvcfg|vendor/persist|vendor/protect' | $XKIT sort "   \
  "| $XKIT xargs $XKIT md5sum | $XKIT md5sum | $XKIT cut -b  -32`"

struct Tree {
  const char* checksum;
  const char* reference;
  const char* failure;  // reply, without a line end on purpose
};

static const Tree kTrees[] = {
    {TREE_CHECKSUM("system/"), MD5_FOLDER "/deep_sys_md5.txt", "SYSTEM FAIL"},
    {TREE_CHECKSUM("vendor/"), MD5_FOLDER "/deep_vendor_md5.txt", "VENDOR FAIL"},
};

// Runs a shell command built by a printf format. What it says does not matter, only what it leaves.
#define RUN_SHELL(...)                                     \
  do {                                                     \
    char command[1000] = {};                               \
    bounded_format(command, sizeof(command), __VA_ARGS__); \
    [[maybe_unused]] const int status = system(command);   \
  } while (false)

static bool matches_reference(const Tree& tree) {
  RUN_SHELL("echo \"%s,%s\" > %s", kBuildTime, tree.checksum, kCurrentFile);
  RUN_SHELL("diff -q %s %s > %s", kCurrentFile, tree.reference, kDifferenceFile);
  const UniqueFd difference(open(kDifferenceFile, O_RDONLY));
  struct stat status = {};
  return difference.ok() && fstat(difference.get(), &status) == 0 && status.st_size == 0;
}

int at_sys_vendor_md5(const char*) {
  RUN_SHELL("mkdir /persist/ftm_admin/tmp");
  RUN_SHELL("$XKIT unzip -qo %s -d /persist/ftm_admin/tmp", kReferenceArchive);
  const char* result = "OK\r\n";
  for (const Tree& tree : kTrees) {
    if (!matches_reference(tree)) {
      result = tree.failure;
      break;
    }
  }
  at_send_result(result);
  RUN_SHELL("rm -rf /persist/ftm_admin/tmp");
  return 0;
}

// ---- Panel and bridge
// ----------------------------------------------------------------------------

// Keeps the panel lit for as long as it lives, and closes it only where it has opened it itself.
class LitPanel {
 public:
  LitPanel() : opened_here_(display_on == 0) {
    if (opened_here_) {
      ftm_open_lcd();
      display_on = 1;
    }
  }
  ~LitPanel() {
    if (opened_here_) {
      ftm_close_lcd();
      display_on = 0;
    }
  }
  LitPanel(const LitPanel&) = delete;
  LitPanel& operator=(const LitPanel&) = delete;

 private:
  const bool opened_here_;
};

// The hexadecimal number behind the node's first colon, or 0.
static uint64_t read_panel_number() {
  const LitPanel panel;
  char text[129] = {};
  if (file_read_string(kPanelNumberNode, text, sizeof(text) - 1) < 1) {
    return 0;
  }
  const char* colon = strchr(text, ':');
  return colon == nullptr ? 0 : strtoull(colon + 1, nullptr, 16);
}

static unsigned long bits(uint64_t number, int first, int count) {
  return static_cast<unsigned long>(number >> first & ((1U << count) - 1));
}

int at_get_lcd_sn_check(const char*) {
  const uint64_t number = read_panel_number();
  FTM_LOGD(TAG "%s, 0x%lx\n", __func__, static_cast<unsigned long>(number));
  if (number == 0) {
    at_send_result("ERROR\n");
    FTM_LOGE(TAG "not find panel sn\n");
    return 0;
  }
  constexpr unsigned long kFirstYear = 2011;
  char time[32];
  bounded_format(time, sizeof(time), "%04lu%02lu%02lu%02lu%02lu%02lu",
                 bits(number, 56, 4) + kFirstYear, bits(number, 48, 4), bits(number, 40, 5),
                 bits(number, 32, 5), bits(number, 24, 6), bits(number, 16, 6));
  at_send_result("OK\r\n");
  at_send_result(" LCD SN CHECK:");
  at_send_result(time);
  return 0;
}

int at_iris_recovery_mode_check(const char*) {
  const LitPanel panel;  // closed after the reply, where it was opened here
  char text[4 + 1] = {};
  file_read_string(kIrisNode, text, sizeof(text) - 1);
  at_send_result(text_to_int(text) != 0 ? "ERROR\n" : "OK\r\n");
  return 0;
}
