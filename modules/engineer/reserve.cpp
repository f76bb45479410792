// Access to the reserve partition; see reserve.h. The log keeps errno, and so does closing a
// descriptor that is open.

#include "modules/engineer/reserve.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/log.h"
#include "core/unique.h"

static const char kTarnPartition[] = "/dev/block/by-name/tarnreserve1";
static const char kNorvaPartition[] = "/dev/block/by-name/norvareserve1";

// Relative: the daemon works in the root. Anywhere else every record has its eMMC offset.
static const char kUfsDevice[] = "dev/block/sda";

const char* reserve_partition() {
  return access(kTarnPartition, F_OK) == 0 ? kTarnPartition : kNorvaPartition;
}

uint32_t record_offset(const ReserveRecord& record) {
  return access(kUfsDevice, F_OK) == 0 ? record.ufs : record.emmc;
}

int readInterface(const char* path, uint32_t offset, void* destination, size_t length) {
  const UniqueFd fd(open(path, O_RDONLY));
  if (!fd.ok()) {
    FTM_LOGD("open %s failed! err:%s", path, strerror(errno));
    return -1;
  }
  if (lseek(fd.get(), offset, SEEK_SET) < 0) {
    // Called a failed read, unlike in writeInterface: the text is kept as it stands.
    FTM_LOGD("read failed! size:%d", -1);
    return -1;
  }
  const ssize_t count = read(fd.get(), destination, length);
  if (count < 0) {
    FTM_LOGD("read no content! size:%d", -1);
    return -1;
  }
  return static_cast<int>(count);
}

int writeInterface(const char* path, uint32_t offset, const void* source, size_t length) {
  const UniqueFd fd(open(path, O_WRONLY));
  if (!fd.ok()) {
    FTM_LOGD("open %s failed! err:%s", path, strerror(errno));
    return -1;
  }
  if (lseek(fd.get(), offset, SEEK_SET) < 0) {
    FTM_LOGD("lseek failed! size:%d", -1);
    return -1;
  }
  const ssize_t count = write(fd.get(), source, length);
  if (count < 0) {
    FTM_LOGD("write failed! size:%d", -1);
    return -1;
  }
  FTM_LOGD("write %d bytes", static_cast<int>(count));
  fsync(fd.get());
  return static_cast<int>(count);
}

int read_record(const ReserveRecord& record, void* memory) {
  return readInterface(reserve_partition(), record_offset(record), memory, record.size);
}

int write_record(const ReserveRecord& record, const void* memory) {
  return writeInterface(reserve_partition(), record_offset(record), memory, record.size);
}
