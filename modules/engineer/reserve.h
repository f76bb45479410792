// The engineer module's records on the raw reserve partition: where they lie, and plain reads and
// writes at an offset. Partition and storage kind are chosen afresh at every access. Command thread
// only.

#pragma once

#include <stddef.h>
#include <stdint.h>

// Byte offsets from the start of the partition, by the phone's storage, and the record's bytes.
struct ReserveRecord {
  uint32_t ufs;
  uint32_t emmc;
  size_t size;
};

constexpr ReserveRecord kBackcoverColorRecord = {0x42D200, 0x41A600, 8};
constexpr ReserveRecord kEngineermodeMarkRecord = {0x42D400, 0x41AA00, 512};
constexpr ReserveRecord kEngineerAdbRecord = {0x42D600, 0x41B000, 13};
constexpr ReserveRecord kProductInfoRecord = {0x481000, 0x464000, 2560};
constexpr ReserveRecord kSecrecyRecord = {0x48E000, 0x468C00, 1024};

// Where a record lies on this phone.
struct RecordPlace {
  const char* partition;
  uint32_t offset;
};

// Finds the record's place. False, with errno, when it cannot be told: a record must not be written
// where another one may lie.
bool find_record(const ReserveRecord& record, RecordPlace* place);

// Reads (writes) a whole record in one call. Returns what readInterface (writeInterface) does, or
// -1 with errno when its place cannot be told; memory is at least the record's size.
int read_record(const ReserveRecord& record, void* memory);
int write_record(const ReserveRecord& record, const void* memory);

// Reads up to length bytes at the offset, in one call. Returns the bytes read, 0 at the end of the
// file, or -1 with errno as the failed call left it.
int readInterface(const char* path, uint32_t offset, void* destination, size_t length);

// Reads up to length bytes from the start of a file that others can write, like readInterface,
// which is for partitions.
int read_shared_file(const char* path, void* destination, size_t length);

// Writes length bytes at the offset of an existing file and brings them to storage. Returns the
// bytes written, or -1 with errno as the failed call left it.
int writeInterface(const char* path, uint32_t offset, const void* source, size_t length);
