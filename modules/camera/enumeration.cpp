// Finds the camera sensors at start-up: walks the media devices to the camera request manager,
// opens every sensor below it, asks its driver for the camera id, and gives each role a camera.

#include <errno.h>
#include <fcntl.h>
#include <linux/media.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "core/bounded.h"
#include "core/log.h"
#include "core/unique.h"
#include "modules/camera/camera.h"

static const char kRequestManager[] = "cam-req-mgr-devnode";
static const char kConfiguration[] = "/odm/etc/camera/CameraHWConfiguration.config";
static const char kSequenceKey[] = "CameraSequence";
static constexpr size_t kConfigurationLine = 100;  // characters

static constexpr uint32_t kSensorSubDevice = 0x10001;
static constexpr int kCameras = 16;

// The driver's control record (camera sensor sub-device).
struct CamControl {
  uint32_t op_code;
  uint32_t size;
  uint32_t handle_type;
  uint32_t reserved;
  uint64_t handle;  // address of the result
};
static_assert(sizeof(CamControl) == 24, "the driver's layout");
static constexpr unsigned long kCamControl = 0xC01856C0;
static constexpr uint32_t kQueryCameraId = 0x8006;

struct Sensor {
  char path[40];
  int32_t camera_id;
};

static std::vector<Sensor> sensors;
// Open for the life of the process: their numbers are what the commands drive.
static int32_t camera_device_fds[kCameras];  // by camera id
static int32_t camera_role_fds[kCameras];    // by role

int camera_role_fd(CameraRole role) {
  return camera_role_fds[role];
}

// The number is kept taken by a file that refuses every request: a later command on the slot fails
// as on a closed descriptor, and cannot hit another file that was given the number meanwhile. Where
// that file cannot be had, the descriptor is just closed.
void close_camera_role(CameraRole role) {
  const int fd = camera_role_fds[role];
  if (fd < 0) {
    return;
  }
  const UniqueFd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!nothing.ok() || dup3(nothing.get(), fd, O_CLOEXEC) < 0) {
    close(fd);
  }
}

// Asks the driver for the camera id; -1 is the id when it tells none. Returns the request's result.
static int query_camera_id(int fd, int32_t* camera_id) {
  uint32_t result[256] = {UINT32_MAX};
  CamControl control = {.op_code = kQueryCameraId,
                        .size = sizeof(CamControl),
                        .handle_type = 1,
                        .reserved = 0,
                        .handle = reinterpret_cast<uintptr_t>(result)};
  const int rc = ioctl(fd, kCamControl, &control);
  *camera_id = static_cast<int32_t>(result[0]);
  return rc;
}

static void add_sensor(const char* entity_name) {
  Sensor sensor = {};
  bounded_format(sensor.path, sizeof(sensor.path), "/dev/%s", entity_name);
  UniqueFd fd(open(sensor.path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (fd.ok()) {
    FTM_LOGD("CAM-AT open %s success ", sensor.path);
  } else {
    FTM_LOGE("CAM-AT open %s fail", sensor.path);
  }
  const int opened = fd.get();
  const int rc = query_camera_id(opened, &sensor.camera_id);
  // An id without a slot is refused; its descriptor is closed when this returns. Of two sensors
  // with one id the later one has the slot, and the first one's descriptor, which no command could
  // reach any more, is closed.
  if (sensor.camera_id >= 0 && sensor.camera_id < kCameras) {
    const UniqueFd replaced(camera_device_fds[sensor.camera_id]);
    camera_device_fds[sensor.camera_id] = fd.release();
  }
  FTM_LOGD("Find sensor CamSubDeV[%d] %s --> cameraId %d open fd : %d rc = %d ",
           static_cast<int>(sensors.size()), sensor.path, sensor.camera_id, opened, rc);
  sensors.push_back(sensor);
}

static void enumerate_entities(int media) {
  uint32_t id = 1;
  for (;;) {
    media_entity_desc entity = {};
    entity.id = id;
    if (ioctl(media, MEDIA_IOC_ENUM_ENTITIES, &entity) < 0) {
      FTM_LOGD("media device enumerate entities failed %d", errno);
      return;
    }
    char name[sizeof(entity.name) + 1] = {};
    memcpy(name, entity.name, sizeof(entity.name));
    FTM_LOGD("entity id %d", entity.id);
    FTM_LOGD(
        "entity name %s type %d, group id %d, revision %d,entity flags %d,entity pads %d,entity "
        "dvb %d,entity links %d",
        name, entity.type, entity.group_id, entity.revision, entity.flags, entity.pads, entity.dvb,
        entity.links);
    if (entity.type == kSensorSubDevice) {
      add_sensor(name);
    }
    id = entity.id | MEDIA_ENT_ID_FLAG_NEXT;
  }
}

// Every decimal digit of the configuration's sequence line is one camera id, in order of the roles.
// False when there is no such line or it has no digit.
static bool map_roles_by_configuration() {
  const UniqueFile file(fopen(kConfiguration, "re"));
  if (file == nullptr) {
    FTM_LOGE("File opening failed, file does not exist");
    return false;
  }
  char line[kConfigurationLine + 1];
  while (fgets(line, sizeof(line), file.get()) != nullptr) {
    if (strstr(line, kSequenceKey) == nullptr) {
      continue;
    }
    int role = 0;
    for (const char* c = line; *c != '\0' && role < kCameras; ++c) {
      if (*c >= '0' && *c <= '9') {
        camera_role_fds[role++] = camera_device_fds[*c - '0'];
      }
    }
    if (role > 0) {
      std::fill(camera_role_fds + role, camera_role_fds + kCameras, -1);
    }
    return role > 0;
  }
  return false;
}

void find_cameras() {
  std::fill(std::begin(camera_role_fds), std::end(camera_role_fds), -1);
  std::fill(std::begin(camera_device_fds), std::end(camera_device_fds), -1);
  sensors.clear();
  for (int n = 0;; ++n) {
    char path[32];
    bounded_format(path, sizeof(path), "/dev/media%d", n);
    UniqueFd media(open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!media.ok()) {
      FTM_LOGD("No more media devices found on %s,error:%s", path, strerror(errno));
      return;
    }
    media_device_info info = {};
    if (ioctl(media.get(), MEDIA_IOC_DEVICE_INFO, &info) < 0) {
      FTM_LOGE("media device get device info failed");
      continue;
    }
    char model[sizeof(info.model) + 1] = {};
    memcpy(model, info.model, sizeof(info.model));
    FTM_LOGD("media devices found on %s and name = %s", path, model);
    if (strcmp(model, kRequestManager) != 0) {
      continue;
    }
    enumerate_entities(media.get());
    media.reset();
    if (!map_roles_by_configuration()) {
      std::copy(std::begin(camera_device_fds), std::end(camera_device_fds), camera_role_fds);
    }
  }
}
