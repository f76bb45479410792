// Formatting into the daemon's fixed buffers where an overflow is a fatal error: a cut record or
// reply would look valid to the station, so the process ends instead.

#pragma once

#include <stddef.h>

// Formats into buffer (size bytes, terminator included) and returns the length written. Aborts the
// process when the text with its terminator does not fit. Callable from any thread.
int bounded_format(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Copies count bytes into destination (size bytes). Aborts the process when they do not fit.
void bounded_copy(void* destination, size_t size, const void* source, size_t count);
