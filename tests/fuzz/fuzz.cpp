// The fuzzers' common parts; see fuzz.h.

#include "tests/fuzz/fuzz.h"

#include <android/log.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>

#include "core/reply.h"

void expect(bool holds, const char* what, std::string_view seen) {
  if (!holds) {
    fprintf(stderr, "wrong: %s\n%.*s\n", what, static_cast<int>(seen.size()), seen.data());
    abort();
  }
}

// A socket that keeps each reply apart.
static int station() {
  static const int end = [] {
    int ends[2];
    expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) == 0, "no socket");
    const int room = 1 << 20;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    reply_set_port(ends[0]);
    return ends[1];
  }();
  return end;
}

std::string take_replies() {
  std::string replies;
  char reply[8192];
  for (ssize_t size = 0; (size = recv(station(), reply, sizeof(reply), 0)) >= 0;) {
    replies.append(reply, static_cast<size_t>(size)) += '\1';
  }
  return replies;
}

// Before the first case: the line is there, and the log is silent.
__attribute__((constructor)) static void begin() {
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  station();
}
