// Partition images and their records; see partitions.h.

#include "handset/models/partitions.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace handset {

namespace fs = std::filesystem;

static constexpr uint64_t kPartitionSize = 8U << 20;
static constexpr uint64_t kPcbaOffset = 0x428000;
static constexpr uint64_t kEndMarkOffset = 0x427000;
static constexpr uint64_t kStartMarkOffset = 0x426000;
static constexpr size_t kPcbaRecordSize = 183;
static constexpr size_t kScrambledSize = 30;
static constexpr size_t kNumberOffset = 7;

void make_partition(const fs::path& image) {
  fs::create_directories(image.parent_path());
  std::ofstream(image, std::ios::binary).flush();
  fs::resize_file(image, kPartitionSize);
}

std::string read_partition(const fs::path& image, uint64_t offset, size_t size) {
  std::ifstream stream(image, std::ios::binary);
  stream.seekg(static_cast<std::streamoff>(offset));
  std::string bytes(size, '\0');
  stream.read(bytes.data(), static_cast<std::streamsize>(size));
  bytes.resize(static_cast<size_t>(stream.gcount()));
  return bytes;
}

void write_partition(const fs::path& image, uint64_t offset, const std::string& bytes) {
  std::fstream stream(image, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(static_cast<std::streamoff>(offset));
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string pcba_record(const std::string& number, uint8_t length) {
  if (number.size() > kPcbaRecordSize - kNumberOffset) {
    throw std::invalid_argument("the record has no room for that number");
  }
  std::string record(kPcbaRecordSize, '\0');
  record.replace(kNumberOffset, number.size(), number);
  for (size_t i = 0; i < kScrambledSize; ++i) {
    const auto byte = static_cast<uint8_t>(record[1 + i]);
    const auto swapped = static_cast<uint8_t>(byte << 4 | byte >> 4);
    const auto key =
        static_cast<uint8_t>(std::stoi(std::string(FTM_PCBA_KEY).substr(2 * i, 2), nullptr, 16));
    record[1 + i] = static_cast<char>(swapped ^ key);
  }
  record[0] = static_cast<char>(length);
  return record;
}

std::string pcba_record(const std::string& number) {
  return pcba_record(number, static_cast<uint8_t>(number.size()));
}

void put_pcba_record(const fs::path& image, const std::string& number) {
  write_partition(image, kPcbaOffset, pcba_record(number));
}

void put_download_marks(const fs::path& image, const std::string& start, const std::string& end) {
  const auto field = [](const std::string& mark, size_t size) {
    std::string bytes = mark;
    bytes.resize(size, '\0');
    return bytes;
  };
  write_partition(image, kStartMarkOffset, field(start, 14));
  write_partition(image, kEndMarkOffset, field(end, 13));
}

}  // namespace handset
