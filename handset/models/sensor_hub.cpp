// Sensors, lookups, attributes and samples; see sensor_hub.h.

#include "handset/models/sensor_hub.h"

#include <sensor_hub.pb.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace handset {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

static constexpr uint64_t kLookupSuid = 0xABABABABABABABAB;  // both halves
static constexpr uint64_t kSuidHigh = 0x5E45084855B00000;
static constexpr uint64_t kSuidLow = 0x1100;  // of the first sensor

enum MessageId : uint32_t {
  kLookupRequest = 512,
  kAttributeRequest = 1,
  kAttributeEvent = 128,
  kEnableRequest = 513,
  kConfigEcho = 513,
  kSuidEvent = 768,
  kPhysicalConfigEvent = 768,
  kProximityEvent = 769,
  kHallEvent = 770,
};

enum AttributeId : int32_t {
  kName = 0,
  kVendor = 1,
  kDataType = 2,
  kAvailable = 3,
  kRates = 6,
  kRanges = 8,
  kAxes = 13,
  kEmptyValue = 17,
  kHardwareId = 19,
};

// ---- messages

static std::string event_message(uint64_t low, uint64_t high,
                                 const std::vector<std::pair<uint32_t, std::string>>& events) {
  sns_client_event_msg message;
  message.mutable_suid()->set_low(low);
  message.mutable_suid()->set_high(high);
  for (const auto& [msg_id, payload] : events) {
    auto* event = message.add_events();
    event->set_msg_id(msg_id);
    event->set_timestamp(static_cast<uint64_t>(steady_clock::now().time_since_epoch().count()));
    event->set_payload(payload);
  }
  return message.SerializeAsString();
}

// What a sensor tells of itself: values of every kind, and ranges as lists in a list.
static std::string attributes(const SensorHub::Sensor& sensor) {
  sns_std_attr_event event;
  const auto add = [&event](AttributeId id) {
    auto* attribute = event.add_attributes();
    attribute->set_attr_id(id);
    return attribute->mutable_value();
  };
  add(kName)->add_values()->set_text(sensor.name);
  add(kVendor)->add_values()->set_text("handset");
  add(kDataType)->add_values()->set_text(sensor.data_type);
  add(kAvailable)->add_values()->set_boolean(true);
  auto* rates = add(kRates);
  for (const float rate : {1.0F, 10.0F, 100.0F}) {
    rates->add_values()->set_real(rate);
  }
  auto* ranges = add(kRanges);
  for (const float range : {19.6F, 78.4F}) {
    auto* limits = ranges->add_values()->mutable_nested();
    limits->add_values()->set_real(-range);
    limits->add_values()->set_real(range);
  }
  add(kAxes)->add_values()->set_integer(static_cast<int64_t>(sensor.values.size()));
  add(kEmptyValue)->add_values();  // a value that is present and holds nothing
  if (sensor.hardware_id.has_value()) {
    add(kHardwareId)->add_values()->set_integer(*sensor.hardware_id);
  }
  return event.SerializeAsString();
}

static std::string measured(const SensorHub::Sensor& sensor) {
  const auto value = [&sensor](size_t i) {
    constexpr float kLargest = 4294967040.0F;  // of the floats that an uint32_t can hold
    const float asked = i < sensor.values.size() ? sensor.values[i] : 0;
    return asked > 0 ? static_cast<uint32_t>(std::min(asked, kLargest)) : 0U;
  };
  if (sensor.event == kProximityEvent) {
    sns_proximity_event event;
    event.set_state(1);
    event.set_raw_adc(value(0));
    event.set_status(value(1));
    return event.SerializeAsString();
  }
  if (sensor.event == kHallEvent) {
    sns_hall_event event;
    event.set_state(value(0));
    event.set_accuracy(value(1));
    return event.SerializeAsString();
  }
  sns_std_sensor_event event;
  for (const float one : sensor.values) {
    event.add_data(one);
  }
  event.set_status(3);
  return event.SerializeAsString();
}

// ---- sensors and settings

// Throws std::exception on a line that describes none.
static SensorHub::Sensor parse_sensor(const std::string& line) {
  std::istringstream words(line);
  SensorHub::Sensor sensor;
  std::string hardware_id;
  std::string event;
  if (!(words >> sensor.name >> sensor.data_type >> hardware_id >> event)) {
    throw std::invalid_argument("too few words");
  }
  sensor.hardware_id.reset();
  if (hardware_id != "-") {
    sensor.hardware_id = std::stoll(hardware_id);
  }
  sensor.event = event == "-" ? 0 : static_cast<uint32_t>(std::stoul(event));
  for (float value; words >> value;) {
    sensor.values.push_back(value);
  }
  return sensor;
}

