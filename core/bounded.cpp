// The two bounded writers; see bounded.h.

#include "core/bounded.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/log.h"

int bounded_format(char* buffer, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(buffer, size, format, args);
  va_end(args);
  if (length < 0 || static_cast<size_t>(length) >= size) {
    FTM_LOGE("[FTM-UTILS]a text of %d bytes does not fit into %zu\n", length, size);
    abort();
  }
  return length;
}

void bounded_copy(void* destination, size_t size, const void* source, size_t count) {
  if (count > size) {
    FTM_LOGE("[FTM-UTILS]a record of %zu bytes does not fit into %zu\n", count, size);
    abort();
  }
  memcpy(destination, source, count);
}
