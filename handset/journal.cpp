// The record of the daemon's calls, and how a person reads it; see journal.h.

#include "handset/journal.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <regex>

#include "handset/recent.h"
#include "handset/visible.h"

namespace handset {

void Journal::begin(pid_t daemon) {
  const std::lock_guard lock(mutex_);
  daemon_ = daemon;
  worker_ = 0;
  threads_.clear();
  threads_gone_ = 0;
}

void Journal::set_worker(pid_t thread) {
  const std::lock_guard lock(mutex_);
  worker_ = thread;
}

void Journal::add(pid_t thread, const std::string& text) {
  const std::lock_guard lock(mutex_);
  note_thread(thread);
  gone_ += add_recent(&records_, Record{thread, text}, kMostEntries);
  added_.notify_all();
}

// The kernel numbers threads in the order in which they are made, and begins again at its limit:
// one with a number below the daemon's own was made after all others.
int64_t Journal::age(pid_t thread) const {
  return thread != 0 && thread < daemon_ ? int64_t{INT32_MAX} + thread : thread;
}

// One that is made earlier may come to its first entry later.
void Journal::note_thread(pid_t thread) {
  const auto is_known = [this](pid_t id) {
    return std::find(threads_.begin(), threads_.end(), id) != threads_.end();
  };
  if (thread == 0 || is_known(thread)) {
    return;
  }
  std::map<int64_t, pid_t> made = {{age(thread), thread}};
  std::error_code none;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_) + "/task", none)) {
    const pid_t id = std::stoi(task.path().filename().string());
    made.emplace(age(id), id);
  }
  made.erase(made.upper_bound(age(thread)), made.end());
  for (const auto& [_, id] : made) {
    if (!is_known(id)) {
      threads_gone_ += static_cast<int>(add_recent(&threads_, id, kMostThreads));
    }
  }
}

void Journal::add_program(const std::string& text) {
  add(0, text);
}

Journal::Entry Journal::entry(const Record& record) const {
  if (record.thread == 0) {
    return {"$", record.text};
  }
  if (record.thread == worker_) {
    return {"", record.text};
  }
  if (record.thread == daemon_) {
    return {"main", record.text};
  }
  // A sanitizer's own thread is older than the worker, and none of the daemon's.
  int number = 1 + threads_gone_;
  for (auto other = threads_.begin(); other != threads_.end() && *other != record.thread; ++other) {
    number += age(*other) > age(worker_) && *other != daemon_ ? 1 : 0;
  }
  return {std::to_string(number), record.text};
}

std::vector<Journal::Entry> Journal::take() {
  const std::lock_guard lock(mutex_);
  std::vector<Entry> entries = entries_from(taken_, SIZE_MAX);
  taken_ = gone_ + records_.size();
  return entries;
}

std::vector<Journal::Entry> Journal::since(size_t index, size_t most) const {
  const std::lock_guard lock(mutex_);
  return entries_from(index, most);
}

std::vector<Journal::Entry> Journal::entries_from(size_t index, size_t most) const {
  std::vector<Entry> entries;
  for (size_t i = std::max(index, gone_); i < gone_ + records_.size() && entries.size() < most;
       ++i) {
    entries.push_back(entry(records_[i - gone_]));
  }
  return entries;
}

size_t Journal::gone() const {
  const std::lock_guard lock(mutex_);
  return gone_;
}

size_t Journal::size() const {
  const std::lock_guard lock(mutex_);
  return gone_ + records_.size();
}

bool Journal::wait_more(size_t size, std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return added_.wait_for(lock, limit, [&] { return gone_ + records_.size() > size; });
}

std::string log_entry(const std::string& bytes, const std::string& program) {
  static const std::regex kHead(
      "([^\\n]*) ([VDIWEF]) \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d +\\d+ +\\d+ ");
  std::smatch head;
  if (!std::regex_search(bytes, head, kHead, std::regex_constants::match_continuous)) {
    return "";
  }
  std::string text = bytes.substr(static_cast<size_t>(head.length()));
  if (!text.empty() && text.back() == '\n') {
    text.pop_back();  // the desk's own
  }
  const std::string tag = head[1] == program ? "" : "/" + head[1].str();
  return head[2].str() + tag + " " + visible(text);
}

