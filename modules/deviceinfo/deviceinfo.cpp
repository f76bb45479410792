// The device information module: fourteen queries about the unit's identity, storage and records.

#include "modules/deviceinfo/deviceinfo.h"

#include "core/at.h"
#include "core/bounded.h"
#include "core/log.h"

void send_number(const char* label, long number) {
  char value[32];
  bounded_format(value, sizeof(value), "%ld", number);
  at_send_result("OK\r\n");
  at_send_result(label);
  at_send_result(value);
}

static AtCommand rows[] = {
    {.short_name = "cpu_info", .command = "AT+GCPU=1", .handler = at_get_cpu_freq},
    {.short_name = "emmc_info", .command = "AT+GEMMC=1", .handler = at_get_emmc_size},
    {.short_name = "emmc_info_new", .command = "AT+EMMC", .handler = at_get_emmc_size_new},
    {.short_name = "ufsplus_status", .command = "AT+UFSPLUS", .handler = at_get_ufsplus_status},
    {.short_name = "mem_info", .command = "AT+GMEM=1", .handler = at_get_mem_size},
    {.short_name = "sdcard_test", .command = "AT+MEMCARD", .handler = at_test_sdcard},
    {.short_name = "software_version",
     .command = "AT^FM_SW_VERSION",
     .handler = at_software_version},
    {.short_name = "serial_no", .command = "AT^SN", .handler = at_serial_no},
    {.short_name = "sys_vendor_md5", .command = "AT^SYS_VEN_MD5", .handler = at_sys_vendor_md5},
    {.short_name = "pcd_number", .command = "AT+EGMR=0,5", .handler = at_pcb_number_get},
    {.short_name = "download_status",
     .command = "AT+DOWNLOAD_STATUS",
     .handler = at_download_status_get},
    {.short_name = "check fast charging state",
     .command = "AT+CHARGE_MCU",
     .handler = at_get_zeph_fw_check},
    {.short_name = "check lcd sn state", .command = "AT+LCDSN", .handler = at_get_lcd_sn_check},
    {.short_name = "iris_recovery_mode_check",
     .command = "AT+IRIS=1",
     .handler = at_iris_recovery_mode_check},
};

FTM_PLAIN_MODULE(deviceinfo, 4, TAG, rows)
