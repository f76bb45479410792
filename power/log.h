// The suspend engine's log lines, under a tag of their own.

#pragma once

#include <android/log.h>
#include <errno.h>
#include <string.h>

#define SUSPEND_LOGV(...) __android_log_print(ANDROID_LOG_VERBOSE, "libsuspend", __VA_ARGS__)
#define SUSPEND_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "libsuspend", __VA_ARGS__)
// With the text of errno behind it.
#define SUSPEND_PLOGE(format, ...) \
  SUSPEND_LOGE(format ": %s" __VA_OPT__(, ) __VA_ARGS__, strerror(errno))
