// Writes of class nodes; see class_nodes.h.

#include "handset/class_nodes.h"

#include <errno.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>

namespace handset {

// A whole number, with one line feed behind it at most, as the kernel reads it.
static std::optional<long> whole_number(std::string text) {
  if (text.ends_with("\n")) {
    text.pop_back();
  }
  long number = 0;
  const char* const end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && last == end && number >= 0 ? std::optional(number) : std::nullopt;
}

struct ClassNode {
  const char* path;
  const char* maximum;  // the node with the largest value; null: there is none
  bool clamps;          // a value above it becomes it; otherwise it is refused
};

static const ClassNode kClassNodes[] = {
    {"/sys/class/leds/red/brightness", "/sys/class/leds/red/max_brightness", true},
    {"/sys/class/leds/green/brightness", "/sys/class/leds/green/max_brightness", true},
    {"/sys/class/leds/blue/brightness", "/sys/class/leds/blue/max_brightness", true},
    {"/sys/class/leds/button-backlight/brightness",
     "/sys/class/leds/button-backlight/max_brightness", true},
    {"/sys/class/backlight/panel0-backlight/brightness",
     "/sys/class/backlight/panel0-backlight/max_brightness", false},
    {"/sys/class/leds/vibrator/duration", nullptr, false},
    {"/sys/class/leds/vibrator/activate", nullptr, false},
};

static int store(Nodes* nodes, const ClassNode& node, const std::string& text) {
  std::optional<long> number = whole_number(text);
  if (!number.has_value()) {
    return -EINVAL;
  }
  const std::optional<long> maximum = node.maximum == nullptr
                                          ? std::nullopt
                                          : whole_number(nodes->value(node.maximum).value_or(""));
  if (maximum.has_value() && *number > *maximum) {
    if (!node.clamps) {
      return -EINVAL;
    }
    number = maximum;
  }
  nodes->store(node.path, std::to_string(*number) + "\n");
  return 0;
}

void serve_class_nodes(Nodes* nodes) {
  for (const ClassNode& node : kClassNodes) {
    nodes->on_write(node.path,
                    [nodes, &node](const std::string& text) { return store(nodes, node, text); });
  }
}

}  // namespace handset
