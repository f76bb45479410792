// The desk's log: lines go to standard error in the log library's own layout, "ftmd D 11-24
// 11:13:33  3626  3631 text". The library's own writer asks for the process, the thread and the
// calendar again with each line; the station would wait for that in every reply. The library also
// keeps debug lines back unless told otherwise; the phone's does not.

#include <android/log.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

static void write_line(const __android_logger_data* data, const char* text) {
  static const pid_t process = getpid();
  static thread_local const pid_t thread = gettid();
  static thread_local time_t second = 0;
  static thread_local char date[32];
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (now.tv_sec != second) {
    second = now.tv_sec;
    tm local;
    localtime_r(&second, &local);
    strftime(date, sizeof(date), "%m-%d %H:%M:%S", &local);
  }
  char head[128];
  const int length = snprintf(head, sizeof(head), "%.40s %c %s %5d %5d ",
                              data->tag == nullptr ? program_invocation_short_name : data->tag,
                              "??VDIWEF"[data->priority & 7], date, process, thread);
  const iovec parts[] = {{head, static_cast<size_t>(length)},
                         {const_cast<char*>(text), strlen(text)},
                         {const_cast<char*>("\n"), 1}};
  // A log that takes no line does not stop the daemon.
  [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, 3);
}

// Runs before the test modules' constructors, which log already.
__attribute__((constructor(150))) static void log_everything() {
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger(write_line);
}
