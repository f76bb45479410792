// The Android log as every file here writes it: no tag of its own (the library's default tag
// stands), the bracketed module tag is the start of the text. Callable from any thread.

#pragma once

#include <android/log.h>

#define FTM_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, nullptr, __VA_ARGS__)
#define FTM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, nullptr, __VA_ARGS__)
#define FTM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)