static bool is_descriptor_line(const std::string& text) {
  static const std::regex kLine("D \\[FTM-AT\\]at_send_result : serial_port_fd is : \\d+\\\\n");
  return std::regex_match(text, kLine);
}

// The length of the run of entries at this index that a whole reply makes, and its reply's index.
static bool is_reply(const std::vector<Journal::Entry>& entries, size_t at, std::string* reply) {
  if (at + 3 >= entries.size() || entries[at + 2].text.compare(0, 2, "< ") != 0) {
    return false;
  }
  *reply = entries[at + 2].text;
  return entries[at].text == "D [FTM-AT]at_send_result : result is : " + reply->substr(2) + "\\n" &&
         is_descriptor_line(entries[at + 1].text) &&
         entries[at + 3].text == "D [FTM-AT]at_send_result : send_result successful\\n";
}

static std::string upper_case(std::string text) {
  for (char& c : text) {
    c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c;
  }
  return text;
}

// The indexes of the entries of each stream, so that a run is looked for within one.
static std::map<std::string, std::vector<size_t>> by_stream(
    const std::vector<Journal::Entry>& entries) {
  std::map<std::string, std::vector<size_t>> streams;
  for (size_t i = 0; i < entries.size(); ++i) {
    streams[entries[i].stream].push_back(i);
  }
  return streams;
}

// "read FILE at PLACE SIZE" for a seek and the read or write that follows it in the same file;
// empty for others.
static std::string placed(const std::string& seek, const std::string& next) {
  static const std::regex kSeek("seek (\\S+) (0x[0-9a-f]+)");
  static const std::regex kNext("(read|write) (\\S+) (.*)");
  std::smatch from;
  std::smatch to;
  if (!std::regex_match(seek, from, kSeek) || !std::regex_match(next, to, kNext) ||
      from[1] != to[2]) {
    return "";
  }
  return to[1].str() + " " + to[2].str() + " at " + from[2].str() + " " + to[3].str();
}

std::vector<Journal::Entry> fold(const std::vector<Journal::Entry>& entries,
                                 const std::string& line) {
  std::vector<bool> folded(entries.size(), false);
  std::vector<Journal::Entry> all = entries;
  for (const auto& [stream, places] : by_stream(entries)) {
    std::vector<Journal::Entry> own;
    for (const size_t place : places) {
      own.push_back(entries[place]);
    }
    std::string reply;
    for (size_t i = 0; i < own.size(); ++i) {
      if (is_reply(own, i, &reply)) {
        folded[places[i]] = folded[places[i + 1]] = folded[places[i + 3]] = true;
        i += 3;
      } else if (const std::string text =
                     i + 1 < own.size() ? placed(own[i].text, own[i + 1].text) : "";
                 !text.empty()) {
        folded[places[i]] = true;
        all[places[i + 1]].text = text;
      }
    }
    const std::string head = "D [FTM-AT]at_command_thread, ";
    if (stream.empty() && own.size() > 1 && !line.empty() &&
        own.front().text == head + "buf : " + visible(line) + "\\n" &&
        own.back().text == head + "upr : " + visible(upper_case(line)) + "\\n") {
      folded[places.front()] = folded[places.back()] = true;
    }
  }
  std::vector<Journal::Entry> left;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!folded[i]) {
      left.push_back(all[i]);
    }
  }
  return left;
}

std::vector<Journal::Entry> count_repeats(const std::vector<Journal::Entry>& entries) {
  std::vector<Journal::Entry> counted;
  for (size_t i = 0; i < entries.size();) {
    size_t end = i;
    while (end < entries.size() && entries[end] == entries[i]) {
      ++end;
    }
    counted.push_back(entries[i]);
    if (end - i > 1) {
      counted.back().text += " x" + std::to_string(end - i);
    }
    i = end;
  }
  return counted;
}

std::string shown(const Journal::Entry& entry) {
  if (entry.stream.empty()) {
    return entry.text;
  }
  return entry.stream + (entry.stream == "$" ? " " : ": ") + entry.text;
}

}  // namespace handset
