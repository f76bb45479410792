// The program's command line.

#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace handset {

struct Options {
  std::vector<std::string> lines = {};  // to run; the positional arguments
  bool serve = false;
  bool demo = false;
  std::string line = {};     // path of the link to the line's tty
  std::string control = {};  // path of the control socket
  std::string web = {};      // where the page is served: a port, or an address and a port
  std::string profile = {};  // a broken phone's name, or a folder
  std::string tty = {};      // as ".tty" takes it
  int speed = 0;             // bits per second of a "uart" tty, 0 for the usual one
  std::filesystem::path daemon = {};
  std::string log = {};
  std::string journal = {};
  int count = 1;
  std::optional<double> waits = {};  // part of their time that the daemon's waits take
};

// The options, or the status with which the program is to end when it was only asked for its help
// or version, or asked for what it does not know; that has then been printed.
struct CommandLine {
  Options options = {};
  std::optional<int> status = {};
};
CommandLine parse_command_line(int argc, char** argv);

// The path of one of several phones: "%d" in it is the phone's number.
std::string numbered(const std::string& path, int number);

}  // namespace handset
