// The second party of the test tone's session: once the daemon has set the session's property to
// "cmd_off" it answers with "cmd_finish", which lets the daemon's play thread end. Looks at the
// phone's property files on a thread of its own, which alone answers.

#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

namespace handset {

class ToneParty {
 public:
  ~ToneParty();

  // folder is that of the property files; it must stay until the party ends. Throws
  // std::runtime_error where the folder cannot be watched.
  void attend(const std::filesystem::path& folder);
  // False: from its return on it looks on and says nothing. Callable from any thread.
  void set_answering(bool answering);

 private:
  void watch();
  void look();
  std::string session() const;

  std::filesystem::path folder_;
  int events_ = -1;  // the folder's, by inotify
  int wake_ = -1;    // an eventfd: look now
  std::atomic<bool> ended_ = false;
  std::mutex mutex_;  // held while it looks and answers
  bool answering_ = true;
  std::thread thread_;
};

}  // namespace handset
