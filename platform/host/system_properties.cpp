// System properties over files; see sys/system_properties.h.

#include "platform/host/sys/system_properties.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char kDirectory[] = "/dev/__properties__";

static bool make_path(const char* name, char (&path)[512]) {
  if (name == nullptr || name[0] == '\0' || name[0] == '.' || strchr(name, '/') != nullptr) {
    return false;
  }
  const int length = snprintf(path, sizeof(path), "%s/%s", kDirectory, name);
  return length > 0 && static_cast<size_t>(length) < sizeof(path);
}

int __system_property_get(const char* name, char* value) {
  value[0] = '\0';
  char path[512];
  if (!make_path(name, path)) {
    return 0;
  }
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return 0;
  }
  const ssize_t length = read(fd, value, PROP_VALUE_MAX - 1);
  close(fd);
  value[length < 0 ? 0 : length] = '\0';
  return static_cast<int>(strlen(value));
}

int __system_property_set(const char* name, const char* value) {
  char path[512];
  if (value == nullptr || strlen(value) >= PROP_VALUE_MAX || !make_path(name, path)) {
    return -1;
  }
  // Written aside and renamed. The leading dot keeps it from being taken for a property.
  char temporary[] = "/dev/__properties__/.XXXXXX";
  const int fd = mkostemp(temporary, O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  const auto length = static_cast<ssize_t>(strlen(value));
  const bool written = fchmod(fd, 0644) == 0 && write(fd, value, strlen(value)) == length;
  if (close(fd) != 0 || !written || rename(temporary, path) != 0) {
    unlink(temporary);
    return -1;
  }
  return 0;
}
