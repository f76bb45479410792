// What is kept for whoever analyses a failed sleep: the power diagnostics before the first suspend,
// and again when the phone is awake after its alarm. Called by the suspend engine's front; every
// failure is logged and skipped.

#include "modules/sleep/sleep_info.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "core/log.h"
#include "core/unique.h"
#include "power/autosuspend.h"

#define TAG "[FTM-NODE-LOG]"

// One of the two snapshots.
struct Snapshot {
  const char* directory;
  const char* ipc_log;          // path in the IPC log folder of a given name
  android_LogPriority success;  // priority of the line about a new directory
  bool chmod_logged;
};

static const Snapshot kBeforeSleep = {
    .directory = "/mnt/vendor/norvareserve/ftm_admin/ftm_before_sleep_info",
    .ipc_log = "/d/ipc_logging/%s/log",
    .success = ANDROID_LOG_ERROR,
    .chmod_logged = true,
};
static const Snapshot kSleepFail = {
    .directory = "/mnt/vendor/norvareserve/ftm_admin/ftm_sleep_fail_info",
    .ipc_log = "/d/ipc_logging/%s/log_cont",
    .success = ANDROID_LOG_INFO,
    .chmod_logged = false,
};

struct PowerState {
  const char* node;
  const char* name;  // of the output file
};

static const PowerState kPowerStates[] = {
    {"/sys/power/soc_sleep/stats", "d-rpmh-stats"},
    {"/sys/power/rpmh_stats/master_stats", "d-rpmh-master_stats"},
    {"/proc/power/clk_enabled_list", "d-clk_enable_list"},
    {"/proc/wakeup_sources", "d-wakeup_sources"},
    {"/proc/gpio/gpio", "d-gpio"},
};

static const char kIpcLogging[] = "/d/ipc_logging/";
static const char* const kIpcPrefixes[] = {"adsp", "esoc-mdm", "cdsp", "qrtr_"};
static const char kQrtrLookup[] = "/vendor/bin/qrtr-lookup";

static const char kWakeAlarm[] = "/sys/class/rtc/rtc0/wakealarm";
static const char kAlarmTime[] = "+120";  // seconds from now

static constexpr mode_t kDirectoryMode = 0770;
static constexpr uid_t kRoot = 0;
static constexpr gid_t kSystem = 1000;
static constexpr int kDirectoryTries = 3;

static constexpr size_t kPathSize = 200;
static constexpr size_t kCommandSize = 512;

static bool readable(const char* path) {
  return access(path, R_OK) == 0;
}

static void make_directory(const Snapshot& snapshot, const char* function) {
  const char* directory = snapshot.directory;
  for (int i = 0; i < kDirectoryTries && !readable(directory); ++i) {
    if (mkdir(directory, kDirectoryMode) != 0) {
      FTM_LOGE("Wait for %s is ready", directory);
      sleep(1);
      continue;
    }
    __android_log_print(snapshot.success, nullptr,
                        "Log Directory created successfully, path is %s \n", directory);
    [[maybe_unused]] const int owned = chown(directory, kRoot, kSystem);
    if (chmod(directory, kDirectoryMode) != 0 && snapshot.chmod_logged) {
      FTM_LOGE(TAG "%s chomd_erro\n", function);  // spelled so: kept as it stands
    }
    return;
  }
}

static void exec_shell(const char* command) {
  const UniquePipe pipe(popen(command, "re"));
  if (pipe == nullptr) {
    FTM_LOGE(TAG "%s popen_return_null\n", __func__);
    return;
  }
  FTM_LOGI(": shell_cmd is %s \n", command);
}

// Starts the copy of what program prints into output; it runs on in the background.
static void start_copy(const char* program, const char* output) {
  char command[kCommandSize];
  snprintf(command, sizeof(command), "%s%s%s&", program, " > ", output);
  exec_shell(command);
}

static void start_file_copy(const char* source, const char* output) {
  char program[kPathSize + sizeof("cat ")];
  snprintf(program, sizeof(program), "cat %s", source);
  start_copy(program, output);
}

