// Texts as a person reads them.

#pragma once

#include <string.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace handset {

// The text with its line ends and other unprintable bytes written as escapes: "OK\r\n" in six
// letters, \x1b for an escape byte, \{12*\x00} for twelve zero bytes (and for any eight or more).
inline std::string visible(std::string_view text) {
  static const char kDigits[] = "0123456789abcdef";
  std::string shown;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const size_t zeros = std::min(text.find_first_not_of('\0', i), text.size()) - i;
    if (zeros >= 8) {
      shown += "\\{" + std::to_string(zeros) + "*\\x00}";
      i += zeros - 1;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\r') {
      shown += "\\r";
    } else if (c == '\n') {
      shown += "\\n";
    } else if (c == '\\') {
      shown += "\\\\";
    } else if (byte < 0x20 || byte > 0x7e) {
      shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    } else {
      shown += c;
    }
  }
  return shown;
}

// "EIO" for an errno.
inline std::string error_name(int error) {
  const char* const name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

}  // namespace handset
