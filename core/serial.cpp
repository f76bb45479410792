// Serial line, command loop and command matching; see serial.h.

#include "core/serial.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/log.h"
#include "core/registry.h"
#include "core/reply.h"

#define TAG "[FTM-AT]"

static const char kSerialPort[] = "/dev/ttyMSM0";
static const char kArgumentLine[] = "AT^WITH_ARGS";
static constexpr size_t kMaxCommand = 576;

int at_open_port() {
  FTM_LOGD(TAG "%s\n", __func__);
  // Open for the life of the process: the port is never closed.
  const int fd = open(kSerialPort, O_RDWR);
  if (fd < 0) {
    FTM_LOGE(TAG "at_open_port fail\n");
    return -1;
  }
  fcntl(fd, F_SETFL, 0);
  fcntl(fd, F_SETFD, FD_CLOEXEC);  // no program that a module starts may hold the line
  reply_set_port(fd);
  FTM_LOGD(TAG "%s, serial_port_fd : %d\n", __func__, fd);
  return fd;
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
    // Deliberately no pause and no log line on a failed read: a line that never opened makes
    // this loop spin.
    if (read(reply_port(), line, kMaxCommand) < 1) {
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
