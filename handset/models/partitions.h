// The reserve partition's images: sparse files that stand where the phone has block devices, and
// the records that the factory line writes into them. The same functions serve any image.

#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace handset {

// Makes an empty image, as large as the records need.
void make_partition(const std::filesystem::path& image);

// Reads (writes) bytes at an offset from the image's start.
std::string read_partition(const std::filesystem::path& image, uint64_t offset, size_t size);
void write_partition(const std::filesystem::path& image, uint64_t offset, const std::string& bytes);

// The bytes of a PCBA record: length, then the number scrambled with the build's key. A length of
// its own may be given, and the number may be longer than the scrambled area.
std::string pcba_record(const std::string& number);
std::string pcba_record(const std::string& number, uint8_t length);

void put_pcba_record(const std::filesystem::path& image, const std::string& number);

// The marks of the software download, at most 14 and 13 characters; empty for none.
void put_download_marks(const std::filesystem::path& image, const std::string& start,
                        const std::string& end);

}  // namespace handset
