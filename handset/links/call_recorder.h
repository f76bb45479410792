// Says to the journal what the trapped calls do: who made them is a thread of the daemon, a process
// that it has started, or nobody of interest. Runs on the supervisor's thread, after a call's
// answer is known and before it is given.

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

#include "handset/journal.h"
#include "handset/links/supervisor.h"

namespace handset {

class CallRecorder {
 public:
  explicit CallRecorder(Journal* journal) : journal_(journal) {}

  // Before the daemon of this process id makes its first call. root is where the phone's root lies
  // on the desk.
  void begin(pid_t daemon, const std::filesystem::path& root);

  void record(const TrappedCall& call, const Answer& answer);

 private:
  using Text = std::string (CallRecorder::*)(const TrappedCall&) const;
  struct Call {
    int number;
    Text text;  // empty: nothing to say
  };
  static const Call kCalls[];

  bool is_daemon(pid_t thread) const;
  void record_program(const TrappedCall& call);
  void note_clone(const TrappedCall& call, const Answer& answer);

  std::string written(const TrappedCall& call) const;
  std::string written_parts(const TrappedCall& call) const;
  std::string opened(const TrappedCall& call) const;
  std::string read_from(const TrappedCall& call) const;
  std::string sought(const TrappedCall& call) const;
  std::string synced(const TrappedCall& call) const;
  std::string cut(const TrappedCall& call) const;
  std::string removed(const TrappedCall& call) const;
  std::string folder_made(const TrappedCall& call) const;
  std::string renamed(const TrappedCall& call) const;
  std::string mode_changed(const TrappedCall& call) const;
  std::string open_mode_changed(const TrappedCall& call) const;
  std::string owner_changed(const TrappedCall& call) const;
  std::string waited(const TrappedCall& call) const;
  std::string all_synced(const TrappedCall& call) const;

  Journal* journal_;
  std::filesystem::path root_;
  pid_t daemon_ = 0;
  pid_t starting_ = 0;  // the thread that is starting a process
};

}  // namespace handset
