// What goes over a phone's line, told from its journal: each line that the daemon has taken,
// whoever sent it, with the replies since and what the command table says of them.

#pragma once

#include <json/json.h>

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "handset/journal.h"

namespace handset {

class WebExchanges {
 public:
  // The next entry of the journal.
  void add(const Journal::Entry& entry);
  // Entries are left out: later replies belong to no line that is known.
  void skip();
  // The exchanges that have begun or got a reply since the last take, the latest few at most:
  // {"id", "sent", "replies", "result", ...}. The result is "pass", "fail", "open" while replies
  // are awaited, "undefined", or "unknown" for what the table does not have.
  std::vector<Json::Value> take();

 private:
  struct Exchange {
    size_t id = 0;
    std::string sent;                  // as visible() shows them
    std::vector<std::string> replies;  // the same
  };

  Json::Value judged(const Exchange& exchange);

  size_t last_id_ = 0;
  std::deque<Exchange> changed_;
  bool in_exchange_ = false;
  Exchange current_;
  std::map<std::string, Json::Value> judgements_;  // by what was sent and replied
};

}  // namespace handset
