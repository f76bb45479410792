// The JSON files of the engineer mode; see config_store.h.

#include "modules/engineer/config_store.h"

#include <errno.h>
#include <json/json.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>

#include "core/file_utils.h"
#include "core/log.h"
#include "core/shared_files.h"

static const char kConfigFolder[] = "/mnt/vendor/persist/engineermode/config";
static constexpr size_t kPathSize = 256;
static constexpr size_t kDocumentLimit = 4096;  // of the written text: this many bytes are too many

// The reader ends this process at a value inside a thousand brackets.
static constexpr size_t kNestingLimit = 999;

static void make_path(char* path, const char* file_name) {
  // A longer path is cut.
  snprintf(path, kPathSize, "%s/%s", kConfigFolder, file_name);
}

// The index of the last byte of the string or comment that begins at start; the text's size when it
// is not closed. Both end exactly where the reader ends them.
static size_t token_end(const std::string& text, size_t start) {
  size_t end = start;
  if (text[start] == '"') {
    for (++end; end < text.size() && text[end] != '"'; ++end) {
      end += text[end] == '\\' ? 1 : 0;
    }
  } else if (text.compare(start, 2, "//") == 0) {
    end = text.find_first_of("\r\n", start);
  } else if (text.compare(start, 2, "/*") == 0) {
    const size_t close = text.find("*/", start + 2);
    end = close == std::string::npos ? close : close + 1;
  }
  return std::min(end, text.size());
}

static bool nests_too_deep(const std::string& text) {
  size_t depth = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"' || c == '/') {
      i = token_end(text, i);
    } else if (c == '{' || c == '[') {
      if (++depth > kNestingLimit) {
        return true;
      }
    } else if ((c == '}' || c == ']') && (depth == 0 || --depth == 0)) {
      return false;  // the reader goes no further
    }
  }
  return false;
}

// Parses the text of a configuration file. Fills document, which then has members or is null, or
// errors.
static bool parse(const std::string& text, Json::Value* document, std::string* errors) {
  if (nests_too_deep(text)) {
    *errors = "The document nests too deep.";
    return false;
  }
  Json::Reader reader;
  if (!reader.parse(text, *document, false)) {
    *errors = reader.getFormattedErrorMessages();
    return false;
  }
  // The library ends this process when a member of anything else is asked for.
  if (!document->isObject() && !document->isNull()) {
    *errors = "The document is no object.";
    return false;
  }
  return true;
}

// Whether a document's text is read again with an item as it was set. The library's writer makes
// others of bytes that are no UTF-8, and ends a name at a zero byte.
static bool reads_back(const std::string& text, const char* item, const char* value) {
  Json::Value document;
  std::string errors;
  return parse(text, &document, &errors) && document[item] == value;
}

// A file that cannot be read to its end is what was read of it.
static std::string read_text(int file) {
  std::string text;
  char part[kDocumentLimit];
  while (const size_t count = read_up_to(file, part, sizeof(part))) {
    text.append(part, count);
  }
  return text;
}

static void write_text(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(file, text.data(), text.size());
    if (count < 1) {
      return;
    }
    text.remove_prefix(static_cast<size_t>(count));
  }
}

static bool load(const char* caller, const char* file_name, int file, Json::Value* document) {
  std::string errors;
  if (parse(read_text(file), document, &errors)) {
    return true;
  }
  FTM_LOGD("%s Failed to read configuration file %s\n", caller, file_name);
  FTM_LOGD("%s\n", errors.c_str());
  return false;
}

// The library throws when it has no memory.
static bool failed(const char* caller, const std::exception& error) {
  FTM_LOGD("%s failed: %s\n", caller, error.what());
  return false;
}

bool queryEngineerConfig(const char* file_name, const char* item, char* value) try {
  char path[kPathSize];
  make_path(path, file_name);
  FTM_LOGD("%s try to open %s\n", __func__, path);
  if (access(path, R_OK) != 0) {
    FTM_LOGD("%s access %s fail\n", __func__, path);
    return false;
  }
  const UniqueFd file = open_regular(path, O_RDONLY);
  if (!file.ok()) {
    FTM_LOGD("%s fail to open %s\n", __func__, path);
    return false;
  }
  Json::Value document;
  if (!load(__func__, file_name, file.get(), &document)) {
    return false;
  }
  const Json::Value found = document.get(item, Json::Value());
  if (!found.isString()) {
    FTM_LOGD("%s Invalid configuration format -- %s \n", __func__, item);
    return false;
  }
  const std::string text = found.asString();
  memcpy(value, text.c_str(), strnlen(text.c_str(), kConfigValueSize));
  FTM_LOGD("%s return [%s]=[%.*s]\n", __func__, item, static_cast<int>(kConfigValueSize), value);
  return true;
} catch (const std::exception& error) {
  return failed(__func__, error);
}

bool updateEngineerConfig(const char* file_name, const char* item, const char* value) try {
  char path[kPathSize];
  make_path(path, file_name);
  FTM_LOGD("%s try to open %s\n", __func__, path);
  Json::Value document;
  const Existence there = exists(path);
  if (there != Existence::kNotThere) {
    const UniqueFd file = there == Existence::kThere ? open_regular(path, O_RDONLY) : UniqueFd();
    if (!file.ok()) {
      FTM_LOGD("%s fail to open-read %s\n", __func__, path);
      return false;
    }
    if (!load(__func__, file_name, file.get(), &document)) {
      return false;
    }
  }
  document[item] = value;
  const std::string text = Json::StyledWriter().write(document);
  if (text.size() >= kDocumentLimit) {
    FTM_LOGD("%s %s length is [%d], out of range\n", __func__, path, static_cast<int>(text.size()));
    return false;
  }
  if (!reads_back(text, item, value)) {
    FTM_LOGD("%s %s: would not be read back\n", __func__, item);
    return false;
  }
  const UniqueFd file = open_regular(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (!file.ok()) {
    FTM_LOGD("%s fail to open %s, err=%s\n", __func__, path, strerror(errno));
    return false;
  }
  // A failure from here on is not reported: a file that is open for writing counts as written.
  write_text(file.get(), text);
  return true;
} catch (const std::exception& error) {
  return failed(__func__, error);
}

bool removeEngineerConfig(const char* file_name) {
  char path[kPathSize];
  make_path(path, file_name);
  FTM_LOGD("%s try to remove %s\n", __func__, path);
  const Existence there = exists(path);
  // Not remove(): a folder in the file's place stays.
  if (there == Existence::kUnknown || (there == Existence::kThere && unlink(path) != 0)) {
    FTM_LOGD("%s fail remove %s, error=%s\n", __func__, path, strerror(errno));
    return false;
  }
  return true;
}
