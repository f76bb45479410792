// The load order of all test modules, in one place: within a level, init functions run and command
// rows are stored in this order, whatever order the linker is given the files in.

#pragma once

enum ModuleOrder {
  kModuleOrder_lcd_display,
  kModuleOrder_vibrator,
  kModuleOrder_sleep_enable,
  kModuleOrder_wifi,
  kModuleOrder_deviceinfo,
  kModuleOrder_adc_read,
  kModuleOrder_loudspeaker,
  kModuleOrder_wcd_mic_die_test,
  kModuleOrder_pa,
  kModuleOrder_micbias,
  kModuleOrder_audio_selfcheck,
  kModuleOrder_debug,
  kModuleOrder_tp_test,
  kModuleOrder_gps,
  kModuleOrder_volume_power_key,
  kModuleOrder_breathing,
  kModuleOrder_fp_test,
  kModuleOrder_sec_test,
  kModuleOrder_rf_cable_test,
  kModuleOrder_camera,
  kModuleOrder_sensor_adsp,
  kModuleOrder_engineer,
};

// Constructor priority of a module's init registration; its exit registration is one higher.
// Priorities below 200 are left to the compiler (up to 100) and the platform layer.
#define FTM_LOAD_PRIORITY(name) (200 + 2 * kModuleOrder_##name)
