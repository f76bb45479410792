// Holds replies to the command table: a process of protocol/judge.py that is asked line by line.

#pragma once

#include <stdio.h>
#include <sys/types.h>

#include <string>

class Judge {
 public:
  // Throws std::runtime_error where the process cannot be started.
  Judge();
  ~Judge();
  Judge(const Judge&) = delete;
  Judge& operator=(const Judge&) = delete;

  enum class Result { kNone, kFail, kPass };

  // Which kind of its command's outcomes an exchange is, if it is one: what was sent and each reply
  // as Journal entries show them, tabs between, "!" at the end where the daemon has ended.
  Result result(const std::string& exchange);
  bool is_outcome(const std::string& exchange) {
    return result(exchange) != Result::kNone;
  }

 private:
  pid_t process_ = 0;
  FILE* to_ = nullptr;
  FILE* from_ = nullptr;
};
