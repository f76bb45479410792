// Reading transcripts and comparing them with a journal; see transcript.h.

#include "tests/transcripts/transcript.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <stdexcept>
#include <tuple>
#include <utility>

using handset::Journal;

// "text x3" as the text and its count.
static std::pair<std::string, int> split_count(const std::string& line) {
  static const std::regex kCount(" x(\\d+)$");
  std::smatch found;
  if (!std::regex_search(line, found, kCount)) {
    return {line, 1};
  }
  return {line.substr(0, static_cast<size_t>(found.position())), std::stoi(found[1])};
}

std::vector<ExpectedEntry> parse_entry(const std::string& line) {
  ExpectedEntry entry;
  std::string text = line;
  const bool after_any = text.starts_with("... ");
  if (after_any) {
    text.erase(0, 4);
  } else if (text.starts_with("* ")) {
    entry.any_number = true;
    text.erase(0, 2);
  }
  static const std::regex kStream("(main|\\d+): ");
  std::smatch found;
  if (text.compare(0, 2, "$ ") == 0) {
    entry.stream = "$";
    text.erase(0, 2);
  } else if (std::regex_search(text, found, kStream, std::regex_constants::match_continuous)) {
    entry.stream = found[1];
    text.erase(0, static_cast<size_t>(found.length()));
  }
  int count = 1;
  std::tie(entry.text, count) = split_count(text);
  std::vector<ExpectedEntry> entries(static_cast<size_t>(count), entry);
  if (after_any) {
    entries.insert(entries.begin(),
                   {.stream = entry.stream, .text = "{*}", .any_number = true, .replies = true});
  }
  return entries;
}

namespace {

// A block: its name with the words that stand for others, as a pattern, and its lines.
struct Block {
  std::string name;
  std::regex pattern;
  std::vector<std::string> words;
  std::vector<std::string> lines;
};

using Blocks = std::vector<Block>;

// A file that is read line by line.
class Reader {
 public:
  explicit Reader(const std::string& file) : file_(file), stream_(file) {
    if (!stream_) {
      throw std::runtime_error("cannot read " + file);
    }
  }
  bool next(std::string* line) {
    ++number_;
    return static_cast<bool>(std::getline(stream_, *line));
  }
  int number() const {
    return number_;
  }
  [[noreturn]] void fail(const std::string& why) const {
    throw std::runtime_error(file_ + ":" + std::to_string(number_) + ": " + why);
  }

