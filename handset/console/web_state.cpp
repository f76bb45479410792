// A phone's state, part by part; see web_state.h.

#include "handset/console/web_state.h"

#include <sys/wait.h>

#include <cstdlib>
#include <utility>

#include "handset/visible.h"

namespace handset {

// The numbers that lie in nodes.
static const std::pair<const char*, const char*> kNodes[] = {
    {"backlight", "/sys/class/backlight/panel0-backlight/brightness"},
    {"backlight_max", "/sys/class/backlight/panel0-backlight/max_brightness"},
    {"key_light", "/sys/class/leds/button-backlight/brightness"},
    {"led_red", "/sys/class/leds/red/brightness"},
    {"led_green", "/sys/class/leds/green/brightness"},
    {"led_blue", "/sys/class/leds/blue/brightness"},
    {"vibrator_ms", "/sys/class/leds/vibrator/duration"},
    {"vibrator", "/sys/class/leds/vibrator/activate"},
    {"rear_flash", "/proc/qcom_flash"},
    {"front_flash", "/sys/devices/platform/soc/2.qcom,camera-flash/fswitch"},
    {"battery_present", "/sys/class/power_supply/battery/present"},
    {"battery_percent", "/sys/class/power_supply/battery/capacity"},
    {"battery_uv", "/sys/class/power_supply/battery/voltage_now"},
    {"battery_tenths", "/sys/class/power_supply/battery/temp"},
    {"usb", "/sys/class/power_supply/usb/online"},
};

static Json::Value nodes_state(const Nodes& nodes) {
  Json::Value state;
  for (const auto& [name, path] : kNodes) {
    const std::optional<std::string> value = nodes.value(path);
    state[name] =
        value.has_value() ? Json::Value(strtol(value->c_str(), nullptr, 10)) : Json::Value();
  }
  return state;
}

static std::string ending_of(int status) {
  return WIFSIGNALED(status) ? std::string("by SIG") + sigabbrev_np(WTERMSIG(status))
                             : "with status " + std::to_string(WEXITSTATUS(status));
}

static Json::Value daemon_state(SharedPhone* phone) {
  Json::Value state;
  state["runs"] = !phone->down();
  state["ready"] = phone->ready();
  state["pid"] = phone->handset.pid();
  state["starts"] = phone->starts();
  const std::optional<int> status = phone->handset.wait_exit(std::chrono::seconds(0));
  state["ended"] = status.has_value() ? Json::Value(ending_of(*status)) : Json::Value();
  return state;
}

static Json::Value power_state(const PowerInterfaces& power) {
  Json::Value state;
  state["asleep"] = power.asleep();
  state["suspends"] = power.suspends();
  state["alarm"] = power.alarm_pending();
  state["locks"] = Json::arrayValue;
  for (const std::string& name : power.wake_locks()) {
    state["locks"].append(visible(name));
  }
  return state;
}

static Json::Value card_state(const MemoryCard& card) {
  struct statfs size;
  if (card.status(&size) != 0) {
    return {};
  }
  Json::Value state;
  const auto block = static_cast<Json::UInt64>(size.f_bsize);
  state["bytes"] = block * size.f_blocks;
  state["free"] = block * size.f_bfree;
  return state;
}

static Json::Value sensors_state(const SensorHub& hub) {
  Json::Value all = Json::arrayValue;
  for (const SensorHub::Sensor& sensor : hub.sensors()) {
    Json::Value state;
    state["name"] = visible(sensor.name);
    state["type"] = visible(sensor.data_type);
    state["values"] = Json::arrayValue;
    for (const float value : sensor.values) {
      state["values"].append(value);
    }
    all.append(state);
  }
  return all;
}

// By the words of ".hub".
static const char* hub_state(const Handset& phone) {
  switch (phone.hub_service.state()) {
    case HubService::State::kRefusing:
      return "refusing";
    case HubService::State::kAbsent:
      return "absent";
    case HubService::State::kOpen:
      break;
  }
  switch (phone.sensors.state()) {
    case SensorHub::State::kSilent:
      return "silent";
    case SensorHub::State::kGarbage:
      return "garbage";
    case SensorHub::State::kHealthy:
      break;
  }
  return "healthy";
}

static Json::Value keys_state(Handset* phone) {
  Json::Value state;
  for (const char* name : {"power", "volup", "voldown"}) {
    const std::optional<Handset::Key> key = phone->key(name);
    state[name] = key->device->held(key->code) ? "held" : "free";
  }
  state["listening"] = phone->power_key.listening() || phone->volume_keys.listening();
  return state;
}

static Json::Value cameras_state(Cameras* cameras) {
  Json::Value all = Json::arrayValue;
  for (int i = 0; i < Cameras::kSensors; ++i) {
    all.append(cameras->sensor(i).powered());
  }
  return all;
}

Json::Value phone_state(SharedPhone* phone) {
  Handset& handset = phone->handset;
  Json::Value state = nodes_state(handset.nodes);
  state["daemon"] = daemon_state(phone);
  state["line"] = handset.serial.desk_tty();
  state["panel"]["lit"] = handset.display.is_lit();
  state["panel"]["version"] =
      2 * handset.display.commits() + (handset.display.is_lit() ? 1 : 0);  // it goes dark by itself
  state["power"] = power_state(handset.power);
  state["card"] = card_state(handset.card);
  state["sensors"] = sensors_state(handset.sensors);
  state["hub"] = hub_state(handset);
  state["keys"] = keys_state(&handset);
  state["cameras"] = cameras_state(&handset.cameras);
  state["waits"] = handset.clock.factor();
  return state;
}

std::string json_text(const Json::Value& value) {
  Json::StreamWriterBuilder form;
  form["indentation"] = "";
  form["precision"] = 7;
  return Json::writeString(form, value);
}

}  // namespace handset
