// Media devices and camera sensors; see cameras.h.

#include "handset/models/cameras.h"

#include <errno.h>
#include <linux/media.h>
#include <string.h>

#include <algorithm>

#include "handset/visible.h"

namespace handset {

static constexpr uint32_t kSensorSubDevice = 0x10001;
static constexpr uint32_t kFlashSubDevice = 0x1000a;

// Of a control request: tell the sensor's id, at an address of the caller's.
static constexpr uint32_t kQueryId = 0x8006;
static constexpr uint32_t kUserPointer = 1;

// ---- Sensors

class CameraSensorFile : public MemoryFile {
 public:
  explicit CameraSensorFile(CameraSensor* sensor) : MemoryFile("camera"), sensor_(sensor) {
    const std::lock_guard lock(sensor_->mutex_);
    ++sensor_->opened_;
  }
  ~CameraSensorFile() override {
    const std::lock_guard lock(sensor_->mutex_);
    --sensor_->opened_;
  }

  int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) override {
    const std::lock_guard lock(sensor_->mutex_);
    const bool power = request == CameraSensor::kPowerUp || request == CameraSensor::kPowerDown;
    if (power) {
      const bool failing = sensor_->failures_.count(request) != 0;
      caller.note("camera " + std::to_string(sensor_->number_) +
                  (request == CameraSensor::kPowerUp ? " power up" : " power down") +
                  (failing ? " = " + error_name(sensor_->failures_.at(request)) : ""));
    }
    if (const auto failure = sensor_->failures_.find(request);
        failure != sensor_->failures_.end()) {
      return -failure->second;
    }
    if (power) {
      sensor_->powered_ = request == CameraSensor::kPowerUp;
      return 0;
    }
    return request == CameraSensor::kControl ? control(caller, argument) : -ENOTTY;
  }

 private:
  int64_t control(const Caller& caller, uint64_t argument) {
    struct {
      uint32_t op_code;
      uint32_t size;
      uint32_t handle_type;
      uint32_t reserved;
      uint64_t handle;
    } record;
    if (!caller.read(argument, &record, sizeof(record))) {
      return -EFAULT;
    }
    if (record.op_code != kQueryId || record.size != sizeof(record) ||
        record.handle_type != kUserPointer) {
      return -EINVAL;
    }
    return caller.write(record.handle, &sensor_->id_, sizeof(sensor_->id_)) ? 0 : -EFAULT;
  }

  CameraSensor* sensor_;
};

void CameraSensor::set_id(int32_t id) {
  const std::lock_guard lock(mutex_);
  id_ = id;
}

bool CameraSensor::powered() const {
  const std::lock_guard lock(mutex_);
  return powered_;
}

int CameraSensor::opened() const {
  const std::lock_guard lock(mutex_);
  return opened_;
}

void CameraSensor::fail(uint32_t request, int error) {
  const std::lock_guard lock(mutex_);
  if (error == 0) {
    failures_.erase(request);
  } else {
    failures_[request] = error;
  }
}

OpenedDevice CameraSensor::open(const Caller&, int) {
  return open_memory_file<CameraSensorFile>(this);
}

// ---- Media devices

class MediaFile : public MemoryFile {
 public:
  explicit MediaFile(const MediaDevice* device) : MemoryFile("media"), device_(device) {}

  int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) override {
    switch (request) {
      case MEDIA_IOC_DEVICE_INFO:
        return information(caller, argument);
      case MEDIA_IOC_ENUM_ENTITIES:
        return entity(caller, argument);
      default:
        return -ENOTTY;
    }
  }

 private:
  int64_t information(const Caller& caller, uint64_t argument) {
    const std::lock_guard lock(device_->mutex_);
    if (device_->information_error_ != 0) {
      return -device_->information_error_;
    }
    media_device_info info = {};
    strncpy(info.driver, "handset", sizeof(info.driver) - 1);
    device_->model_.copy(info.model, sizeof(info.model));
    return caller.write(argument, &info, sizeof(info)) ? 0 : -EFAULT;
  }

  // The entity of the id asked for, or with the flag the one that follows it.
  int64_t entity(const Caller& caller, uint64_t argument) {
    return with_record<media_entity_desc>(
        caller, argument, [&](media_entity_desc* record) { return fill_entity(record); });
  }

  int64_t fill_entity(media_entity_desc* record) const {
    const uint32_t id = record->id & ~MEDIA_ENT_ID_FLAG_NEXT;
    const bool next = (record->id & MEDIA_ENT_ID_FLAG_NEXT) != 0;
    const auto found =
        std::find_if(device_->entities_.begin(), device_->entities_.end(),
                     [&](const MediaEntity& e) { return next ? e.id > id : e.id == id; });
    if (found == device_->entities_.end()) {
      return -EINVAL;
    }
    *record = {};
    record->id = found->id;
    record->type = found->type;
    record->revision = 3;  // these are no two alike, so that none is taken for another
    record->flags = MEDIA_ENT_FL_DEFAULT;
    record->group_id = 7;
    record->pads = 2;
    record->links = 4;
    record->dvb = 81;
    found->name.copy(record->name, sizeof(record->name));
    return 0;
  }

  const MediaDevice* device_;
};

void MediaDevice::set_model(const std::string& model) {
  const std::lock_guard lock(mutex_);
  model_ = model;
}

void MediaDevice::fail(int error) {
  const std::lock_guard lock(mutex_);
  information_error_ = error;
}

OpenedDevice MediaDevice::open(const Caller&, int) {
  return open_memory_file<MediaFile>(this);
}

static std::vector<MediaEntity> sensor_entities() {
  std::vector<MediaEntity> entities = {{1, 0x10000, "cam-req-mgr"}};
  for (int i = 0; i < Cameras::kSensors; ++i) {
    entities.push_back(
        {static_cast<uint32_t>(2 + i), kSensorSubDevice, "v4l-subdev" + std::to_string(i)});
  }
  entities.push_back(
      {2 + Cameras::kSensors, kFlashSubDevice, "v4l-subdev" + std::to_string(Cameras::kSensors)});
  return entities;
}

Cameras::Cameras()
    : video("msm_vidc", {{1, kSensorSubDevice, "no-camera"}}),
      request_manager("cam-req-mgr-devnode", sensor_entities()),
      sensors_{CameraSensor(0), CameraSensor(1), CameraSensor(2),
               CameraSensor(3), CameraSensor(4), CameraSensor(5)} {}

}  // namespace handset
