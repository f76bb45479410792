// A received line, through the folding to upper case and the table's walk, beside a matcher that is
// written another way. The rows are the phone's own commands.

#include <fstream>
#include <vector>

#include "core/registry.h"
#include "core/reply.h"
#include "core/serial.h"
#include "tests/fuzz/fuzz.h"

namespace {

std::vector<std::string> commands;
std::string handled;  // what the handlers were given, "NULL" for none

int handle(const char* argument) {
  handled += (argument == nullptr ? "NULL" : "argument " + std::string(argument)) + '\1';
  return 0;
}

// Each command of the demonstration, without its argument, is a row.
void fill_table() {
  std::ifstream stream(FTM_DEMO);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with("AT")) {
      commands.push_back(line.substr(0, line.find(':')));
    }
  }
  expect(commands.size() == 118, "the table is not read");
  for (const std::string& command : commands) {
    auto* row = new AtCommand;  // for the life of the process, as the daemon's rows
    row->command.text = command.c_str();
    row->handler = handle;
    at_register(row);
  }
}

// What the daemon must do with a line, spelled out.
std::string expected(const std::string& line) {
  std::string folded;
  for (const char c : line) {
    folded += std::string_view("abcdefghijklmnopqrstuvwxyz").find(c) == std::string::npos
                  ? c
                  : static_cast<char>(c ^ 0x20);
  }
  const size_t colon = folded.find(':');
  const bool wants_argument = folded.rfind("AT^WITH_ARGS", 0) == 0;
  const bool known = std::any_of(commands.begin(), commands.end(), [&](const std::string& text) {
    return folded.compare(0, text.size(), text) == 0;
  });
  if (!known || (wants_argument && colon == std::string::npos)) {
    return "";
  }
  return (wants_argument ? "argument " + folded.substr(colon + 1) : "NULL") + '\1';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (commands.empty()) {
    fill_table();
  }
  constexpr size_t kMaxCommand = 576;
  const std::string bytes(reinterpret_cast<const char*>(data), std::min(size, kMaxCommand));
  std::string line = bytes.c_str();  // a zero byte ends it
  const std::string wanted = expected(line);
  handled.clear();
  at_parse(strupr(line.data()));
  expect(handled == wanted, "another command or argument", handled);
  expect(take_replies() == (wanted.empty() ? "UNDEFINED COMMAND\n\1" : ""), "another reply", line);
  return 0;
}
