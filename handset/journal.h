// One ordered record of what the phone's processes do to their phone: a line of text for each
// reply, log line, node write, wait, mixer write, program run and so on, in the order of the
// daemon's own calls. Filled while the calls are answered; read from any thread.
//
//   < OK\r\n                            a reply: one write call on the serial line
//   D [FTM-WIFI]at_wifi_init start\n    a log line: priority, tag in "E/tag" where it has one, text
//   write /sys/class/leds/red/brightness 255\n
//   wait 100 ms
//
// Bytes stand as visible() shows them. The latest half million entries at most are kept.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace handset {

class Journal {
 public:
  struct Entry {
    // Whose call it was: empty for the command worker, "main", "$" for the programs that the daemon
    // has started, "1", "2", ... for its other threads in the order in which they were made.
    std::string stream;
    std::string text;
    bool operator==(const Entry&) const = default;
  };

  // A daemon of this process id starts; its other threads are numbered anew.
  void begin(pid_t daemon);
  // This thread reads commands from the line.
  void set_worker(pid_t thread);

  // Adds an entry of a thread, or of whichever process is none of the daemon's.
  void add(pid_t thread, const std::string& text);
  void add_program(const std::string& text);

  // The entries since the last take, in order.
  std::vector<Entry> take();
  // The entries from an index on that are kept still, the first so many of them; how many there
  // have been in all, and how many of those are no longer kept.
  std::vector<Entry> since(size_t index, size_t most = SIZE_MAX) const;
  size_t size() const;
  size_t gone() const;
  // Waits until there are more than that many. False when the limit passes first.
  bool wait_more(size_t size, std::chrono::milliseconds limit) const;

 private:
  struct Record {
    pid_t thread;  // 0 for a program
    std::string text;
  };
  static constexpr size_t kMostEntries = 500'000;
  static constexpr size_t kMostThreads = 10'000;

  std::vector<Entry> entries_from(size_t index, size_t most) const;
  Entry entry(const Record& record) const;
  void note_thread(pid_t thread);
  int64_t age(pid_t thread) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<Record> records_;
  size_t gone_ = 0;  // older entries, which are no longer kept
  size_t taken_ = 0;
  pid_t daemon_ = 0;
  pid_t worker_ = 0;
  // In the order in which they were made; the names are given when entries are read, because only
  // then it is known which of them is the worker.
  std::vector<pid_t> threads_;
  int threads_gone_ = 0;
};

// A log line as the desk's log writes it ("TAG P DATE TIME PID TID TEXT\n") as an entry; empty when
// the bytes are none. program is the tag of lines without one.
std::string log_entry(const std::string& bytes, const std::string& program);

// A seek folds into the read or write that follows it in the file ("read FILE at 0x40 8"), and what
// is always the same around a command into its reply: the three log lines of a reply that was
// written whole, and the worker's two around the line that it was given. Anything else stays as it
// is. line is what was sent, empty when these entries belong to no line.
std::vector<Journal::Entry> fold(const std::vector<Journal::Entry>& entries,
                                 const std::string& line);

// "text x3" for three entries of one stream in a row that are the same.
std::vector<Journal::Entry> count_repeats(const std::vector<Journal::Entry>& entries);

// "< OK\r\n", "main: D ...", "1: wait 10 ms", "$ tinymix ...".
std::string shown(const Journal::Entry& entry);

}  // namespace handset
