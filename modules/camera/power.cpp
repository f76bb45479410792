// Sensor power, up and down. One body for each direction; how the cameras' handlers differ stands
// in a table, and every difference is kept as it stands.

#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>

#include "core/at.h"
#include "core/log.h"
#include "modules/camera/camera.h"

// The driver's two bare request numbers, without an argument.
#define VIDIOC_CAM_FTM_POWNER_UP 0
#define VIDIOC_CAM_FTM_POWNER_DOWN 1

struct CameraDifferences {
  bool start_with_line = false;       // the start line carries a source line number
  bool up_checks_descriptor = false;  // before the request
  bool up_failure_closes = false;     // the descriptor
  bool up_logs_success = false;
  bool down_failure_replies = false;  // and leaves out the end line; the others are silent
};

static const CameraDifferences kDifferences[] = {
    /* kMainCamera */ {.start_with_line = true,
                       .up_checks_descriptor = true,
                       .up_logs_success = true,
                       .down_failure_replies = true},
    /* kBackAuxCamera */
    {.start_with_line = true, .up_checks_descriptor = true, .down_failure_replies = true},
    /* kFrontCamera */ {.up_failure_closes = true},
    /* kThirdCamera */ {.up_checks_descriptor = true},
    /* kMono2Camera */ {.up_checks_descriptor = true},
    /* kFrontAuxCamera */ {.up_checks_descriptor = true},
};

static void log_start(const char* handler, CameraRole role) {
  if (kDifferences[role].start_with_line) {
    FTM_LOGD(TAG "%s:%d start", handler, __LINE__);
  } else {
    FTM_LOGD(TAG "%s start\n", handler);
  }
}

static bool has_descriptor(const char* handler, CameraRole role) {
  if (camera_role_fd(role) < 0) {
    FTM_LOGE("%s:%d fd open error: %s", handler, __LINE__, strerror(errno));
    at_send_result("ERROR\n");
    return false;
  }
  return true;
}

static void request_power_up(const char* handler, CameraRole role) {
  const int ret = ioctl(camera_role_fd(role), VIDIOC_CAM_FTM_POWNER_UP, nullptr);
  if (ret < 0) {
    FTM_LOGE("%s:%d VIDIOC_CAM_FTM_POWNER_UP failed: %s", handler, __LINE__, strerror(errno));
    if (kDifferences[role].up_failure_closes) {
      close_camera_role(role);
    }
    at_send_result("ERROR\n");
    return;
  }
  if (kDifferences[role].up_logs_success) {
    FTM_LOGD("at_camera_open ioctl ret =%d is OK\n", ret);
  }
  at_send_result("OK\r\n");
}

static int power_up(const char* handler, CameraRole role) {
  log_start(handler, role);
  if (!kDifferences[role].up_checks_descriptor || has_descriptor(handler, role)) {
    request_power_up(handler, role);
  }
  FTM_LOGD(TAG "%s end\n", handler);
  return 0;
}

static int power_down(const char* handler, CameraRole role) {
  log_start(handler, role);
  if (has_descriptor(handler, role)) {
    if (ioctl(camera_role_fd(role), VIDIOC_CAM_FTM_POWNER_DOWN, nullptr) >= 0) {
      at_send_result("OK\r\n");
    } else {
      FTM_LOGE("%s:%d VIDIOC_CAM_FTM_POWNER_DOWN failed: %s", handler, __LINE__, strerror(errno));
      if (kDifferences[role].down_failure_replies) {
        at_send_result("ERROR\n");
        return 0;
      }
    }
  }
  FTM_LOGD(TAG "%s end\n", handler);
  return 0;
}

int at_camera_open(const char*) {
  return power_up(__func__, kMainCamera);
}
int at_camera_close(const char*) {
  return power_down(__func__, kMainCamera);
}
int at_camera_back_aux_open(const char*) {
  return power_up(__func__, kBackAuxCamera);
}
int at_camera_back_aux_close(const char*) {
  return power_down(__func__, kBackAuxCamera);
}
int at_camera_front_open(const char*) {
  return power_up(__func__, kFrontCamera);
}
int at_camera_front_close(const char*) {
  return power_down(__func__, kFrontCamera);
}
int at_camera_third_open(const char*) {
  return power_up(__func__, kThirdCamera);
}
int at_camera_third_close(const char*) {
  return power_down(__func__, kThirdCamera);
}
int at_camera_mono2_open(const char*) {
  return power_up(__func__, kMono2Camera);
}
int at_camera_mono2_close(const char*) {
  return power_down(__func__, kMono2Camera);
}
int at_camera_front_aux_open(const char*) {
  return power_up(__func__, kFrontAuxCamera);
}
int at_camera_front_aux_close(const char*) {
  return power_down(__func__, kFrontAuxCamera);
}

// Up and down in turns, answered OK whatever the driver says.
int at_camera_test(const char*) {
  static bool powered = false;
  FTM_LOGD(TAG "%s start\n", __func__);
  const int fd = camera_role_fd(kMainCamera);
  if (fd < 0) {
    FTM_LOGE("fd open error\n");
    at_send_result("ERROR\n");
    return 0;
  }
  if (powered) {
    if (ioctl(fd, VIDIOC_CAM_FTM_POWNER_DOWN, nullptr) < 0) {
      FTM_LOGE("power down failed!");
    }
  } else if (ioctl(fd, VIDIOC_CAM_FTM_POWNER_UP, nullptr) < 0) {
    FTM_LOGE("power up failed!");
  }
  powered = !powered;
  at_send_result("OK\r\n");
  return 0;
}
