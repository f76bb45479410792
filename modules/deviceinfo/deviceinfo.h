// The device information module's families of queries, and the tag of their log lines.
// deviceinfo.cpp lists the commands; each family stands in a file of its own.

#pragma once

#define TAG "[FTM-DEVICEINFO]"

// Sends "OK\r\n", a label and a number without a line end, three replies.
void send_number(const char* label, long number);

// identity.cpp
int at_software_version(const char*);
int at_serial_no(const char*);
int at_sys_vendor_md5(const char*);

// panel.cpp
int at_get_lcd_sn_check(const char*);
int at_iris_recovery_mode_check(const char*);

// storage.cpp
int at_get_emmc_size(const char*);
int at_get_emmc_size_new(const char*);
int at_get_ufsplus_status(const char*);
int at_test_sdcard(const char*);

// memory_cpu.cpp
int at_get_mem_size(const char*);
int at_get_cpu_freq(const char*);

// records.cpp
int at_pcb_number_get(const char*);
int at_download_status_get(const char*);

// charger.cpp
int at_get_zeph_fw_check(const char*);
