// The engineer configuration store: named texts in JSON files below the persistent partition's
// engineer-mode folder, which the platform provides. File names are bare names in that folder.
// Every call opens, reads or writes, and closes; nothing is kept. Command thread only. Failures are
// logged and reported by false, whatever the file holds.

#pragma once

#include <stddef.h>

// A value longer than this is handed out cut to it.
constexpr size_t kConfigValueSize = 128;

// Copies the item's text into value, which the caller has cleared: kConfigValueSize bytes at least,
// and without a terminator when the text fills them. False, with value untouched, when the file
// cannot be read or the item is no string in it.
bool queryEngineerConfig(const char* file_name, const char* item, char* value);

// Sets the item, replacing a member of any type; a file that does not exist is made. False, with
// the file untouched, when it cannot be read, would reach 4096 bytes, or when item or value is no
// UTF-8; false when it cannot be opened for writing. What fails behind that point is not reported.
bool updateEngineerConfig(const char* file_name, const char* item, const char* value);

// Deletes the file. True when it is gone, also when it never was there.
bool removeEngineerConfig(const char* file_name);
