// The text of kernel nodes: every node that a command reads gives the same one. Numbers are read as
// the C library's widest reader, held to an int, reads them.

#include <limits.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "core/registry.h"
#include "core/serial.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

namespace {

// The number that the first count bytes begin with.
int number(const std::string& text, size_t count) {
  const std::string read = text.substr(0, count);
  const long long value = strtoll(read.c_str(), nullptr, 10);
  return static_cast<int>(std::min<long long>(INT_MAX, std::max<long long>(INT_MIN, value)));
}

std::string formatted(const char* format, auto... values) {
  char text[128];
  snprintf(text, sizeof(text), format, values...);
  return text;
}

std::string serial_number(const std::string& text) {
  uint32_t value = 0;
  for (size_t i = 0; i < std::min<size_t>(text.size(), 16) && text[i] >= '0' && text[i] <= '9';
       ++i) {
    value = value * 10 + static_cast<uint32_t>(text[i] - '0');
  }
  return "OK\r\n\1" + formatted("SN: %x\n", value) + '\1';
}

// A battery that is there: the node's own number in every column.
std::string battery(const std::string& text) {
  if (text.empty() || text[0] != '1') {
    return "";
  }
  const int value = number(text, 128);
  return "OK\r\n\1" +
         formatted("+EADC: %.2f,%.2f,0.00,%.3f,%.2f", value / 1000 / 1000.0, value / 10.0,
                   value / 1000.0, value / 1000 / 1000.0) +
         '\1';
}

std::string frequency(const std::string& text) {
  return "OK\r\n\1 CPUINFO:\1" + formatted("%d", number(text, 128)) + '\1';
}

struct Command {
  const char* line;
  std::string (*replies)(const std::string& text);  // null or empty: not known here
};

constexpr Command kCommands[] = {
    {"AT^SN\n", serial_number}, {"AT+EADC=1\n", battery},     {"AT+GCPU=1\n", frequency},
    {"AT+GEMMC=1\n", nullptr},  {"AT+EMMC\n", nullptr},       {"AT+UFSPLUS\n", nullptr},
    {"AT+GMEM=1\n", nullptr},   {"AT+CHARGE_MCU\n", nullptr}, {"AT^FM_SW_VERSION\n", nullptr},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_filled = [] {
    ftm_at_init();
    return true;
  }();
  expect(is_filled, "no table");
  const std::string text(reinterpret_cast<const char*>(data), size);
  set_files_like(
      [](const std::string& path) {
        return path.starts_with("/sys/") || path.starts_with("/proc/");
      },
      text);
  for (const Command& command : kCommands) {
    at_parse(command.line);
    const std::string replies = take_replies();
    expect(!replies.empty(), "no reply", command.line);
    const std::string wanted = command.replies == nullptr ? "" : command.replies(text);
    expect(wanted.empty() || replies == wanted, "another reply", replies);
  }
  return 0;
}
