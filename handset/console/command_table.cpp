// Looking up commands and outcomes; see command_table.h.

#include "handset/console/command_table.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <stdexcept>
#include <utility>

#include "handset/phone_files.h"
#include "handset/visible.h"

namespace handset {

using Values = std::vector<std::pair<std::string, std::string>>;  // fields in their order

namespace {

// A reply as an expression, with a group for each field.
struct Pattern {
  std::string expression;
  std::vector<std::string> fields;
};

std::string upper(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return text;
}

std::string quoted(const std::string& text) {
  static const std::regex kSpecial(R"([.*+?^$()\[\]{}|\\])");
  return std::regex_replace(text, kSpecial, R"(\$&)");
}

std::string field_expression(const Json::Value& field) {
  static const std::map<std::string, std::string> kTypes = {{"integer", "-?[0-9]+"},
                                                            {"decimal", "-?[0-9]+\\.[0-9]+"},
                                                            {"hex", "[0-9a-fA-F]+"},
                                                            {"text", "[^\r\n]+"}};
  if (field["type"] == "choice") {
    std::string all;
    for (const std::string& value : field["values"].getMemberNames()) {
      all += (all.empty() ? "" : "|") + quoted(value);
    }
    return all;
  }
  const std::string expression =
      field.get("pattern", kTypes.at(field["type"].asString())).asString();
  return field["may_be_empty"].asBool() ? "(?:" + expression + ")?" : expression;
}

// "{name}" in a reply is a field, "{{" and "}}" are braces.
Pattern pattern_of(const std::string& reply, const Json::Value& fields) {
  Pattern pattern;
  for (size_t i = 0; i < reply.size(); ++i) {
    const bool brace = reply[i] == '{' || reply[i] == '}';
    if (brace && i + 1 < reply.size() && reply[i + 1] == reply[i]) {
      pattern.expression += quoted(reply.substr(i++, 1));
    } else if (reply[i] == '{') {
      const size_t end = reply.find('}', i);
      const std::string name = reply.substr(i + 1, end - i - 1);
      pattern.fields.push_back(name);
      pattern.expression += "(" + field_expression(fields[name]) + ")";
      i = end;
    } else {
      pattern.expression += quoted(reply.substr(i, 1));
    }
  }
  return pattern;
}

bool fits(const std::string& reply, const Json::Value& text, const Json::Value& fields,
          Values* values) {
  const Pattern pattern = pattern_of(text.asString(), fields);
  std::smatch found;
  if (!std::regex_match(reply, found, std::regex(pattern.expression))) {
    return false;
  }
  for (size_t i = 0; i < pattern.fields.size(); ++i) {
    values->emplace_back(pattern.fields[i], found[i + 1]);
  }
  return true;
}

struct Found {
  const Json::Value* outcome;
  Values values;
  bool complete;   // all replies of the outcome have come
  size_t literal;  // how much of the outcome is told word by word
};

std::optional<Found> match(const Json::Value& outcome, const std::vector<std::string>& replies) {
  Found found{&outcome, {}, false, 0};
  const Json::Value& fields = outcome["fields"];
  const Json::Value& fixed = outcome["replies"];
  const Json::Value& again = outcome["repeats"]["replies"];
  for (const Json::Value& text : fixed) {
    found.literal += std::regex_replace(text.asString(), std::regex(R"(\{\w+\})"), "").size();
  }
  for (size_t i = 0; i < replies.size(); ++i) {
    bool fit = false;
    if (i < fixed.size()) {
      fit = fits(replies[i], fixed[static_cast<int>(i)], fields, &found.values);
    } else if (!again.empty()) {
      const size_t in_round = (i - fixed.size()) % again.size();
      fit = fits(replies[i], again[static_cast<int>(in_round)], fields, &found.values);
    } else {
      fit = std::any_of(outcome["later"].begin(), outcome["later"].end(),
                        [&](const Json::Value& later) {
                          return fits(replies[i], later["reply"], fields, &found.values);
                        });
    }
    if (!fit) {
      return std::nullopt;
    }
  }
  const size_t rounds = again.empty() ? 0 : outcome["repeats"]["at_least"].asUInt() * again.size();
  found.complete = replies.size() >= fixed.size() + rounds;
  return found;
}

// The outcomes that replies are, or may become when none is told completely.
std::vector<Found> matches(const Json::Value& command, const std::vector<std::string>& replies) {
  std::vector<Found> all;
  for (const Json::Value& outcome : command["outcomes"]) {
    if (const auto found = match(outcome, replies); found.has_value()) {
      all.push_back(*found);
    }
  }
  const auto is_complete = [](const Found& found) { return found.complete; };
  if (std::none_of(all.begin(), all.end(), is_complete)) {
    return all;
  }
  std::erase_if(all, [](const Found& found) { return !found.complete; });
  size_t most = 0;
  for (const Found& found : all) {
    most = std::max(most, found.literal);
  }
  std::erase_if(all, [&](const Found& found) { return found.literal < most; });
  return all;
}

Outcome outcome_of(const Found& found) {
  const Json::Value& outcome = *found.outcome;
  Outcome made = {.result = outcome["result"].asString(),
                  .name = outcome["name"].asString(),
                  .meaning = outcome["meaning"].asString(),
                  .fields = {},
                  .remedy = outcome["remedy"].asString()};
  for (const auto& [name, value] : found.values) {
    const Json::Value& field = outcome["fields"][name];
    made.fields.push_back(
        {.name = name,
         .value = value,
         .unit = field["unit"].asString(),
         .meaning = field["type"] == "choice" ? field["values"][value].asString() : ""});
  }
  return made;
}

void print_outcome(const Outcome& outcome, bool colours, std::ostream& out) {
  const char* const colour = outcome.result == "pass" ? "\x1b[32m" : "\x1b[31m";
  out << (colours ? colour : "") << outcome.result << (colours ? "\x1b[0m" : "") << ", "
      << outcome.name << ": " << outcome.meaning << "\n";
  for (const ToldField& field : outcome.fields) {
    out << "  " << field.name << " " << visible(field.value)
        << (field.unit.empty() ? "" : " " + field.unit)
        << (field.meaning.empty() ? "" : " (" + field.meaning + ")") << "\n";
  }
  if (!outcome.remedy.empty()) {
    out << "  what to do: " << outcome.remedy << "\n";
  }
}

}  // namespace

CommandTable::CommandTable(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) {
    throw std::runtime_error("cannot read " + file);
  }
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors) ||
      !root.isObject() || !root["commands"].isArray()) {
    throw std::runtime_error("no command table: " + file);
  }
  commands_ = root["commands"];
}

