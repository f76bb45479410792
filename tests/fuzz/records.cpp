// The engineer module on a reserve partition of any content: a case is the secrecy record's and the
// product info's bytes, the secrecy file's, and lines. No line changes a byte outside the records
// that are its own, a locked phone changes nothing but by the key, and every line is answered.

#include <string.h>

#include "core/registry.h"
#include "core/reply.h"
#include "core/serial.h"
#include "modules/engineer/reserve.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

namespace {

constexpr char kPartition[] = "/dev/block/bootdevice/by-name/norvareserve1";
constexpr char kByName[] = "/dev/block/by-name/norvareserve1";  // some commands go this way
constexpr char kSecrecyFile[] = "/mnt/vendor/norvareserve/system/config/secrecy.cfg";

// What a case looks at: the pages of the records and their neighbours.
struct Region {
  size_t offset;
  size_t size;
};
constexpr Region kRegions[] = {{0x42D000, 0x1000}, {0x480000, 0x2000}, {0x48D000, 0x2000}};

struct Family {
  const char* line;  // how its lines begin
  size_t offset;     // of the record that it may write
  size_t size;
};

constexpr Family kFamilies[] = {
    {"AT^WITH_ARGS_BACKCOVER_COLOR:", 0x42D200, 8},
    {"AT^GET_BACKCOVER_COLOR", 0, 0},
    {"AT^RESET_ENG_MARK", 0x42D400, 512},
    {"AT^ENABLE_ENG_ADB", 0x42D600, 13},
    {"AT^WITH_ARGS_PRODUCT_INFO:", 0x481000, 2560},
    {"AT^GET_PRODUCT_INFO", 0, 0},
    {"AT^RESET_PRODUCT_INFO", 0x481000, 2560},
    {"AT^SECRECY_LOCK_STATUS", 0, 0},
    {"AT^SECRECY_IMEI", 0, 0},
    {"AT^WITH_ARGS_SECRECY_UNLOCK:", 0x48E000, 1024},
};

// Whether a configuration's text locks the phone: some line "encrypt_...=true".
bool locks(const std::string& text) {
  std::string lines = "\n" + std::string(text.c_str()) + "\n";
  for (size_t at = 0; (at = lines.find("\nencrypt_", at)) != std::string::npos; ++at) {
    const std::string line = lines.substr(at + 1, lines.find('\n', at + 1) - at - 1);
    const size_t equals = line.find('=');
    if (equals != std::string::npos && line.substr(equals) == "=true") {
      return true;
    }
  }
  return false;
}

std::string content() {
  std::string bytes;
  for (const Region& region : kRegions) {
    bytes += read_part(kPartition, region.offset, region.size);
  }
  return bytes;
}

// The place of a partition's byte in content().
size_t place(size_t offset) {
  size_t before = 0;
  for (const Region& region : kRegions) {
    if (offset >= region.offset && offset <= region.offset + region.size) {
      return before + offset - region.offset;
    }
    before += region.size;
  }
  return before;
}

// The phone's storage; the partition is long, so that only its regions are laid anew.
void lay(const std::string& secrecy, const std::string& product, const std::string& file) {
  static const bool is_first = [] {
    ftm_at_init();
    set_folder("/mnt/vendor/norvareserve");
    set_file("dev/block/sda", "");
    set_file(kPartition, "");
    set_link(kByName, kPartition);
    return true;
  }();
  expect(is_first, "no phone");
  for (const Region& region : kRegions) {
    write_part(kPartition, region.offset, std::string(region.size, '\xA5'));
  }
  write_part(kPartition, 0x48E000, secrecy + std::string(1024 - secrecy.size(), '\0'));
  write_part(kPartition, 0x481000, product + std::string(2560 - product.size(), '\0'));
  remove_file(kSecrecyFile);
  if (!file.empty()) {
    set_file(kSecrecyFile, file);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Case bytes(data, size);
  const Family& family = kFamilies[bytes.byte() % std::size(kFamilies)];
  const std::string argument = bytes.text();
  const std::string file = bytes.text().substr(0, 1024);
  const std::string secrecy(bytes.take(1024));
  const std::string product(bytes.take(2560));
  lay(secrecy, product, file);
  const std::string before = content();
  const size_t blocks = used_blocks(kPartition);

  std::string line = (family.line + argument).substr(0, 576);
  at_parse(strupr(line.data()));
  expect(!take_replies().empty(), "no reply", line);

  const std::string after = content();
  expect(used_blocks(kPartition) == blocks, "a write far away", line);
  const bool is_locked = locks(secrecy.starts_with('#') ? secrecy : file);
  const bool may_write = family.size > 0 && (!is_locked || family.offset == 0x48E000);
  const size_t from = may_write ? place(family.offset) : after.size();
  const size_t to = may_write ? place(family.offset + family.size) : after.size();
  expect(before.compare(0, from, after, 0, from) == 0, "bytes before the record", line);
  expect(before.compare(to, std::string::npos, after, to) == 0, "bytes behind the record", line);
  return 0;
}
