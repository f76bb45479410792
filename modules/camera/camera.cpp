// The camera module: sensor power, flashes and the camera modules' QR codes.

#include "modules/camera/camera.h"

#include "core/at.h"
#include "core/log.h"

static AtCommand rows[] = {
    {.short_name = "camera_test", .command = "AT^FM_CAMERA_TEST", .handler = at_camera_test},
    {.short_name = "flash_light_test",
     .command = "AT^FM_FLASHLIGHT",
     .handler = at_flash_light_test},
    {.short_name = "camera_open", .command = "AT+CAMERA_OPEN", .handler = at_camera_open},
    {.short_name = "camera_close", .command = "AT+CAMERA_CLOSE", .handler = at_camera_close},
    {.short_name = "camera_back_aux_open",
     .command = "AT+CAMERA_BACK_AUX_OPEN",
     .handler = at_camera_back_aux_open},
    {.short_name = "camera_back_aux_close",
     .command = "AT+CAMERA_BACK_AUX_CLOSE",
     .handler = at_camera_back_aux_close},
    {.short_name = "camera_front_open",
     .command = "AT+CAMERA_FRONT_OPEN",
     .handler = at_camera_front_open},
    {.short_name = "camera_front_close",
     .command = "AT+CAMERA_FRONT_CLOSE",
     .handler = at_camera_front_close},
    {.short_name = "camera_tele_open",
     .command = "AT+CAMERA_BACK_TELE_OPEN",
     .handler = at_camera_third_open},
    {.short_name = "camera_tele_close",
     .command = "AT+CAMERA_BACK_TELE_CLOSE",
     .handler = at_camera_third_close},
    {.short_name = "camera_mono1_open",
     .command = "AT+CAMERA_BACK_MONO1_OPEN",
     .handler = at_camera_third_open},
    {.short_name = "camera_mono1_close",
     .command = "AT+CAMERA_BACK_MONO1_CLOSE",
     .handler = at_camera_third_close},
    {.short_name = "camera_mono2_open",
     .command = "AT+CAMERA_BACK_MONO2_OPEN",
     .handler = at_camera_mono2_open},
    {.short_name = "camera_mono2_close",
     .command = "AT+CAMERA_BACK_MONO2_CLOSE",
     .handler = at_camera_mono2_close},
    {.short_name = "camera_front_aux_open",
     .command = "AT+CAMERA_FRONT_AUX_OPEN",
     .handler = at_camera_front_aux_open},
    {.short_name = "camera_front_aux_close",
     .command = "AT+CAMERA_FRONT_AUX_CLOSE",
     .handler = at_camera_front_aux_close},
    {.short_name = "camera_f2_open",
     .command = "AT+CAMERA_F2_OPEN",
     .handler = at_camera_front_aux_open},
    {.short_name = "camera_f2_close",
     .command = "AT+CAMERA_F2_CLOSE",
     .handler = at_camera_front_aux_close},
    {.short_name = "camera_back_macro_open",
     .command = "AT+CAMERA_BACK_MACRO_OPEN",
     .handler = at_camera_third_open},
    {.short_name = "camera_back_macro_close",
     .command = "AT+CAMERA_BACK_MACRO_CLOSE",
     .handler = at_camera_third_close},
    {.short_name = "flash_light_open", .command = "AT+FLASH_OPEN", .handler = at_flash_light_open},
    {.short_name = "flash_light_close",
     .command = "AT+FLASH_CLOSE",
     .handler = at_flash_light_close},
    {.short_name = "frontflash_light_open",
     .command = "AT+FLASH_FRONT_OPEN",
     .handler = at_front_flash_light_open},
    {.short_name = "frontflash_light_close",
     .command = "AT+FLASH_FRONT_CLOSE",
     .handler = at_front_flash_light_close},
    {.short_name = "camera_QR_code_get",
     .command = "AT^CAMERA_QR_CODE_GET",
     .handler = at_camera_QR_code_get},
    {.short_name = "camera_back_wide_QR_code_get",
     .command = "AT^CAMERA_BACK_WIDE_QR_CODE_GET",
     .handler = at_camera_back_wide_QR_code_get},
    {.short_name = "camera_back_aux_QR_code_get",
     .command = "AT^CAMERA_BACK_AUX_QR_CODE_GET",
     .handler = at_camera_back_aux_QR_code_get},
    {.short_name = "camera_front_QR_code_get",
     .command = "AT^CAMERA_FRONT_QR_CODE_GET",
     .handler = at_camera_front_QR_code_get},
};

static void at_camera_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  flash_init();
  find_cameras();
  at_register_rows(rows);
  FTM_LOGD(TAG "%s end\n", __func__);
}

static void at_camera_exit() {
  FTM_LOGD(TAG "%s start\n", __func__);
  flash_exit();
  FTM_LOGD(TAG "%s end\n", __func__);
}

FTM_MODULE(camera, 4, TAG)
