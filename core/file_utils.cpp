// The node helpers; see file_utils.h.

#include "core/file_utils.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "core/bounded.h"
#include "core/log.h"
#include "core/unique.h"

#define TAG "[FTM-UTILS]"

static UniqueFd open_for_write(const char* path) {
  UniqueFd fd(open(path, O_RDWR | O_CLOEXEC));
  if (!fd.ok()) {
    FTM_LOGE(TAG "fail to open file %s\n", path);
  }
  return fd;
}

static int write_result(const char* path, ssize_t written) {
  if (written < 1) {
    FTM_LOGE(TAG "fail to write file %s\n", path);
    return kFileWriteFailed;
  }
  return static_cast<int>(written);
}

int file_write_int(const char* path, uint32_t value) {
  if (path == nullptr) {
    return kFileNoPath;
  }
  const UniqueFd fd = open_for_write(path);
  if (!fd.ok()) {
    return kFileCannotOpen;
  }
  char text[20] = {};
  const int length = bounded_format(text, sizeof(text), "%d\n", static_cast<int32_t>(value));
  return write_result(path, write(fd.get(), text, static_cast<size_t>(length)));
}

int file_write_string(const char* path, const char* text) {
  if (path == nullptr || text == nullptr) {
    return kFileNoPath;
  }
  const UniqueFd fd = open_for_write(path);
  if (!fd.ok()) {
    return kFileCannotOpen;
  }
  const ssize_t written = write(fd.get(), text, strlen(text));
  // Every node logs as a backlight: the text is kept as it stands.
  FTM_LOGE(TAG " file_write_string backlight value is %s\n", text);
  return write_result(path, written);
}

int file_read_string(const char* path, char* buffer, int count) {
  if (path == nullptr) {
    return kFileNoPath;
  }
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) {
    return kFileCannotOpen;
  }
  const int result = static_cast<int>(read(fd.get(), buffer, static_cast<size_t>(count)));
  if (result < 1) {
    FTM_LOGE(TAG "fail to read file %s\n", path);
  }
  return result;
}

Existence exists(const char* path) {
  if (access(path, F_OK) == 0) {
    return Existence::kThere;
  }
  return errno == ENOENT || errno == ENOTDIR ? Existence::kNotThere : Existence::kUnknown;
}

int parse_int(const char* text) {
  return static_cast<int>(std::clamp<long>(strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

int node_number(const char* path, int count) {
  char text[128 + 1] = {};
  file_read_string(path, text, std::min<int>(count, sizeof(text) - 1));
  return parse_int(text);
}
