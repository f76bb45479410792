// The product info: up to ten name=value texts in slots of a record of the reserve partition.

#include <errno.h>
#include <string.h>

#include <string_view>

#include "core/at.h"
#include "modules/engineer/engineer.h"
#include "modules/engineer/reserve.h"
#include "modules/engineer/secrecy.h"

static constexpr size_t kSlots = 10;
static constexpr size_t kSlotSize = 256;
static constexpr size_t kMaxName = 16;

struct ProductInfo {
  char slots[kSlots][kSlotSize];
};
static_assert(sizeof(ProductInfo) == kProductInfoRecord.size);

// A slot that is full to its last byte has no terminator.
static std::string_view slot_text(const char* slot) {
  return {slot, strnlen(slot, kSlotSize)};
}

// The slot that an entry of this name goes to, or null. Two things are kept as they stand: a
// shorter name takes a slot whose name begins with it, and a free slot wins over a later one of the
// same name, which then stays.
static char* find_slot(ProductInfo* info, std::string_view name) {
  for (char* slot : info->slots) {
    const std::string_view text = slot_text(slot);
    if (text.find('=') == std::string_view::npos || text.starts_with(name)) {
      return slot;
    }
  }
  return nullptr;
}

static bool save_product_info(std::string_view entry, std::string_view name) {
  RecordPlace place;
  if (!find_record(kProductInfoRecord, &place)) {
    return false;
  }
  ProductInfo info = {};
  // A record that cannot be read counts as ten free slots.
  readInterface(place.partition, place.offset, &info, sizeof(info));
  char* slot = find_slot(&info, name);
  if (slot == nullptr) {
    FTM_LOGE("property not found or full");
    return false;
  }
  memset(slot, 0, kSlotSize);
  entry.copy(slot, kSlotSize - 1);
  FTM_LOGD("info = %s", slot);
  return writeInterface(place.partition, place.offset, &info, sizeof(info)) == sizeof(info);
}

int at_set_product_info(const char* argument) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (is_secrecy_locked()) {
    return 0;
  }
  if (argument == nullptr || strlen(argument) >= kSlotSize) {
    at_send_result("ERROR\n");
    at_send_result(" INVALID PRODUCT INFO SIZE");
    return 0;
  }
  const std::string_view entry = argument;
  const size_t equals = entry.find('=');
  if (equals > kMaxName) {  // or there is none, which is npos
    at_send_result("ERROR\n");
    at_send_result(" INVALID PRODUCT INFO");
    return 0;
  }
  if (!save_product_info(entry, entry.substr(0, equals))) {
    FTM_LOGE(TAG "save product info fail, errno = %d", errno);
    at_send_result("ERROR\n");
    return 0;
  }
  FTM_LOGD(TAG "save product info success, product_info = %s", argument);
  at_send_result("OK\r\n");
  return 0;
}

int at_get_product_info(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  ProductInfo info = {};
  const int count = read_record(kProductInfoRecord, &info);
  if (count < 1) {
    FTM_LOGE(TAG "read product info fail\n");
    at_send_result("ERROR\n");
    return 0;
  }
  FTM_LOGE(TAG "read product info success\n");
  at_send_result("OK\r\n");
  for (size_t i = 0; i < static_cast<size_t>(count) / kSlotSize; ++i) {
    char text[kSlotSize + 1] = {};
    slot_text(info.slots[i]).copy(text, kSlotSize);
    if (text[0] != '\0') {
      at_send_result(text);
      at_send_result("\n");
    }
  }
  return 0;
}

int at_reset_product_info(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  if (is_secrecy_locked()) {
    return 0;
  }
  const ProductInfo empty = {};
  // The log texts are those of reading: they are kept as they stand.
  if (write_record(kProductInfoRecord, &empty) < 1) {
    FTM_LOGE(TAG "read product info fail\n");
    at_send_result("ERROR\n");
    return 0;
  }
  FTM_LOGD(TAG "read product info success\n");
  at_send_result("OK\r\n");
  return 0;
}
