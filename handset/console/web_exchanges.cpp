// Lines, replies and their outcomes; see web_exchanges.h.

#include "handset/console/web_exchanges.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "handset/console/command_table.h"
#include "handset/console/dot_commands.h"
#include "handset/visible.h"

namespace handset {

// Both ends of the log line in which the daemon says what it has read.
static constexpr std::string_view kTaken = "D [FTM-AT]at_command_thread, buf : ";
static constexpr std::string_view kTakenEnd = "\\n";
static constexpr std::string_view kReply = "< ";

static constexpr size_t kMostTaken = 20;         // exchanges at once
static constexpr size_t kMostReplies = 100;      // of one exchange
static constexpr size_t kMostJudgements = 1000;  // then they are made anew

void WebExchanges::add(const Journal::Entry& entry) {
  const std::string_view text = entry.text;
  if (entry.stream.empty() && text.starts_with(kTaken)) {
    std::string_view sent = text.substr(kTaken.size());
    sent.remove_suffix(sent.ends_with(kTakenEnd) ? kTakenEnd.size() : 0);
    current_ = {.id = ++last_id_, .sent = std::string(sent), .replies = {}};
    in_exchange_ = true;
  } else if (in_exchange_ && text.starts_with(kReply) && current_.replies.size() < kMostReplies) {
    current_.replies.emplace_back(text.substr(kReply.size()));
  } else {
    return;
  }
  if (!changed_.empty() && changed_.back().id == current_.id) {
    changed_.pop_back();
  }
  changed_.push_back(current_);
  if (changed_.size() > kMostTaken) {
    changed_.pop_front();
  }
}

void WebExchanges::skip() {
  in_exchange_ = false;
}

std::vector<Json::Value> WebExchanges::take() {
  std::vector<Json::Value> all;
  for (const Exchange& exchange : changed_) {
    Json::Value one = judged(exchange);
    one["id"] = static_cast<Json::UInt64>(exchange.id);
    all.push_back(one);
  }
  changed_.clear();
  return all;
}

// The bytes that the journal's text stands for; a text that was cut within an escape stays.
static std::string bytes_of(const std::string& text) {
  try {
    return unescaped(text);
  } catch (const std::invalid_argument&) {
    return text;
  }
}

static Json::Value outcome_json(const Outcome& outcome) {
  Json::Value made;
  made["result"] = outcome.result;
  made["name"] = outcome.name;
  made["meaning"] = outcome.meaning;
  made["remedy"] = outcome.remedy;
  made["fields"] = Json::arrayValue;
  for (const ToldField& field : outcome.fields) {
    Json::Value one;
    one["name"] = field.name;
    one["value"] = visible(field.value);
    one["unit"] = field.unit;
    one["meaning"] = field.meaning;
    made["fields"].append(one);
  }
  return made;
}

// One word for the whole.
static std::string result_of(const Judgement& judgement, const std::vector<std::string>& replies) {
  if (std::find(replies.begin(), replies.end(), "UNDEFINED COMMAND\n") != replies.end()) {
    return "undefined";
  }
  if (!judgement.outcomes.empty()) {
    return judgement.complete ? judgement.outcomes.front().result : "open";
  }
  return replies.empty() ? "open" : "unknown";
}

Json::Value WebExchanges::judged(const Exchange& exchange) {
  std::string key = exchange.sent;
  std::vector<std::string> replies;
  for (const std::string& reply : exchange.replies) {
    key += "\n" + reply;
    replies.push_back(bytes_of(reply));
  }
  if (const auto known = judgements_.find(key); known != judgements_.end()) {
    return known->second;
  }
  const Judgement judgement = command_table().judge({bytes_of(exchange.sent), replies});
  Json::Value made;
  made["sent"] = exchange.sent;
  made["replies"] = Json::arrayValue;
  for (const std::string& reply : exchange.replies) {
    made["replies"].append(reply);
  }
  made["result"] = result_of(judgement, replies);
  made["outcomes"] = Json::arrayValue;
  for (const Outcome& outcome : judgement.outcomes) {
    if (judgement.complete) {
      made["outcomes"].append(outcome_json(outcome));
    }
  }
  if (judgements_.size() >= kMostJudgements) {
    judgements_.clear();
  }
  return judgements_[key] = made;
}

}  // namespace handset