static std::vector<SensorHub::Sensor> parse_sensors(const std::filesystem::path& file) {
  std::vector<SensorHub::Sensor> sensors;
  std::ifstream stream(file);
  std::string line;
  while (std::getline(stream, line)) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    try {
      sensors.push_back(parse_sensor(line));
    } catch (const std::exception&) {
      throw std::runtime_error(file.string() + " describes no sensor with: " + line);
    }
  }
  if (!stream.eof()) {
    throw std::runtime_error("cannot read " + file.string());
  }
  return sensors;
}

void SensorHub::read_sensors(const std::filesystem::path& file) {
  std::vector<Sensor> sensors = parse_sensors(file);
  const std::lock_guard lock(mutex_);
  sensors_ = std::move(sensors);
}

std::vector<SensorHub::Sensor> SensorHub::sensors() const {
  const std::lock_guard lock(mutex_);
  return sensors_;
}

SensorHub::Sensor* SensorHub::find(const std::string& name) {
  const auto found = std::find_if(sensors_.begin(), sensors_.end(),
                                  [&](const Sensor& sensor) { return sensor.name == name; });
  return found == sensors_.end() ? nullptr : &*found;
}

void SensorHub::set_sensor(const Sensor& sensor) {
  const std::lock_guard lock(mutex_);
  if (Sensor* known = find(sensor.name); known != nullptr) {
    *known = sensor;
  } else {
    sensors_.push_back(sensor);
  }
}

bool SensorHub::set_values(const std::string& name, const std::vector<float>& values) {
  const std::lock_guard lock(mutex_);
  Sensor* sensor = find(name);
  if (sensor != nullptr) {
    sensor->values = values;
  }
  return sensor != nullptr;
}

bool SensorHub::set_late(const std::string& name, milliseconds late) {
  const std::lock_guard lock(mutex_);
  Sensor* sensor = find(name);
  if (sensor != nullptr) {
    sensor->late = late;
  }
  return sensor != nullptr;
}

void SensorHub::remove_sensor(const std::string& name) {
  const std::lock_guard lock(mutex_);
  std::erase_if(sensors_, [&](const Sensor& sensor) { return sensor.name == name; });
}

SensorHub::State SensorHub::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void SensorHub::set_state(State state) {
  const std::lock_guard lock(mutex_);
  state_ = state;
}

void SensorHub::set_sample_period(std::chrono::microseconds period) {
  const std::lock_guard lock(mutex_);
  sample_period_ = period;
}

void SensorHub::set_extra_events(const std::vector<uint32_t>& ids) {
  const std::lock_guard lock(mutex_);
  extra_events_ = ids;
}

uint64_t SensorHub::suid_low(const Sensor& sensor) const {
  return kSuidLow + static_cast<uint64_t>(&sensor - sensors_.data());
}

const SensorHub::Sensor* SensorHub::find(uint64_t low, uint64_t high) const {
  const auto found = std::find_if(sensors_.begin(), sensors_.end(), [&](const Sensor& sensor) {
    return high == kSuidHigh && low == suid_low(sensor);
  });
  return found == sensors_.end() ? nullptr : &*found;
}

// ---- answers

// As a hub in its right mind would send it, or not.
std::string SensorHub::spoilt(std::string message) {
  if (state_ != State::kGarbage || message.empty()) {
    return message;
  }
  const size_t place = random_() % message.size();
  switch (random_() % 4) {
    case 0:
      return message.substr(0, place);
    case 1:
      message[place] = static_cast<char>(random_());
      return message;
    case 2:
      return message + std::string(1200 - std::min<size_t>(message.size(), 1200), '\xff');
    default:
      std::generate(message.begin(), message.end(),
                    [this] { return static_cast<char>(random_()); });
      return message;
  }
}

static bool is_lookup(const sns_client_request_msg& message) {
  return message.suid().low() == kLookupSuid && message.suid().high() == kLookupSuid &&
         message.msg_id() == kLookupRequest;
}

std::optional<SensorHub::Reply> SensorHub::answer(const std::string& message) {
  sns_client_request_msg parsed;
  if (!parsed.ParseFromString(message)) {
    return std::nullopt;
  }
  const std::lock_guard lock(mutex_);
  const std::string& payload = parsed.request().payload();
  const Sensor* sensor = find(parsed.suid().low(), parsed.suid().high());
  Reply reply;
  if (is_lookup(parsed)) {
    reply = lookup(payload);
  } else if (sensor != nullptr && parsed.msg_id() == kAttributeRequest) {
    reply = tell_attributes(*sensor);
  } else if (sensor != nullptr && parsed.msg_id() == kEnableRequest) {
    reply = enable(*sensor, payload);
  }
  if (state_ == State::kSilent) {
    return std::nullopt;
  }
  for (std::string& event : reply.events) {
    event = spoilt(std::move(event));
  }
  return reply;
}

