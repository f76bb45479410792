// A module of the tests: lets allocations of the daemon fail, those inside its libraries among
// them. AT^WITH_ARGS_MEMORY:N is for the Nth from now, AT^WITH_ARGS_MEMORY:-N for that and all that
// follow; the reply is how many the last one would still have let pass. Takes the place of one real
// module.

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>

#include <atomic>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"

static std::atomic<long> left{0};  // until one fails, itself among them; 0 and below: it is past
static std::atomic<bool> for_good{false};

// In place of the C library's, which "new" and all libraries use.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

static bool fails() {
  const long before = left--;
  const bool failed = before == 1 || (before < 1 && for_good);
  errno = failed ? ENOMEM : errno;
  return failed;
}

void* malloc(size_t size) {
  return fails() ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  return fails() ? nullptr : __libc_realloc(memory, size);
}
}

static int let_fail(const char* argument) {
  const int number = parse_int(argument);
  char text[32];
  bounded_format(text, sizeof(text), "%ld", left.load());
  for_good = number < 0;
  left = labs(number);
  at_send_result(text);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "memory", .command = "AT^WITH_ARGS_MEMORY", .handler = let_fail},
};

FTM_PLAIN_MODULE(gps, 4, "[FTM-PROBE]", rows)
