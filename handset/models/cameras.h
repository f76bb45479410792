// The camera's side of the phone: media devices with their entities, and camera sensors whose power
// the daemon switches. Callable from any thread.

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "handset/links/device.h"

namespace handset {

// One camera sensor sub-device.
class CameraSensor : public Device {
 public:
  static constexpr uint32_t kPowerUp = 0;
  static constexpr uint32_t kPowerDown = 1;
  static constexpr uint32_t kControl = 0xC01856C0;

  // The journal's number of it is also the id that its driver reports, until set_id.
  explicit CameraSensor(int32_t number) : number_(number), id_(number) {}

  void set_id(int32_t id);
  bool powered() const;
  // How often it is open.
  int opened() const;

  // Makes a request fail with an errno from now on; 0 makes it work again.
  void fail(uint32_t request, int error);

  OpenedDevice open(const Caller& caller, int flags) override;

 private:
  friend class CameraSensorFile;

  const int32_t number_;
  mutable std::mutex mutex_;
  int32_t id_;
  bool powered_ = false;
  int opened_ = 0;
  std::map<uint32_t, int> failures_;
};

struct MediaEntity {
  uint32_t id;
  uint32_t type;  // 0x10001 for a camera sensor
  std::string name;
};

// One media device.
class MediaDevice : public Device {
 public:
  MediaDevice(std::string model, std::vector<MediaEntity> entities)
      : model_(std::move(model)), entities_(std::move(entities)) {}

  // The name that it reports; a request manager has one of its own.
  void set_model(const std::string& model);
  // Makes the information request fail with an errno; 0 makes it work again.
  void fail(int error);

  OpenedDevice open(const Caller& caller, int flags) override;

 private:
  friend class MediaFile;

  mutable std::mutex mutex_;
  std::string model_;
  const std::vector<MediaEntity> entities_;
  int information_error_ = 0;
};

// A healthy phone's cameras: one other media device, then the request manager with its sensors,
// ids 0 to 5, at /dev/v4l-subdev0 to 5.
class Cameras {
 public:
  static constexpr int kSensors = 6;

  Cameras();

  CameraSensor& sensor(int number) {
    return sensors_[static_cast<size_t>(number)];
  }

  MediaDevice video;
  MediaDevice request_manager;

 private:
  CameraSensor sensors_[kSensors];
};

}  // namespace handset