const Json::Value* CommandTable::command(const std::string& line) const {
  const std::string folded = upper(line);
  for (const Json::Value& command : commands_) {
    const bool argument = command["argument"].isNull() || folded.find(':') != std::string::npos;
    if (argument && folded.starts_with(command["text"].asString())) {
      return &command;
    }
  }
  return nullptr;
}

std::vector<std::string> CommandTable::texts() const {
  std::vector<std::string> all;
  for (const Json::Value& command : commands_) {
    all.push_back(command["text"].asString() + (command["argument"].isNull() ? "" : ":"));
  }
  return all;
}

bool CommandTable::print_commands(const std::string& word, std::ostream& out) const {
  bool any = false;
  for (const Json::Value& command : commands_) {
    std::string searched = command["text"].asString() + "\n" + command["purpose"].asString();
    for (const Json::Value& use : command["answers"]) {
      searched += "\n" + use.asString();
    }
    if (upper(searched).find(upper(word)) == std::string::npos) {
      continue;
    }
    any = true;
    std::string text =
        command["text"].asString() + (command["argument"].isNull() ? "" : ":ARGUMENT");
    text.resize(std::max<size_t>(text.size(), 34), ' ');
    out << text << " " << command["purpose"].asString() << "\n";
  }
  return any;
}

Judgement CommandTable::judge(const Exchange& exchange) const {
  const Json::Value* found = command(exchange.sent);
  if (found == nullptr) {
    return {};
  }
  Judgement judgement = {.command = (*found)["text"].asString(), .outcomes = {}};
  for (const Found& one : matches(*found, exchange.replies)) {
    judgement.complete = one.complete;  // of all or of none
    judgement.outcomes.push_back(outcome_of(one));
  }
  return judgement;
}

void CommandTable::print_outcome(const Exchange& exchange, bool colours, std::ostream& out) const {
  const Judgement judgement = judge(exchange);
  if (judgement.command.empty()) {
    out << "no command of the table: " << visible(exchange.sent) << "\n";
    return;
  }
  if (judgement.outcomes.empty()) {
    out << "no outcome of " << judgement.command << "\n";
    return;
  }
  if (!judgement.complete) {
    out << "not complete; what it may become:\n";
  }
  for (const Outcome& outcome : judgement.outcomes) {
    handset::print_outcome(outcome, colours, out);
  }
}

const CommandTable& command_table() {
  static const CommandTable table(phone_file("commands.json"));
  return table;
}

}  // namespace handset
