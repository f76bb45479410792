// Lists of what has happened in a phone, for those who look: bounded, because a handset may serve a
// line for weeks.

#pragma once

#include <cstddef>
#include <utility>

namespace handset {

constexpr size_t kMostRecent = 100'000;

// Appends to a list, or to a text. One that would exceed most entries loses its older half first.
// Returns how many entries went.
template <typename List, typename Entry>
size_t add_recent(List* list, Entry&& entry, size_t most = kMostRecent) {
  size_t gone = 0;
  if (list->size() >= most) {
    gone = list->size() - most / 2;
    list->erase(list->begin(), list->begin() + static_cast<std::ptrdiff_t>(gone));
  }
  list->push_back(std::forward<Entry>(entry));
  return gone;
}

}  // namespace handset
