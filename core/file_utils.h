// Single-shot access to kernel nodes: open, one system call, close; and whether a file is there.
// Used by every module that reads or writes a node. No state, callable from any thread; nothing
// retries or waits.

#pragma once

#include <stddef.h>
#include <stdint.h>

enum FileResult : int {
  kFileCannotOpen = -1,
  kFileWriteFailed = -3,  // refused by the kernel, or nothing written
  kFileNoPath = -4,       // null path (or null text)
};

// Writes value as a signed decimal and a line feed ("%d\n"). Returns the bytes written (2 or more)
// or a FileResult.
int file_write_int(const char* path, uint32_t value);

// Writes text without its terminator and with nothing appended. Returns the bytes written (1 or
// more) or a FileResult; the empty text counts as a failed write.
int file_write_string(const char* path, const char* text);

// Reads up to count bytes into buffer, which is not terminated: the caller clears it first and
// passes a count below its size. Returns the bytes read, 0 or a negative number when there is
// nothing to read, kFileCannotOpen (without a log line) or kFileNoPath.
int file_read_string(const char* path, char* buffer, int count);

// Whether a file, node or folder is there. Only "no such file or directory", or something else in
// the place of a folder on the way, says that it is not: with any other failure (errno tells which)
// nothing is known, and nobody may act as if it were missing.
enum class Existence { kThere, kNotThere, kUnknown };
Existence exists(const char* path);

// The decimal number that a text begins with, behind blanks and a sign; 0 when there is none, the
// nearest int when it is beyond the range of int. Every number of the system is read like this.
int parse_int(const char* text);

// The number that the first count bytes of a node begin with (128 at most); 0 when nothing can be
// read.
int node_number(const char* path, int count = 128);
