// Taking up and handing out; see web_feed.h.

#include "handset/console/web_feed.h"

#include <algorithm>
#include <utility>

#include "handset/console/web_state.h"

namespace handset {

constexpr size_t kMostEntries = 500;  // of the journal at one look
constexpr size_t kLongestText = 2000;
constexpr size_t kMostEvents = 1000;
constexpr size_t kMostBytes = 1U << 20;

WebFeed::WebFeed(SharedPhone* phone) : phone_(*phone) {}

void WebFeed::look() {
  if (!watched()) {
    return;
  }
  const std::string now = json_text(phone_state(&phone_));
  {
    const std::lock_guard lock(mutex_);
    if (state_.json != now) {
      state_ = {.number = state_.number + 1, .json = now};
    }
    if (whole_ == 0) {
      return;
    }
  }
  look_at_journal();
}

// However much the daemon does, a look takes up the latest of it only.
void WebFeed::look_at_journal() {
  const size_t size = phone_.handset.journal.size();
  const size_t from = std::max(seen_, size - std::min(size, kMostEntries));
  if (from > seen_) {
    exchanges_.skip();
    if (seen_ > 0) {
      add("skipped", static_cast<Json::UInt64>(from - seen_));
    }
  }
  size_t index = from;
  Json::Value entries = Json::arrayValue;
  for (const Journal::Entry& entry : phone_.handset.journal.since(from, size - from)) {
    exchanges_.add(entry);
    Json::Value one;
    one["n"] = static_cast<Json::UInt64>(index++);
    one["by"] = entry.stream;
    one["text"] =
        entry.text.size() <= kLongestText ? entry.text : entry.text.substr(0, kLongestText) + "...";
    entries.append(one);
  }
  seen_ = size;
  if (!entries.empty()) {
    add("journal", entries);
  }
  for (const Json::Value& exchange : exchanges_.take()) {
    add("exchange", exchange);
  }
}

void WebFeed::note(const std::string& text) {
  add("note", text);
}

void WebFeed::add(const char* kind, const Json::Value& value) {
  const std::lock_guard lock(mutex_);
  events_.push_back({kind, json_text(value)});
  bytes_ += events_.back().json.size();
  ++last_number_;
  while (events_.size() > kMostEvents || bytes_ > kMostBytes) {
    bytes_ -= events_.front().json.size();
    events_.pop_front();
  }
}

void WebFeed::watch(bool whole, int change) {
  const std::lock_guard lock(mutex_);
  (whole ? whole_ : states_) += change;
}

bool WebFeed::watched() const {
  const std::lock_guard lock(mutex_);
  return whole_ + states_ > 0;
}

WebFeed::State WebFeed::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

std::string WebFeed::events_after(uint64_t* number) const {
  const std::lock_guard lock(mutex_);
  std::string text;
  const uint64_t before_first = last_number_ - events_.size();
  if (*number > last_number_) {
    *number = 0;  // counted by another handset
  }
  if (*number < before_first) {
    text += *number > 0 ? "event: skipped\ndata: null\n\n" : "";
    *number = before_first;
  }
  for (; *number < last_number_; ++*number) {
    const Event& event = events_[*number - before_first];
    text += "id: " + std::to_string(*number + 1) + "\nevent: " + event.kind +
            "\ndata: " + event.json + "\n\n";
  }
  return text;
}

uint64_t WebFeed::last_event() const {
  const std::lock_guard lock(mutex_);
  return last_number_;
}

std::string WebFeed::journal_text(size_t* index) const {
  constexpr size_t kSome = 1000;
  *index = std::max(*index, phone_.handset.journal.gone());
  std::string text;
  for (const Journal::Entry& entry : phone_.handset.journal.since(*index, kSome)) {
    text += shown(entry) + "\n";
    ++*index;
  }
  return text;
}

}  // namespace handset
