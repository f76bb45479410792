// The module registry and the command table: circular doubly linked lists with a sentinel head
// each. Filled by constructors before main and by the modules' init functions on the main thread,
// before the command worker exists; read by the worker without a lock.

#pragma once

#include <stdint.h>

// A command's text, which no line matches that is folded to upper case unless the text is so, too.
struct CommandText {
  const char* text = nullptr;

  CommandText() = default;
  // A text with a small letter does not compile.
  consteval CommandText(const char* given) : text(given) {  // NOLINT(google-explicit-constructor)
    for (const char* c = given; *c != '\0'; ++c) {
      if (*c >= 'a' && *c <= 'z') {
        is_not_upper_case();
      }
    }
  }
  operator const char*() const {  // NOLINT(google-explicit-constructor)
    return text;
  }

 private:
  static void is_not_upper_case() {}
};

// One row of the command table: a static record of its module, linked by address, never freed.
struct AtCommand {
  AtCommand* next = nullptr;  // set by at_register
  AtCommand* prev = nullptr;
  const char* short_name = nullptr;                // label for the programmer, used by nothing
  CommandText command = {};                        // what a received line must begin with
  int (*handler)(const char* argument) = nullptr;  // argument or null; the result is ignored
};

// One registered init or exit function, allocated and freed by the registry.
struct AtModule {
  AtModule* next;
  AtModule* prev;
  void (*function)();
  uint32_t level;
};

constexpr uint32_t kModuleLevels = 7;

extern AtCommand at_command_table;            // sentinel head
extern AtModule at_init_list[kModuleLevels];  // sentinel heads, one per level
extern AtModule at_exit_list[kModuleLevels];

// Appends an init (exit) function at a level 0 to 6. Returns the new entry's address, or, when the
// level is out of range or memory is short, the log call's result: nothing is then registered.
intptr_t at_module_init_register(void (*function)(), uint32_t level);
intptr_t at_module_exit_register(void (*function)(), uint32_t level);

// Appends a row to the command table. The row must live as long as the process. A row that is
// appended once more, as some are at shut-down, leaves the table unfit to be walked.
void at_register(AtCommand* row);

// Runs every init function, level 0 first, in order of registration within a level.
void ftm_at_init();

// Silences replies, runs every exit function likewise, and frees the module registry. Rows stay.
void ftm_at_deinit();
