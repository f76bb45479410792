// The desk's log library keeps debug lines back unless told otherwise; the phone's does not. Runs
// before the test modules' constructors, which log already.

#include <android/log.h>

__attribute__((constructor(150))) static void log_everything() {
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}
