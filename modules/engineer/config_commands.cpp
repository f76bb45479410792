// The commands on the engineer configuration: query, set and delete the items of the aging run's
// and of the test run's file. Both families are the same but for the file.

#include <stdio.h>
#include <string.h>

#include "core/at.h"
#include "modules/engineer/config_store.h"
#include "modules/engineer/engineer.h"

static const char kAgingFile[] = "aging.cfg";
static const char kTestFile[] = "test.cfg";
static constexpr size_t kArgumentSize = 128;
static constexpr size_t kReplySize = 256;

// Copies the argument into copy (kArgumentSize bytes), or replies that it is missing or too long.
static bool take_argument(const char* argument, char* copy) {
  if (argument == nullptr || strlen(argument) >= kArgumentSize) {
    at_send_result("ERROR\n");
    at_send_result(" INVALID CFG ITEM SIZE\n");
    return false;
  }
  strcpy(copy, argument);
  return true;
}

// One line feed only: a carriage return before it belongs to the item.
static void strip_line_feed(char* text) {
  const size_t length = strlen(text);
  if (length > 0 && text[length - 1] == '\n') {
    text[length - 1] = '\0';
  }
}

static void fold_to_lower_case(char* text) {
  for (char* c = text; *c != '\0'; ++c) {
    if (*c >= 'A' && *c <= 'Z') {
      *c = static_cast<char>(*c + 0x20);
    }
  }
}

static int query_cfg(const char* handler, const char* file_name, const char* argument) {
  FTM_LOGD(TAG "%s\n", handler);
  char item[kArgumentSize] = {};
  if (!take_argument(argument, item)) {
    return 0;
  }
  strip_line_feed(item);
  char value[kConfigValueSize + 1] = {};
  char reply[kReplySize] = {};
  // The longest name with the longest value of another tool is two bytes more than a reply takes: a
  // failure, because a cut reply would look whole.
  if (!queryEngineerConfig(file_name, item, value) ||
      snprintf(reply, sizeof(reply), "%s=%s\n", item, value) >= static_cast<int>(sizeof(reply))) {
    FTM_LOGE(TAG "read config item [%s] fail\n", item);
    at_send_result("ERROR\n");
    return 0;
  }
  at_send_result("OK\r\n");
  // Lower case, name and value.
  fold_to_lower_case(reply);
  at_send_result(reply);
  return 0;
}

static int update_cfg(const char* handler, const char* file_name, const char* argument) {
  FTM_LOGD(TAG "%s\n", handler);
  char item[kArgumentSize] = {};
  if (!take_argument(argument, item)) {
    return 0;
  }
  char* equals = strchr(item, '=');
  if (equals == nullptr) {
    at_send_result("ERROR\n");
    at_send_result(" INVALID CFG ITEM\n");
    return 0;
  }
  strip_line_feed(item);
  *equals = '\0';
  at_send_result(updateEngineerConfig(file_name, item, equals + 1) ? "OK\r\n" : "ERROR\n");
  return 0;
}

static int remove_cfg(const char* handler, const char* file_name) {
  FTM_LOGD(TAG "%s\n", handler);
  at_send_result(removeEngineerConfig(file_name) ? "OK\r\n" : "ERROR\n");
  return 0;
}

int at_query_aging_cfg(const char* argument) {
  return query_cfg(__func__, kAgingFile, argument);
}

int at_update_aging_cfg(const char* argument) {
  return update_cfg(__func__, kAgingFile, argument);
}

int at_remove_aging_cfg(const char*) {
  return remove_cfg(__func__, kAgingFile);
}

int at_query_test_cfg(const char* argument) {
  return query_cfg(__func__, kTestFile, argument);
}

int at_update_test_cfg(const char* argument) {
  return update_cfg(__func__, kTestFile, argument);
}

int at_remove_test_cfg(const char*) {
  return remove_cfg(__func__, kTestFile);
}
