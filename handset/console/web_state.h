// What the page shows of a phone: its parts as they are now, as JSON.

#pragma once

#include <json/json.h>

#include <string>

#include "handset/console/session.h"

namespace handset {

// On the thread that made the phone. Members that a phone lacks, as a node that was taken away, are
// null.
Json::Value phone_state(SharedPhone* phone);

// On one line.
std::string json_text(const Json::Value& value);

}  // namespace handset
