// The other party of the test tone's session: once the daemon has set the session's property to
// "cmd_off" it answers with "cmd_finish", which lets the daemon's play thread end. Looks at the
// phone's property files on a thread of its own.

#pragma once

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

namespace handset {

class ToneParty {
 public:
  ~ToneParty();

  // folder is that of the property files; it must stay until the party ends.
  void attend(const std::filesystem::path& folder);
  // False: it looks on and says nothing.
  void set_answering(bool answering);

 private:
  void watch(int events);
  void look() const;

  std::filesystem::path folder_;
  std::atomic<bool> answering_ = true;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace handset
