// A configuration file, and an item that is set in it. What was stored with success is what is read
// back, and every other item is as it was.

#include <json/json.h>
#include <string.h>

#include "modules/engineer/config_store.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

static constexpr char kPath[] = "/mnt/vendor/persist/engineermode/config/aging.cfg";
static constexpr char kFile[] = "aging.cfg";

// As the library reads it; nothing for what is no document with members.
static bool document(Json::Value* value) {
  const std::optional<std::string> text = file_content(kPath);
  return !text ||
         (Json::Reader().parse(*text, *value, false) && (value->isObject() || value->isNull()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Case bytes(data, size);
  const std::string item = bytes.text().substr(0, 120);
  const std::string value = bytes.text().substr(0, 120);
  const std::string content = bytes.rest();
  remove_all_files();
  if (!content.empty()) {
    set_file(kPath, content);
  }
  char before[kConfigValueSize + 1] = {};
  const bool was_there = queryEngineerConfig(kFile, item.c_str(), before);
  expect(!was_there || !content.empty(), "an item of no file");
  if (!updateEngineerConfig(kFile, item.c_str(), value.c_str())) {
    expect(file_content(kPath).value_or("") == content, "a refused item changes the file");
    return 0;
  }
  char after[kConfigValueSize + 1] = {};
  expect(queryEngineerConfig(kFile, item.c_str(), after), "what was stored cannot be read", item);
  expect(value == after, "another value was stored", after);
  Json::Value old;
  Json::Value now;
  const std::optional<std::string> stored = file_content(kPath);
  expect(document(&now), "the file is no document any more");
  set_file(kPath, content);
  if (!content.empty() && document(&old)) {
    old = old.isNull() ? Json::Value(Json::objectValue) : old;
    // As the library's writer has it, which cuts a name at a zero byte; and written again, for
    // numbers that are no number are not equal to themselves.
    Json::Reader().parse(Json::StyledWriter().write(old), old, false);
    old.removeMember(item);
    now.removeMember(item);
    expect(Json::FastWriter().write(old) == Json::FastWriter().write(now), "another item changed");
  }
  return 0;
}
