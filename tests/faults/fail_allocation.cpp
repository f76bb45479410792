// A library that is loaded into the daemon before all others: it counts the allocations, those of
// the other libraries among them, and lets one fail, as allocation_order.h says.

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/faults/allocation_order.h"

static AllocationOrder* order = nullptr;

__attribute__((constructor)) static void read_order() {
  unsetenv("LD_PRELOAD");  // the programs that the daemon starts are not meant
  void* first[1];
  backtrace(first, 1);  // loads what it needs, which allocates
  const int fd = open(kAllocationOrder, O_RDWR | O_CLOEXEC);
  void* mapped = mmap(nullptr, sizeof(AllocationOrder), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  order = mapped == MAP_FAILED ? nullptr : static_cast<AllocationOrder*>(mapped);
}

static void note_where() {
  void* frames[40];
  const int count = backtrace(frames, 40);
  size_t length = 0;
  for (int i = 2; i < count && length + 100 < sizeof(order->where);
       ++i) {  // behind this file's own
    Dl_info info;
    if (dladdr(frames[i], &info) != 0 && info.dli_fname != nullptr) {
      const char* slash = strrchr(info.dli_fname, '/');
      length += static_cast<size_t>(snprintf(
          order->where + length, 100, "%.60s+0x%zx ", slash == nullptr ? info.dli_fname : slash + 1,
          static_cast<size_t>(static_cast<char*>(frames[i]) - static_cast<char*>(info.dli_fbase))));
    }
  }
}

static bool fails() {
  if (order == nullptr || !order->counts) {
    return false;
  }
  const long number = ++order->count;
  if (number == order->fails) {
    note_where();
    order->failed = true;
  } else if (!order->for_good || number < order->fails) {
    return false;
  }
  errno = ENOMEM;
  return true;
}

// In place of the C library's, which "new" uses, too.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
  return fails() ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  return fails() ? nullptr : __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
  return fails() ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
  void* made = fails() ? nullptr : __libc_memalign(alignment, size);
  *memory = made == nullptr ? *memory : made;
  return made == nullptr ? ENOMEM : 0;
}
}
