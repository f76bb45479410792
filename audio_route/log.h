// The engine's log lines, under a tag of their own.

#pragma once

#include <android/log.h>

#define ROUTE_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "audio_route", __VA_ARGS__)
#define ROUTE_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, "audio_route", __VA_ARGS__)
