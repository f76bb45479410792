// Lines that pages send: handed over by the server's threads, carried out by the one that serves
// the phones, each in a session of its own, so that a key can be pressed while a command waits for
// it.

#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "handset/console/session.h"

namespace handset {

class WebLines {
 public:
  struct Result {
    bool carried_out = false;
    std::string said = {};  // lines, each with its end
  };

  WebLines();
  ~WebLines();
  WebLines(const WebLines&) = delete;
  WebLines& operator=(const WebLines&) = delete;

  // Hands a line over and waits until it is carried out. It is refused when too many are under way,
  // when it reaches files of the desk, and once the handset ends. From any thread but the serving
  // one.
  Result run(SharedPhone* phone, const std::string& line);

  // On the thread that made the phones.

  // Goes on with all lines.
  void go_on();
  bool busy() const;
  // Becomes readable when a line is handed over.
  int descriptor() const {
    return handed_over_;
  }
  // Refuses those under way and whatever comes.
  void end();

 private:
  struct Line {
    SharedPhone* phone;
    std::string text;
    std::ostringstream said = {};
    std::unique_ptr<Session> session = nullptr;  // once it is begun
    bool done = false;
    Result result = {};
  };

  static bool go_on_with(Line* line);

  mutable std::mutex mutex_;
  std::condition_variable done_;
  std::list<Line> lines_;
  bool ended_ = false;
  int handed_over_ = -1;
};

}  // namespace handset
