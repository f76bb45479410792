// Serial line, command loop, command matching and replies; see serial.h and at.h.

#include "core/serial.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "core/at.h"
#include "core/bounded.h"

#define TAG "[FTM-AT]"

static const char kSerialPort[] = "/dev/ttyMSM0";
static const char kArgumentLine[] = "AT^WITH_ARGS";
static constexpr size_t kMaxCommand = 576;
static constexpr size_t kReplyBuffer = 8192;

static std::atomic<int> serial_port_fd{-1};

int at_open_port() {
  FTM_LOGD(TAG "%s\n", __func__);
  // Open for the life of the process: the port is never closed.
  const int fd = open(kSerialPort, O_RDWR);
  if (fd < 0) {
    FTM_LOGE(TAG "at_open_port fail\n");
    return -1;
  }
  fcntl(fd, F_SETFL, 0);
  serial_port_fd = fd;
  FTM_LOGD(TAG "%s, serial_port_fd : %d\n", __func__, fd);
  return fd;
}

void at_forget_port() {
  serial_port_fd = -1;
}

int ftm_at_create_thread(pthread_t* thread) {
  return pthread_create(
      thread, nullptr, [](void*) -> void* { at_command_thread(); }, nullptr);
}

void at_command_thread() {
  char line[kMaxCommand + 1];
  FTM_LOGD(TAG "%s\n", __func__);
  for (;;) {
    memset(line, 0, sizeof(line));
    // No pause and no log line on a failed read, on purpose: a line that comes back is served at
    // once, and one that never opened must not fill the log.
    if (read(serial_port_fd, line, kMaxCommand) < 1) {
      continue;
    }
    line[kMaxCommand] = '\0';
    FTM_LOGD(TAG "%s, buf : %s\n", __func__, line);
    strupr(line);
    at_parse(line);
    FTM_LOGD(TAG "%s, upr : %s\n", __func__, line);
  }
}

int at_parse(const char* line) {
  const bool argument_line = strncmp(line, kArgumentLine, strlen(kArgumentLine)) == 0;
  const char* colon = strchr(line, ':');
  for (AtCommand* row = at_command_table.next; row != &at_command_table; row = row->next) {
    if (strncmp(line, row->command, strlen(row->command)) != 0) {
      continue;
    }
    if (!argument_line) {
      row->handler(nullptr);
      return 0;
    }
    if (colon != nullptr) {
      row->handler(colon + 1);
      return 0;
    }
  }
  at_send_result("UNDEFINED COMMAND\n");
  return 0;
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
