// The command table, protocol/commands.json, for one who types: what can be sent, and what the
// replies that came mean.

#pragma once

#include <json/json.h>

#include <ostream>
#include <string>
#include <vector>

namespace handset {

// A sent line and the replies that have come since, one for each write of the daemon.
struct Exchange {
  std::string sent;
  std::vector<std::string> replies = {};
};

// A field of a reply; unit and meaning are empty where the table has none.
struct ToldField {
  std::string name;
  std::string value;
  std::string unit;
  std::string meaning;
};

struct Outcome {
  std::string result;  // "pass" or "fail"
  std::string name;
  std::string meaning;
  std::vector<ToldField> fields;
  std::string remedy;  // empty where there is none
};

struct Judgement {
  std::string command;            // its text in the table; empty when there is none
  bool complete = false;          // false: the outcomes are those that it may become
  std::vector<Outcome> outcomes;  // none: the command never replies so
};

class CommandTable {
 public:
  // Throws std::runtime_error when the file cannot be read or is no command table.
  explicit CommandTable(const std::string& file);

  // What can be sent, in the daemon's order; a colon stands behind a command that takes an
  // argument.
  std::vector<std::string> texts() const;

  // Prints a line for each command whose text, purpose or uses hold the word, in any case; all when
  // the word is empty. False when there is none.
  bool print_commands(const std::string& word, std::ostream& out) const;

  // Which of its outcomes a command has had.
  Judgement judge(const Exchange& exchange) const;

  // Prints which of its outcomes a command has had, with the values that it told: in red or green
  // where colours are wanted.
  void print_outcome(const Exchange& exchange, bool colours, std::ostream& out) const;

 private:
  const Json::Value* command(const std::string& line) const;

  Json::Value commands_;
};

// The handset's own table, read when it is first asked for. Throws what its constructor throws.
const CommandTable& command_table();

}  // namespace handset
