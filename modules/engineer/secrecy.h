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

// Reads the configuration's text into text (kSecrecyTextSize bytes, cleared by the caller; not
// terminated when full): the record when it is readable and begins with '#', else the file, which
// is logged under the caller's name. Returns the bytes read, 0 when there is no file, or -1 with
// errno when the file cannot be read, or when it cannot be told where record or file lie.
int read_secrecy_text(const char* caller, char* text);

// Takes the next line, without its line feed, off the front of text.
std::string_view take_line(std::string_view* text);

// Reads the configuration. The caller clears imei (kSecrecyImeiSize bytes), key (kSecrecyKeyLength
// + 1 bytes) and locked; each is set only when the configuration has it, and both texts are
// terminated. Returns like read_secrecy_text.
int readSecrecyCfg(char* imei, char* key, uint8_t* locked);

// The gate before every write: true when the configuration locks the phone or cannot be read. The
// failure replies are then sent, and the handler has nothing left to do.
bool is_secrecy_locked();
