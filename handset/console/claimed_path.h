// Paths of the desk that a running handset has for itself, and what a killed one left there.

#pragma once

#include <string>

namespace handset {

// A path that no other handset may have meanwhile. The kernel lets go of it when the process ends,
// however that happens.
class ClaimedPath {
 public:
  // Throws std::runtime_error when another handset has it.
  explicit ClaimedPath(const std::string& path);
  ~ClaimedPath();
  ClaimedPath(const ClaimedPath&) = delete;
  ClaimedPath& operator=(const ClaimedPath&) = delete;

  const std::string& path() const {
    return path_;
  }

 private:
  std::string path_;  // absolute
  int lock_ = -1;
};

// A symbolic link to a tty, for as long as the object lives.
class TtyLink {
 public:
  // Takes the place of a link that a killed handset left. Throws std::runtime_error when anything
  // else is there, or the link cannot be made.
  TtyLink(const std::string& path, const std::string& tty);
  ~TtyLink();
  TtyLink(const TtyLink&) = delete;
  TtyLink& operator=(const TtyLink&) = delete;

 private:
  ClaimedPath claim_;
  std::string tty_;
};

}  // namespace handset
