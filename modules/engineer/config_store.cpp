// The JSON files of the engineer mode; see config_store.h.

#include "modules/engineer/config_store.h"

#include <errno.h>
#include <json/json.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "core/log.h"
#include "core/unique.h"

static const char kConfigFolder[] = "/mnt/vendor/persist/engineermode/config";
static constexpr size_t kPathSize = 256;
static constexpr size_t kDocumentLimit = 4096;  // of the written text: this many bytes are too many

// Other tools may leave a longer file than is ever written here, but one beyond this is no
// configuration: it is refused before it costs memory.
static constexpr size_t kReadLimit = 1024 * 1024;

// The reader throws at a value inside a thousand brackets, which would end this process.
static constexpr size_t kNestingLimit = 999;

static void make_path(char* path, const char* file_name) {
  // A longer path is cut.
  snprintf(path, kPathSize, "%s/%s", kConfigFolder, file_name);
}

// Where the string or comment that begins at start ends: the index of its last byte, or the end of
// the text when it is not closed. Strings and comments end exactly where the reader ends them.
static size_t token_end(const std::string& text, size_t start) {
  if (text[start] == '"') {
    size_t i = start + 1;
    while (i < text.size() && text[i] != '"') {
      i += text[i] == '\\' ? 2 : 1;
    }
    return i;
  }
  if (text.compare(start, 2, "//") == 0) {
    return text.find_first_of("\r\n", start);
  }
  if (text.compare(start, 2, "/*") == 0) {
    const size_t close = text.find("*/", start + 2);
    return close == std::string::npos ? close : close + 1;
  }
  return start;
}

// What the reader would throw at or pass over in silence, losing what stands there at the next
// update. Null when there is nothing of the kind; a text with ordinary errors is left to the
// reader.
static const char* find_unreadable(const std::string& text) {
  if (text.size() > kReadLimit) {
    return "The file is too large.";
  }
  if (text.find('\0') != std::string::npos) {
    return "The file holds a zero byte.";
  }
  size_t depth = 0;
  bool complete = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (complete && strchr(" \t\r\n/", c) == nullptr) {
      return "Text follows the document.";
    }
    if (c == '{' || c == '[') {
      if (++depth > kNestingLimit) {
        return "The document nests too deep.";
      }
    } else if (c == '}' || c == ']') {
      if (depth == 0) {
        return nullptr;  // the reader stops here at the latest
      }
      complete = --depth == 0;
    } else if (c == '"' || c == '/') {
      i = token_end(text, i);
      if (i >= text.size()) {
        return nullptr;
      }
    }
  }
  return nullptr;
}

// Whether the writer gives the document back as it was read. It does not for bytes that are no
// UTF-8: it would replace them.
static bool survives_rewriting(const Json::Value& document) {
  Json::Value again;
  return Json::Reader().parse(Json::StyledWriter().write(document), again, false) &&
         again == document;
}

// Parses the text of a configuration file. Fills document, which is then an object, or errors.
static bool parse(const std::string& text, Json::Value* document, std::string* errors) {
  if (const char* reason = find_unreadable(text); reason != nullptr) {
    *errors = reason;
    return false;
  }
  Json::Reader reader;
  if (!reader.parse(text, *document, false)) {
    *errors = reader.getFormattedErrorMessages();
    return false;
  }
  if (!document->isObject()) {
    *errors = "The document is no object.";
    return false;
  }
  if (!survives_rewriting(*document)) {
    *errors = "The document is not UTF-8.";
    return false;
  }
  return true;
}

// Reads the file's whole text, or one byte more than the limit. False when reading fails.
static bool read_text(FILE* file, std::string* text) {
  char part[kDocumentLimit];
  size_t count = 0;
  while (text->size() <= kReadLimit && (count = fread(part, 1, sizeof(part), file)) > 0) {
    text->append(part, count);
  }
  return ferror(file) == 0;
}

static bool load(const char* caller, const char* file_name, FILE* file, Json::Value* document) {
  std::string text;
  std::string errors;
  if (!read_text(file, &text)) {
    errors = strerror(errno);
  } else if (parse(text, document, &errors)) {
    return true;
  }
  FTM_LOGD("%s Failed to read configuration file %s\n", caller, file_name);
  FTM_LOGD("%s\n", errors.c_str());
  return false;
}

bool queryEngineerConfig(const char* file_name, const char* item, char* value) {
  char path[kPathSize];
  make_path(path, file_name);
  FTM_LOGD("%s try to open %s\n", __func__, path);
  if (access(path, R_OK) != 0) {
    FTM_LOGD("%s access %s fail\n", __func__, path);
    return false;
  }
  UniqueFile file(fopen(path, "r"));
  if (file == nullptr) {
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
}

bool updateEngineerConfig(const char* file_name, const char* item, const char* value) {
  char path[kPathSize];
  make_path(path, file_name);
  FTM_LOGD("%s try to open %s\n", __func__, path);
  Json::Value document;
  if (access(path, F_OK) == 0) {
    const UniqueFile file(fopen(path, "r"));
    if (file == nullptr) {
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
  const UniqueFile file(fopen(path, "w"));
  if (file == nullptr) {
    FTM_LOGD("%s fail to open %s, err=%s\n", __func__, path, strerror(errno));
    return false;
  }
  // A failure from here on is not reported, on purpose: the file is the item's from its opening on.
  fwrite(text.data(), 1, text.size(), file.get());
  return true;
}

bool removeEngineerConfig(const char* file_name) {
  char path[kPathSize];
  make_path(path, file_name);
  FTM_LOGD("%s try to remove %s\n", __func__, path);
  // Not remove(): a folder in the file's place stays.
  if (access(path, F_OK) == 0 && unlink(path) != 0) {
    FTM_LOGD("%s fail remove %s, error=%s\n", __func__, path, strerror(errno));
    return false;
  }
  return true;
}