// A shell sees the name: one that it could take for anything but a part of a word is left out.
static bool is_plain_name(const char* name) {
  return name[strspn(name,
                     "abcdefghijklmnopqrstuvwxyz"
                     "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.:+=,@%")] == '\0';
}

static bool is_captured(const dirent& entry) {
  return entry.d_type == DT_DIR &&
         std::any_of(std::begin(kIpcPrefixes), std::end(kIpcPrefixes), [&](const char* prefix) {
           return strncmp(entry.d_name, prefix, strlen(prefix)) == 0;
         });
}

static void copy_ipc_logs(const Snapshot& snapshot) {
  const UniqueDir all(opendir(kIpcLogging));
  if (all == nullptr) {
    return;
  }
  while (const dirent* entry = readdir(all.get())) {
    if (!is_captured(*entry)) {
      continue;
    }
    char source[kPathSize];
    char output[kPathSize];
    const int source_length = snprintf(source, sizeof(source), snapshot.ipc_log, entry->d_name);
    const int output_length = snprintf(output, sizeof(output), "%s/ipc_logging_%s.txt",
                                       snapshot.directory, entry->d_name);
    if (!is_plain_name(entry->d_name) ||
        std::max(source_length, output_length) >= static_cast<int>(kPathSize)) {
      FTM_LOGE(TAG "%s skips %s\n", __func__, entry->d_name);
      continue;
    }
    start_file_copy(source, output);
  }
}

static void copy_power_states(const Snapshot& snapshot) {
  for (const PowerState& state : kPowerStates) {
    if (!readable(state.node)) {
      FTM_LOGE("power state: %s not exist\n", state.node);
      continue;
    }
    char output[kPathSize];
    snprintf(output, sizeof(output), "%s/%s.txt", snapshot.directory, state.name);
    start_file_copy(state.node, output);
  }
}

static void copy_everything(const Snapshot& snapshot) {
  copy_ipc_logs(snapshot);
  copy_power_states(snapshot);
  char output[kPathSize];
  snprintf(output, sizeof(output), "%s/qrtr-lookup.txt", snapshot.directory);
  start_copy(kQrtrLookup, output);
}

static UniqueFd open_alarm(int flags) {
  UniqueFd fd(open(kWakeAlarm, flags | O_CLOEXEC));
  if (!fd.ok()) {
    FTM_LOGE("fail to open file sys/class/rtc/rtc0/wakealarm\n");
  }
  return fd;
}

static bool arm_alarm() {
  const UniqueFd fd = open_alarm(O_RDWR);
  if (!fd.ok()) {
    return false;
  }
  FTM_LOGI("time_val is %s", kAlarmTime);
  // Without an alarm the node reads empty at once and the second snapshot is taken early.
  [[maybe_unused]] const ssize_t written = write(fd.get(), kAlarmTime, strlen(kAlarmTime));
  return true;
}

// False when the alarm cannot be asked for.
static bool wait_for_alarm(const char* function) {
  // A busy poll, on purpose: while the phone sleeps nothing polls, and the first read after the
  // alarm's wakeup ends it.
  for (;;) {
    const UniqueFd fd = open_alarm(O_RDONLY);
    if (!fd.ok()) {
      return false;
    }
    char value[64 + 1] = {};
    const ssize_t count = read(fd.get(), value, sizeof(value) - 1);
    if (count < 0) {
      FTM_LOGE("fail to read file sys/class/rtc/rtc0/wakealarm\n");
    }
    FTM_LOGI("%s,ret = %d,value = %s\n", function, static_cast<int>(count), value);
    if (count == 0) {
      return true;
    }
  }
}

void ftm_before_sleep_info_save() {
  make_directory(kBeforeSleep, __func__);
  copy_everything(kBeforeSleep);
}

void* ftm_sleep_fail_info_save_func(void*) {
  make_directory(kSleepFail, __func__);
  if (!arm_alarm() || !wait_for_alarm(__func__)) {
    return nullptr;
  }
  FTM_LOGI("ftm_sleep_info_save_func: device sleep fail, AP wakeup\n");
  autosuspend_disable();
  copy_everything(kSleepFail);
  return nullptr;
}
