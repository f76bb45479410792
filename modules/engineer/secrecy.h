// The secrecy configuration: key=value lines in a record of the reserve partition or, when that
// holds none, in a file. It can lock the engineer module's writes. Read afresh at every call,
// command thread only.

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "modules/engineer/reserve.h"

constexpr size_t kSecrecyTextSize = kSecrecyRecord.size;
constexpr size_t kSecrecyKeyLength = 512;
constexpr size_t kSecrecyImeiSize = 16;  // terminator included

// The file that stands in for the record, on the partition that this phone has; null, with errno,
// when that cannot be told.
const char* secrecy_file();

// Both read the configuration's text into text (kSecrecyTextSize bytes, cleared by the caller; not
// terminated when full), the file whatever a record left there, and return the bytes read.
// The record: 0 when it cannot be read or does not begin with '#', so that the file counts; -1 with
// errno when it cannot be told where it lies.
int read_secrecy_record(char* text);
// The file, which is logged under the caller's name: -1 with errno when it cannot be read.
int read_secrecy_file(const char* caller, const char* file, char* text);

// Takes the next line, without its line feed, off the front of text.
std::string_view take_line(std::string_view* text);

// Reads the configuration. The caller clears imei (kSecrecyImeiSize bytes), key (kSecrecyKeyLength
// + 1 bytes) and locked; each is set only when the configuration has it, and both texts are
// terminated. Returns the bytes read, 0 when there is neither record nor file, or -1 with errno
// when the file cannot be read, or when it cannot be told where record or file lie.
int readSecrecyCfg(char* imei, char* key, uint8_t* locked);

// The gate before every write: true when the configuration locks the phone or cannot be read. The
// failure replies are then sent, and the handler has nothing left to do.
bool is_secrecy_locked();
