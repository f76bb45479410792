// The installed memory and the processor's top frequency.

#include <stdint.h>
#include <stdio.h>

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"
#include "modules/deviceinfo/deviceinfo.h"
#include "modules/deviceinfo/lines.h"

static const char kMeminfo[] = "/proc/meminfo";
static const char kCpuMaxFrequency[] = "/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq";

// kB. A missing file counts as 1 (kept as it stands), a file without the line as 0.
static int64_t get_mem_size() {
  const UniqueFile file(fopen(kMeminfo, "re"));
  if (file == nullptr) {
    return 1;
  }
  long size = 0;
  Lines lines(file.get());
  while (const char* line = lines.next()) {
    if (begins_with(line, "MemTotal:")) {
      scan_number(line, "MemTotal:", &size);
      break;
    }
  }
  return size;
}

int at_get_mem_size(const char*) {
  const int64_t size = get_mem_size();
  FTM_LOGD(TAG "%s\n", __func__);
  send_number(" MEMSIZE:", size);
  return 0;
}

int at_get_cpu_freq(const char*) {
  const int frequency = node_number(kCpuMaxFrequency);  // kHz
  FTM_LOGD(TAG "%s\n", __func__);
  send_number(" CPUINFO:", frequency);
  return 0;
}