std::string SensorHub::describe(const std::string& message) const {
  sns_client_request_msg parsed;
  if (!parsed.ParseFromString(message)) {
    return "nonsense";
  }
  const std::string& payload = parsed.request().payload();
  if (is_lookup(parsed)) {
    sns_suid_req lookup;
    lookup.ParseFromString(payload);
    return "lookup " + lookup.data_type() + (lookup.default_only() ? " default" : " all");
  }
  const std::lock_guard lock(mutex_);
  const Sensor* sensor = find(parsed.suid().low(), parsed.suid().high());
  const std::string name = sensor == nullptr ? "unknown" : sensor->name;
  if (parsed.msg_id() == kAttributeRequest) {
    return "attributes " + name;
  }
  sns_sample_rate_config config;
  config.ParseFromString(payload);
  std::ostringstream text;
  text << "message " << parsed.msg_id() << " " << name << " " << config.sample_rate() << " Hz";
  return text.str();
}

// The event that tells which sensors of the type there are that long after a lookup.
std::string SensorHub::found(const std::string& data_type, bool default_only,
                             milliseconds after) const {
  sns_suid_event event;
  event.set_data_type(data_type);
  for (const Sensor& sensor : sensors_) {
    if (sensor.data_type == data_type && sensor.late <= after &&
        !(default_only && event.suids_size() > 0)) {
      auto* suid = event.add_suids();
      suid->set_low(suid_low(sensor));
      suid->set_high(kSuidHigh);
    }
  }
  return event_message(kLookupSuid, kLookupSuid, {{kSuidEvent, event.SerializeAsString()}});
}

SensorHub::Reply SensorHub::lookup(const std::string& payload) {
  sns_suid_req lookup;
  lookup.ParseFromString(payload);
  milliseconds latest{0};
  for (const Sensor& sensor : sensors_) {
    latest = sensor.data_type == lookup.data_type() ? std::max(latest, sensor.late) : latest;
  }
  Reply reply = {.events = {found(lookup.data_type(), lookup.default_only(), milliseconds(0))}};
  if (lookup.register_updates() && latest.count() > 0) {
    reply.later = {.event = found(lookup.data_type(), lookup.default_only(), latest),
                   .delay = latest};
  }
  return reply;
}

SensorHub::Reply SensorHub::tell_attributes(const Sensor& sensor) {
  return {.events = {
              event_message(suid_low(sensor), kSuidHigh, {{kAttributeEvent, attributes(sensor)}})}};
}

// Echoes the configuration, tells what became of it, and begins to stream.
SensorHub::Reply SensorHub::enable(const Sensor& sensor, const std::string& payload) {
  sns_sample_rate_config asked;
  asked.ParseFromString(payload);
  const float rate = asked.sample_rate();
  if (!(rate > 0)) {
    return {};
  }
  sns_sample_rate_config echo;
  echo.set_sample_rate(rate);
  sns_physical_config_event config;
  config.set_sample_rate(rate);
  config.set_water_mark(1);
  config.add_range(-78.4F);
  config.add_range(78.4F);
  config.set_operation_mode("NORMAL");
  config.set_stream_is_synchronous(false);
  Reply reply;
  reply.events.push_back(event_message(suid_low(sensor), kSuidHigh,
                                       {{kConfigEcho, echo.SerializeAsString()},
                                        {kPhysicalConfigEvent, config.SerializeAsString()}}));
  for (const uint32_t extra : extra_events_) {
    reply.events.push_back(event_message(suid_low(sensor), kSuidHigh, {{extra, ""}}));
  }
  if (sensor.event != 0) {
    const nanoseconds asked_for =
        std::chrono::duration_cast<nanoseconds>(std::chrono::duration<float>(1 / rate));
    reply.stream = {.sensor = sensor.name,
                    .period = sample_period_.count() > 0 ? nanoseconds(sample_period_) : asked_for};
  }
  return reply;
}

std::optional<std::string> SensorHub::sample(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const Sensor* sensor = find(name);
  if (sensor == nullptr) {
    return std::nullopt;
  }
  return spoilt(event_message(suid_low(*sensor), kSuidHigh, {{sensor->event, measured(*sensor)}}));
}

}  // namespace handset
