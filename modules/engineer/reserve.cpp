// Access to the reserve partition; see reserve.h. The log keeps errno, and so does closing a
// descriptor that is open.

#include "modules/engineer/reserve.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/file_utils.h"
#include "core/log.h"
#include "core/shared_files.h"
#include "core/unique.h"

static const char kTarnPartition[] = "/dev/block/by-name/tarnreserve1";
static const char kNorvaPartition[] = "/dev/block/by-name/norvareserve1";

// Relative: the daemon works in the root. Anywhere else every record has its eMMC offset.
static const char kUfsDevice[] = "dev/block/sda";

static Existence look_for(const char* path) {
  const Existence there = exists(path);
  if (there == Existence::kUnknown) {
    FTM_LOGD("access %s failed! err:%s", path, strerror(errno));
  }
  return there;
}

bool find_record(const ReserveRecord& record, RecordPlace* place) {
  const Existence tarn = look_for(kTarnPartition);
  if (tarn == Existence::kUnknown) {
    return false;
  }
  const Existence ufs = look_for(kUfsDevice);
  if (ufs == Existence::kUnknown) {
    return false;
  }
  *place = {.partition = tarn == Existence::kThere ? kTarnPartition : kNorvaPartition,
            .offset = ufs == Existence::kThere ? record.ufs : record.emmc};
  return true;
}

// Of the file that was opened, or could not be.
static int read_opened(const UniqueFd& fd, const char* path, uint32_t offset, void* destination,
                       size_t length) {
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

int readInterface(const char* path, uint32_t offset, void* destination, size_t length) {
  return read_opened(UniqueFd(open(path, O_RDONLY | O_CLOEXEC)), path, offset, destination, length);
}

int read_shared_file(const char* path, void* destination, size_t length) {
  return read_opened(open_regular(path, O_RDONLY), path, 0, destination, length);
}

int writeInterface(const char* path, uint32_t offset, const void* source, size_t length) {
  const UniqueFd fd(open(path, O_WRONLY | O_CLOEXEC));
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
  RecordPlace place;
  return find_record(record, &place)
             ? readInterface(place.partition, place.offset, memory, record.size)
             : -1;
}

int write_record(const ReserveRecord& record, const void* memory) {
  RecordPlace place;
  return find_record(record, &place)
             ? writeInterface(place.partition, place.offset, memory, record.size)
             : -1;
}