 private:
  std::string file_;
  std::ifstream stream_;
  int number_ = 0;
};

bool is_block(const std::string& line) {
  return line.starts_with(":: ");
}

// A block by its name: "{word}" in it stands for any text.
Block named_block(const std::string& name) {
  static const std::regex kSpecial("[.^$|()\\[\\]*+?\\\\]");
  static const std::regex kWord("\\{(\\w+)\\}");
  const std::string plain = std::regex_replace(name, kSpecial, "\\$&");
  Block block = {name, std::regex(std::regex_replace(plain, kWord, "(.*)")), {}, {}};
  for (std::sregex_iterator word(name.begin(), name.end(), kWord); word != std::sregex_iterator();
       ++word) {
    block.words.push_back(word->str());
  }
  return block;
}

// Reads the lines behind a block's name, up to an empty one.
void read_block(Reader* reader, const std::string& name, Blocks* blocks) {
  const auto is_it = [&](const Block& block) { return block.name == name; };
  if (std::any_of(blocks->begin(), blocks->end(), is_it)) {
    reader->fail("a block of this name is there already");
  }
  Block block = named_block(name);
  for (std::string line; reader->next(&line) && !line.empty();) {
    block.lines.push_back(line);
  }
  blocks->push_back(block);
}

Blocks common_blocks(const std::string& file) {
  Blocks blocks;
  const std::filesystem::path common = std::filesystem::path(file).parent_path() / "common.blocks";
  if (std::filesystem::exists(common)) {
    Reader reader(common);
    for (std::string line; reader.next(&line);) {
      if (is_block(line)) {
        read_block(&reader, line, &blocks);
      }
    }
  }
  return blocks;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// Whether a line names a block, its own or with a thread before it.
bool names_block(const std::string& line) {
  static const std::regex kBlock("((main|\\d+): )?:: .*");
  return std::regex_match(line, kBlock);
}

// The lines that a line stands for: itself, or those of the block that it names. A stream before
// the name is that of all of them, and a count behind it repeats them.
std::vector<std::string> expand(const Reader& reader, const Blocks& blocks,
                                const std::string& line) {
  if (!names_block(line)) {
    return {line};
  }
  const size_t name = line.find(":: ");
  const auto [text, count] = split_count(line.substr(name));
  std::smatch found;
  // The name with the fewest words is the nearest.
  const Block* block = nullptr;
  for (const Block& candidate : blocks) {
    if (std::regex_match(text, candidate.pattern) &&
        (block == nullptr || candidate.words.size() < block->words.size())) {
      block = &candidate;
    }
  }
  if (block == nullptr) {
    reader.fail("no such block");
  }
  std::regex_match(text, found, block->pattern);
  std::vector<std::string> lines;
  for (int i = 0; i < count; ++i) {
    for (std::string inner : block->lines) {
      for (size_t word = 0; word < block->words.size(); ++word) {
        inner = replace_all(inner, block->words[word], found[word + 1]);
      }
      for (const std::string& one : expand(reader, blocks, line.substr(0, name) + inner)) {
        lines.push_back(one);
      }
    }
  }
  return lines;
}

bool is_action(const std::string& line) {
  return line[0] == '>' || (line[0] == '.' && !line.starts_with("..."));
}

// A line below an action; block is the line that names the one it comes from.
void read_outcome(const Reader& reader, const std::string& line, const std::string& block,
                  Step* step, bool* after_break) {
  if (line == "--") {
    *after_break = true;
  } else if (line.starts_with("| ")) {
    step->prints.push_back(line.substr(2));
  } else {
    for (ExpectedEntry entry : parse_entry(line)) {
      entry.block = block;
      entry.block_line = block.empty() ? 0 : reader.number();
      entry.after_break = std::exchange(*after_break, false);
      step->entries.push_back(entry);
    }
  }
}

}  // namespace

std::vector<Scenario> read_transcript(const std::string& file) {
  Blocks blocks = common_blocks(file);
  std::vector<Scenario> scenarios;
  bool after_break = false;
  Reader reader(file);
  for (std::string line; reader.next(&line);) {
    if (line.starts_with("== ")) {
      scenarios.push_back(
          {.title = line.substr(3), .head = {}, .steps = {}, .line = reader.number()});
      continue;
    }
    if (scenarios.empty()) {
      if (is_block(line)) {
        read_block(&reader, line, &blocks);
      } else if (!line.empty() && line[0] != '#') {
        reader.fail("no scenario begins here");
      }
      continue;
    }
    std::vector<Step>& steps = scenarios.back().steps;
    if (line.empty()) {
      continue;
    }
    if (line[0] == '#') {
      (steps.empty() ? scenarios.back().head : steps.back().source).push_back(line);
      continue;
    }
    const std::vector<std::string> lines = expand(reader, blocks, line);
    const std::string block = names_block(line) ? line : "";
    const bool has_steps = std::any_of(lines.begin(), lines.end(), is_action);
    if (steps.empty() && !is_action(lines.front())) {
      reader.fail("nothing is done before");
    }
    for (const std::string& one : lines) {
      if (is_action(one)) {
        steps.push_back({.action = one, .in_block = !block.empty(), .line = reader.number()});
        after_break = false;
      } else {
        read_outcome(reader, one, has_steps ? "" : block, &steps.back(), &after_break);
      }
    }
    if (has_steps && !block.empty()) {
      steps[steps.size() -
            static_cast<size_t>(std::count_if(lines.begin(), lines.end(), is_action))]
          .source.push_back(line);
      continue;
    }
    steps.back().source.push_back(line);
  }
  return scenarios;
}

bool fits(const std::string& pattern, const std::string& text) {
  size_t at = 0;
  size_t start = 0;
  for (bool first = true;; first = false) {
    const size_t wild = pattern.find("{*}", start);
    const std::string part = pattern.substr(start, wild - start);
    if (wild == std::string::npos) {
      return first ? part == text : text.size() - at >= part.size() && text.ends_with(part);
    }
    const size_t found =
        first ? (text.starts_with(part) ? 0 : std::string::npos) : text.find(part, at);
    if (found == std::string::npos) {
      return false;
    }
    at = found + part.size();
    start = wild + 3;
  }
}

bool stands_for(const ExpectedEntry& entry, const std::string& text) {
  const bool may_reply = entry.replies || entry.text.starts_with("< ");
  return fits(entry.text, text) && (may_reply || !text.starts_with("< "));
}

namespace {

// One stream's entries, with their places in the whole lists.
struct Stream {
  std::vector<size_t> expected;
  std::vector<size_t> actual;
};

}  // namespace

// Walks one stream; places gets, for each expected entry that came, where it came.
static Match match_stream(const std::vector<ExpectedEntry>& expected,
                          const std::vector<Journal::Entry>& actual, const Stream& stream,
                          std::vector<size_t>* places) {
  const auto is_any = [&](size_t i) { return expected[stream.expected[i]].any_number; };
  size_t next = 0;  // the first expected entry that has not come; those of any number before it too
  for (const size_t place : stream.actual) {
    size_t fixed = next;
    while (fixed < stream.expected.size() && is_any(fixed)) {
      ++fixed;
    }
    const auto is_here = [&](size_t i) {
      return stands_for(expected[stream.expected[i]], actual[place].text);
    };
    if (fixed < stream.expected.size() && is_here(fixed)) {
      (*places)[stream.expected[fixed]] = place;
      next = fixed + 1;
      continue;
    }
    bool repeated = false;
    for (size_t i = next; i < fixed && !repeated; ++i) {
      repeated = is_here(i);
    }
    if (!repeated) {
      return Match::kDifferent;
    }
  }
  for (; next < stream.expected.size(); ++next) {
    if (!is_any(next)) {
      return Match::kMoreToCome;
    }
  }
  return Match::kComplete;
}

// Whether all that stands above a break came before what stands below.
static bool keeps_breaks(const std::vector<ExpectedEntry>& expected,
                         const std::vector<size_t>& places) {
  size_t latest = 0;  // of what stands above the last break
  size_t latest_so_far = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    if (expected[i].after_break) {
      latest = latest_so_far;
    }
    if (places[i] != SIZE_MAX) {
      if (latest != 0 && places[i] + 1 <= latest) {
        return false;
      }
      latest_so_far = std::max(latest_so_far, places[i] + 1);
    }
  }
  return true;
}

Match match(const std::vector<ExpectedEntry>& expected, const std::vector<Journal::Entry>& actual,
            bool worker_done) {
  std::map<std::string, Stream> streams;
  for (size_t i = 0; i < expected.size(); ++i) {
    streams[expected[i].stream].expected.push_back(i);
  }
  for (size_t i = 0; i < actual.size(); ++i) {
    streams[actual[i].stream].actual.push_back(i);
  }
  std::vector<size_t> places(expected.size(), SIZE_MAX);
  Match all = Match::kComplete;
  for (const auto& [name, stream] : streams) {
    const Match one = match_stream(expected, actual, stream, &places);
    if (one == Match::kDifferent || (one == Match::kMoreToCome && worker_done && name.empty())) {
      return Match::kDifferent;
    }
    all = one == Match::kMoreToCome ? one : all;
  }
  return all == Match::kComplete && !keeps_breaks(expected, places) ? Match::kDifferent : all;
}

std::string transcript_head(const std::string& file) {
  std::ifstream stream(file);
  std::string head;
  for (std::string line; std::getline(stream, line) && line.compare(0, 3, "== ") != 0;) {
    head += line + "\n";
  }
  while (head.ends_with("\n\n")) {
    head.pop_back();
  }
  return head;
}
