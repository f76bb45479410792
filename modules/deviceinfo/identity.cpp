// Build and identity: software version, serial number, checksums of the installed trees.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/at.h"
#include "core/bounded.h"
#include "core/log.h"
#include "core/properties.h"
#include "core/shared_files.h"
#include "core/unique.h"
#include "modules/deviceinfo/deviceinfo.h"

static const char kPcbVersionNode[] = "/sys/devices/system/soc/soc0/hw_pcb_version";
static const char kSerialNumberNode[] = "/sys/devices/soc0/serial_number_dummy";

// ---- Software version

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
    {"Branch: %s\n", "ro.product.model"},  // the model once more
    {"Branch Version: %s\n", "ro.xxversion"},
    {"PCB Number: %s\n", nullptr},
    {"Build Time: %s\n", "ro.build.date.YmdHM"},
    {"OTA version: %s\n", "ro.build.version.ota"},
};

// The node's text is taken raw: a line feed that it gives stays in the report.
static void read_pcb_version(char (&value)[PROP_VALUE_MAX + 1]) {
  const UniqueFd fd(open(kPcbVersionNode, O_RDONLY | O_CLOEXEC));
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

int at_serial_no(const char*) {
  static char reply[128];
  // Left open after the read; the next command's takes its place, so that one stays.
  static UniqueFile stream;
  memset(reply, 0, sizeof(reply));
  stream.reset(fopen(kSerialNumberNode, "re"));
  if (stream != nullptr) {
    char text[16 + 1] = {};
    if (fread(text, 1, sizeof(text) - 1, stream.get()) == 0) {
      text[0] = '\0';
    }
    // Only digits count, and serial numbers use all 32 bits.
    uint32_t number = 0;
    for (const char* digit = text; *digit >= '0' && *digit <= '9'; ++digit) {
      number = number * 10 + static_cast<uint32_t>(*digit - '0');
    }
    bounded_format(reply, sizeof(reply), "SN: %x\n", number);
  } else {
    FTM_LOGE(TAG "failed read node, use property instead \n");
    char value[PROP_VALUE_MAX];
    property_get("ro.serialno", value, "NULL");
    bounded_format(reply, sizeof(reply), "SN: %s\n", value);
  }
  // The reverse order of the software version's: kept as it stands.
  at_send_result("OK\r\n");
  at_send_result(reply);
  return 0;
}

// ---- Checksums of the system and vendor trees

static const char kReferenceArchive[] = "/system/sysmd5.zip";
static const char kWorkingFolder[] = "/persist/ftm_admin/tmp";
static const char kCurrentFile[] = "/persist/ftm_admin/tmp/md5_cur.txt";
static const char kDifferenceFile[] = "/persist/ftm_admin/tmp/md5_diff.txt";
static const char kBuildTime[] = "`cat system/build.prop  | $XKIT grep utc| $XKIT cut -b  19-`";

// The checksum of the sorted checksums of every file of a tree. The double blanks are part of it.
static const char kSystemChecksum[] =
    "`$XKIT find system/ -type f | sed 's/system_root//g'| $XKIT grep -Ev "
    "'ck.fs|pl.fs|sysmd5.zip|sd_after|install-recovery.sh|install_recovery.sh|recovery-from-boot.p"
    "|recovery_rootcheck|vendor/nvdata|vendor/nvcfg|vendor/persist|vendor/protect' | $XKIT sort "
    "| $XKIT xargs $XKIT md5sum | $XKIT md5sum | $XKIT cut -b  -32`";
static const char kVendorChecksum[] =
    "`$XKIT find vendor/ -type f | sed 's/system_root//g'| $XKIT grep -Ev "
    "'ck.fs|pl.fs|sysmd5.zip|sd_after|install-recovery.sh|install_recovery.sh|recovery-from-boot.p"
    "|recovery_rootcheck|vendor/nvdata|vendor/nvcfg|vendor/persist|vendor/protect' | $XKIT sort "
    "| $XKIT xargs $XKIT md5sum | $XKIT md5sum | $XKIT cut -b  -32`";

struct Tree {
  const char* checksum;
  const char* reference;
  const char* failure;  // reply, without a line end
};

static const Tree kTrees[] = {
    {kSystemChecksum, "/persist/ftm_admin/tmp/deep_sys_md5.txt", "SYSTEM FAIL"},
    {kVendorChecksum, "/persist/ftm_admin/tmp/deep_vendor_md5.txt", "VENDOR FAIL"},
};

static constexpr size_t kCommandSize = 1000;

// What a shell command says does not matter, only what it leaves.
static void run_shell(const char* command) {
  [[maybe_unused]] const int status = system(command);
}

static bool matches_reference(const Tree& tree) {
  char command[kCommandSize] = {};
  bounded_format(command, sizeof(command), "echo \"%s,%s\" > %s", kBuildTime, tree.checksum,
                 kCurrentFile);
  run_shell(command);
  bounded_format(command, sizeof(command), "diff -q %s %s > %s", kCurrentFile, tree.reference,
                 kDifferenceFile);
  run_shell(command);
  const UniqueFd difference = open_regular(kDifferenceFile, O_RDONLY);
  struct stat status = {};
  return difference.ok() && fstat(difference.get(), &status) == 0 && status.st_size == 0;
}

static bool is_regular(DIR* folder, const dirent& entry) {
  struct stat status = {};
  return fstatat(dirfd(folder), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISREG(status.st_mode);
}

// Whether something in the working folder's place, or in it, would take the shell's output
// elsewhere or hold it up.
static bool is_working_folder_foul() {
  const UniqueDir folder = open_folder(kWorkingFolder);
  if (folder == nullptr) {
    return errno != ENOENT;
  }
  while (const dirent* entry = readdir(folder.get())) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
        !is_regular(folder.get(), *entry)) {
      return true;
    }
  }
  return false;
}

// The reply: OK, or the failure of the first tree that differs.
static const char* compare_trees() {
  if (is_working_folder_foul()) {
    return kTrees[0].failure;
  }
  char command[kCommandSize] = {};
  bounded_format(command, sizeof(command), "$XKIT unzip -qo %s -d /persist/ftm_admin/tmp",
                 kReferenceArchive);
  run_shell(command);
  for (const Tree& tree : kTrees) {
    if (!matches_reference(tree)) {
      return tree.failure;
    }
  }
  return "OK\r\n";
}

int at_sys_vendor_md5(const char*) {
  run_shell("mkdir /persist/ftm_admin/tmp");
  at_send_result(compare_trees());
  run_shell("rm -rf /persist/ftm_admin/tmp");
  return 0;
}
