// Watches the system calls that a phone's daemon makes, all its threads and its children up to
// their exec, and makes one of them fail or go short.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "handset/handset.h"

// A call that can fail in a phone, and how.
struct CallKind {
  int number;
  const char* name;
  std::vector<int> errors;
  bool moves_bytes = false;  // and can therefore be short
};

// All of them. Null where there is none of that number or name.
const CallKind* call_kind(int number);
const CallKind* call_kind(const std::string& name);

// The k-th call of a kind, from 1 on.
struct Call {
  const CallKind* kind;
  int k;
  std::string on;  // the file or whatever else it is on
  bool is_short;   // it can be
};

struct CallFault {
  const CallKind* kind;
  int k;
  int error;  // 0: it moves fewer bytes than asked for
};

class CallWatch {
 public:
  // Before the phone's start. The phone must not outlive the watch.
  void attach(handset::Handset* phone);

  // From now on calls are counted, and one of them may fail.
  void begin(const std::optional<CallFault>& fault);
  // Until now. The calls in their order.
  std::vector<Call> end();

  // How many have been seen since begin.
  size_t seen() const;
  // The call that has been made to fail, if it has come.
  std::optional<Call> struck() const;

 private:
  handset::Answer on_call(const handset::TrappedCall& call);
  bool is_daemons(const handset::TrappedCall& call);
  handset::Answer strike(const handset::TrappedCall& call, const Call& struck) const;

  handset::Handset* phone_ = nullptr;
  mutable std::mutex mutex_;
  bool active_ = false;
  std::optional<CallFault> fault_;
  std::optional<Call> struck_;
  std::vector<Call> calls_;
  std::map<int, int> counts_;       // by number
  std::map<pid_t, bool> children_;  // the daemon's own until their exec
};
