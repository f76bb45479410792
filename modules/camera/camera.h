// What the camera module's files share: camera.cpp lists the commands, enumeration.cpp finds the
// sensors, the others answer.

#pragma once

#define TAG "[FTM-CAMERA]"

// The cameras that commands name. Some names share a sensor.
enum CameraRole {
  kMainCamera,
  kBackAuxCamera,
  kFrontCamera,
  kThirdCamera,  // tele, mono 1 and macro
  kMono2Camera,
  kFrontAuxCamera,  // front aux and "F2"
};

// enumeration.cpp: finds every sensor and gives each role its descriptor.
void find_cameras();
// The role's descriptor, negative when it has no camera.
int camera_role_fd(CameraRole role);
// Closes the role's descriptor. The slot keeps its number.
void close_camera_role(CameraRole role);

// power.cpp
int at_camera_test(const char*);
int at_camera_open(const char*);
int at_camera_close(const char*);
int at_camera_back_aux_open(const char*);
int at_camera_back_aux_close(const char*);
int at_camera_front_open(const char*);
int at_camera_front_close(const char*);
int at_camera_third_open(const char*);
int at_camera_third_close(const char*);
int at_camera_mono2_open(const char*);
int at_camera_mono2_close(const char*);
int at_camera_front_aux_open(const char*);
int at_camera_front_aux_close(const char*);

// flash.cpp
void flash_init();
void flash_exit();
int at_flash_light_test(const char*);
int at_flash_light_open(const char*);
int at_flash_light_close(const char*);
int at_front_flash_light_open(const char*);
int at_front_flash_light_close(const char*);

// qr_code.cpp
int at_camera_QR_code_get(const char*);
int at_camera_back_wide_QR_code_get(const char*);
int at_camera_back_aux_QR_code_get(const char*);
int at_camera_front_QR_code_get(const char*);
