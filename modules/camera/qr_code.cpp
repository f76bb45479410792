// The camera modules' QR codes, which the camera stack leaves in a file per sensor model. One
// daemon serves several phones: each command tries the files of the sensors that its camera may
// have.

#include <string.h>
#include <unistd.h>

#include <iterator>

#include "core/at.h"
#include "core/log.h"
#include "core/shared_files.h"
#include "modules/camera/camera.h"

#define QR_FILE(sensor) "/mnt/vendor/persist/camera/" sensor "_qrcode_start_OTP.txt"

static constexpr size_t kCodeSize = 20;

// Log lines take the handler's name, the found line also the code. Labels and missing sensor names
// are kept as they stand.
struct QrFile {
  const char* path;
  const char* found;
  const char* missing;
};

static const QrFile kMainFiles[] = {
    {QR_FILE("ov64b"), TAG "%s CAMERA_QR_CODE_PATH_MAIN_VANTERA = %s\n", TAG "%s ov64b = fail \n"},
    {QR_FILE("s5kjn1sq03"), TAG "%s CAMERA_QR_CODE_PATH_MAIN_VANTERA_50M = %s\n",
     TAG "%s s5kjn1 = fail \n"},
    {QR_FILE("imx581"), TAG "%s CAMERA_QR_CODE_PATH_MAIN_NORVA = %s\n", TAG "%s imx581 = fail \n"},
    {QR_FILE("s5khm6"), TAG "%s CAMERA_QR_CODE_PATH_MAIN_KESTO = %s\n", TAG "%s s5khm6 = fail \n"},
};
static const QrFile kBackWideFiles[] = {
    {QR_FILE("ov08d10"), TAG "%s CAMERA_QR_CODE_PATH_WIDE_VANTERA = %s\n", TAG "%s = fail \n"},
};
static const QrFile kFrontFiles[] = {
    {QR_FILE("imx471"), TAG "%s CAMERA_QR_CODE_PATH_FRONT_VANTERA = %s\n", TAG "%s = fail \n"},
    {QR_FILE("ov16a1q"), TAG "%s CAMERA_QR_CODE_PATH_FRONT_NORVA = %s\n",
     TAG "%s ov16a1q = fail \n"},
    {QR_FILE("s5k3p9"), TAG "%s CAMERA_QR_CODE_PATH_FRONT_KESTO_16M = %s\n",
     TAG "%s s5k3p9 = fail \n"},
    {QR_FILE("ov32c"), TAG "%s CAMERA_QR_CODE_PATH_FRONT_SORRENT_EXPORT = %s\n",
     TAG "%s ov32c = fail \n"},
};
static const QrFile kBackAuxGc02m1 = {
    QR_FILE("gc02m1"), TAG "%s CAMERA_QR_CODE_PATH_MICRO_VANTERA = %s\n", TAG "%s = fail \n"};
static const QrFile kBackAuxOv02b10 = {QR_FILE("ov02b10"),
                                       TAG "%s CAMERA_QR_CODE_PATH_MICRO_FIRST_KESTO = %s\n",
                                       TAG "%s ov02b10 = fail \n"};
static const QrFile kBackAuxSc201cs = {QR_FILE("sc201cs"),
                                       TAG "%s CAMERA_QR_CODE_PATH_MICRO_SECOND_KESTO = %s\n",
                                       TAG "%s sc201cs = fail \n"};

using Code = char[kCodeSize + 1];

// False when the file does not open. What it holds replaces what the buffer held; an empty file
// leaves that as it was.
static bool read_code(const char* handler, const QrFile& file, Code& code) {
  UniqueFd fd = open_regular(file.path, O_RDONLY);
  if (!fd.ok()) {
    FTM_LOGE(file.missing, handler);
    return false;
  }
  Code held = {};
  if (read(fd.get(), held, kCodeSize) > 0) {
    memcpy(code, held, sizeof(code));
  }
  fd.reset();
  FTM_LOGD(file.found, handler, code);
  return true;
}

static int reply_code(bool found, const char* prefix, const Code& code, const char* failure) {
  if (found && code[0] != '\0') {
    at_send_result(prefix);
    at_send_result(code);
    at_send_result("\r\n");
    at_send_result("OK\r\n");
  } else {
    at_send_result("ERROR\n");
    at_send_result(failure);
  }
  return 0;
}

// The first file that opens decides, whatever it holds.
template <size_t N>
static int reply_first_found(const char* handler, const QrFile (&files)[N], const char* prefix,
                             const char* failure) {
  Code code = {};
  bool found = false;
  for (size_t i = 0; i < N && !found; ++i) {
    found = read_code(handler, files[i], code);
  }
  return reply_code(found, prefix, code, failure);
}

int at_camera_QR_code_get(const char*) {
  return reply_first_found(__func__, kMainFiles,
                           " CAMERA_QR_CODE:", " CAMERA_MAIN_QR_CODE READ FAILED\r\n");
}

int at_camera_back_wide_QR_code_get(const char*) {
  return reply_first_found(__func__, kBackWideFiles, " CAMERA_BACK_WIDE_QR_CODE:",
                           " CAMERA_BACK_WIDE__QR_CODE READ FAILED\r\n");
}

int at_camera_front_QR_code_get(const char*) {
  return reply_first_found(__func__, kFrontFiles,
                           " CAMERA_FRONT_QR_CODE:", " CAMERA_FRONT__QR_CODE READ FAILED\r\n");
}

// Unlike the others, and kept as it stands: the second and third file are both read, into one
// buffer, and the second alone does not count as found.
int at_camera_back_aux_QR_code_get(const char*) {
  Code code = {};
  bool found = read_code(__func__, kBackAuxGc02m1, code);
  if (!found) {
    read_code(__func__, kBackAuxOv02b10, code);
    found = read_code(__func__, kBackAuxSc201cs, code);
  }
  return reply_code(found, " CAMERA_BACK_AUX_QR_CODE:", code,
                    " CAMERA_BACK_AUX__QR_CODE READ FAILED\r\n");
}
