// What a test module needs of the core: its command rows, its replies and its registration.

#pragma once

#include "core/log.h"
#include "core/module_order.h"
#include "core/registry.h"

// Writes text to the serial line in one write call, exactly as it stands: nothing is added. Returns
// 1 when all of it was written, 0 otherwise (null text, no port, short write). The text must be
// shorter than 8192 bytes; a longer one aborts the process. Callable from any thread; replies do
// not mix.
int at_send_result(const char* text);

// Folds the bytes a to z of a terminated string to upper case in place and returns the same
// pointer.
char* strupr(char* text);

// Registers at_NAME_init and at_NAME_exit at a level 0 to 6 before main runs. Stands once in the
// module's file, below the two functions.
#define FTM_MODULE(name, level, tag) FTM_MODULE_WITH_EXIT(name, level, tag, at_##name##_exit)

// The same for the modules whose init function is registered a second time as their exit function.
#define FTM_MODULE_EXIT_IS_INIT(name, level, tag) \
  FTM_MODULE_WITH_EXIT(name, level, tag, at_##name##_init)

#define FTM_MODULE_WITH_EXIT(name, level, tag, exit_function)                                    \
  __attribute__((                                                                                \
      constructor(FTM_LOAD_PRIORITY(name)))) static void register_at_module_at_##name##_init() { \
    FTM_LOGD(tag "%s : level = %d start \n", __func__, level);                                   \
    at_module_init_register(at_##name##_init, level);                                            \
    FTM_LOGD(tag "%s : level = %d end\n", __func__, level);                                      \
  }                                                                                              \
  __attribute__((constructor(FTM_LOAD_PRIORITY(name) +                                           \
                             1))) static void unregister_at_module_##exit_function() {           \
    FTM_LOGD(tag "%s : level = %d start \n", __func__, level);                                   \
    at_module_exit_register(exit_function, level);                                               \
    FTM_LOGD(tag "%s : level = %d end\n", __func__, level);                                      \
  }
