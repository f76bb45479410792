// The replies' way to the line; see reply.h.

#include "core/reply.h"

#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "core/bounded.h"
#include "core/log.h"

#define TAG "[FTM-AT]"

static constexpr size_t kReplyBuffer = 8192;

static std::atomic<int> serial_port_fd{-1};

void reply_set_port(int fd) {
  serial_port_fd = fd;
}

int reply_port() {
  return serial_port_fd;
}

int at_send_result(const char* text) {
  // Module threads reply too (the key test's listener): one reply at a time.
  static std::mutex mutex;
  static char reply[kReplyBuffer];
  const std::lock_guard<std::mutex> lock(mutex);

  memset(reply, 0, sizeof(reply));
  if (text == nullptr) {
    return 0;
  }
  FTM_LOGD(TAG "%s : result is : %s\n", __func__, text);
  const auto length = static_cast<size_t>(bounded_format(reply, sizeof(reply), "%s", text));
  const int fd = serial_port_fd;
  FTM_LOGD(TAG "%s : serial_port_fd is : %d\n", __func__, fd);
  if (fd < 0) {
    return 0;
  }
  if (write(fd, reply, length) != static_cast<ssize_t>(length)) {
    return 0;
  }
  FTM_LOGD(TAG "%s : send_result successful\n", __func__);
  return 1;
}

char* strupr(char* text) {
  for (char* c = text; *c != '\0'; ++c) {
    if (*c >= 'a' && *c <= 'z') {
      *c = static_cast<char>(*c - 0x20);
    }
  }
  return text;
}
