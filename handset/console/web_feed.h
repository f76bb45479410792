// What the open pages of a phone are told as it happens: its state, and the latest of its journal
// and of its line. Pages read at their own pace; who is too slow misses what has gone meanwhile.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "handset/console/session.h"
#include "handset/console/web_exchanges.h"

namespace handset {

class WebFeed {
 public:
  explicit WebFeed(SharedPhone* phone);

  // On the thread that made the phone: takes up what has happened since the last look, if anybody
  // wants to know.
  void look();
  // The handset itself has something to say of the phone.
  void note(const std::string& text);

  // From any thread from here on.

  // How many want the whole feed, and how many the state only. look() makes no more than that.
  void watch(bool whole, int change);
  bool watched() const;

  // A state's JSON and its number, which a change of the state makes larger; 0: none is known yet.
  struct State {
    uint64_t number = 0;
    std::string json = {};
  };
  State state() const;

  // The text of the events with larger numbers than this, in the form of an event stream, with an
  // event before it where some of them are gone; sets the number to the last one's.
  std::string events_after(uint64_t* number) const;
  uint64_t last_event() const;

  // Journal entries as lines of text from an index on, some of them; sets the index to the next.
  // Empty at the end.
  std::string journal_text(size_t* index) const;

 private:
  struct Event {
    const char* kind;
    std::string json;
  };

  void look_at_journal();
  void add(const char* kind, const Json::Value& value);

  SharedPhone& phone_;
  size_t seen_ = 0;  // entries of the journal
  WebExchanges exchanges_;

  mutable std::mutex mutex_;
  int whole_ = 0;
  int states_ = 0;
  State state_;
  std::deque<Event> events_;
  size_t bytes_ = 0;          // of the events' JSON
  uint64_t last_number_ = 0;  // of the last event; the others count down from it
};

}  // namespace handset
