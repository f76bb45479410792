// What a test module needs of the core: its command rows, its replies and its registration.

#pragma once

#include <stddef.h>

#include "core/log.h"
#include "core/module_order.h"
#include "core/registry.h"
#include "core/reply.h"

// Appends a module's rows to the command table, in their order.
template <size_t kCount>
void at_register_rows(AtCommand (&rows)[kCount]) {
  for (AtCommand& row : rows) {
    at_register(&row);
  }
}

// A function that runs before main, in the order of its priority.
#define FTM_CONSTRUCTOR(priority) __attribute__((constructor(priority))) static void

// Registers at_NAME_init and at_NAME_exit at a level 0 to 6 before main runs. Stands once in the
// module's file, below the two functions.
#define FTM_MODULE(name, level, tag) FTM_MODULE_WITH_EXIT(name, level, tag, at_##name##_exit)

// The same for the modules whose init function is registered a second time as their exit function.
#define FTM_MODULE_EXIT_IS_INIT(name, level, tag) \
  FTM_MODULE_WITH_EXIT(name, level, tag, at_##name##_init)

// The same with the two functions, for a module that has nothing but rows.
#define FTM_PLAIN_MODULE(name, level, tag, rows) \
  static void at_##name##_init() {               \
    FTM_LOGD(tag "%s start\n", __func__);        \
    at_register_rows(rows);                      \
    FTM_LOGD(tag "%s end\n", __func__);          \
  }                                              \
  static void at_##name##_exit() {               \
    FTM_LOGD(tag "%s start\n", __func__);        \
    FTM_LOGD(tag "%s end\n", __func__);          \
  }                                              \
  FTM_MODULE(name, level, tag)

#define FTM_MODULE_WITH_EXIT(name, level, tag, exit_function)                           \
  static_assert((level) < kModuleLevels, "a module's level is 0 to 6");                 \
  FTM_CONSTRUCTOR(FTM_LOAD_PRIORITY(name)) register_at_module_at_##name##_init() {      \
    FTM_LOGD(tag "%s : level = %d start \n", __func__, level);                          \
    at_module_init_register(at_##name##_init, level);                                   \
    FTM_LOGD(tag "%s : level = %d end\n", __func__, level);                             \
  }                                                                                     \
  FTM_CONSTRUCTOR(FTM_LOAD_PRIORITY(name) + 1) unregister_at_module_##exit_function() { \
    FTM_LOGD(tag "%s : level = %d start \n", __func__, level);                          \
    at_module_exit_register(exit_function, level);                                      \
    FTM_LOGD(tag "%s : level = %d end\n", __func__, level);                             \
  }
