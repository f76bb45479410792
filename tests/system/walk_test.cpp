// The whole command table on a healthy phone, row by row in its order: every command answers, in
// its success form, with this many replies.

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

TEST(Walk, EveryCommandOfAHealthyPhoneAnswers) {
  std::string key;
  for (int i = 0; i < 32; ++i) {
    key += "0123456789abcdef";
  }
  const std::vector<std::pair<std::string, Replies>> rows = {
      {"AT+ESLP=1", {"OK\r\n"}},
      {"AT+ESLP=0", {"OK\r\n"}},
      {"AT+EDFT=9,1", {"OK\r\n"}},
      {"AT+EDFT=9,0", {"OK\r\n"}},
      {"AT+RGB", {"OK\r\n"}},
      {"AT+EDFT=0,5", {"OK\r\n"}},
      {"AT+EDFT=0,0", {"OK\r\n"}},
      {"AT+EDFT=5,1", {"OK\r\n"}},
      {"AT+EDFT=5,0", {"OK\r\n"}},
      {"AT+EDFT=6,1", {"OK\r\n"}},
      {"AT+EDFT=6,0", {"OK\r\n"}},
      {"AT+AW8697_LEAKAGE_ON", {"OK\r\n"}},
      {"AT+AW8697_LEAKAGE_OFF", {"OK\r\n"}},
      {"AT+ELCM=0,0", {"OK\r\n"}},
      {"AT^FM_SW_VERSION",
       {"Model: NV-A1\nAndroid Version: 11\nKernel: 5.10.43-perf\nVersion: NVA1_11_A.12\nBranch: "
        "NV-A1\nBranch Version: v00a120\nPCB Number: 40\n\nBuild Time: 202401170000\nOTA version: "
        "NVA1_11.A.12_0120_202401170000\n",
        "OK\r\n"}},
      {"AT^SN", {"OK\r\n", "SN: deadbeef\n"}},
      {"AT^SYS_VEN_MD5", {"OK\r\n"}},
      {"AT+GCPU=1", {"OK\r\n", " CPUINFO:", "2841600"}},
      {"AT+GEMMC=1", {"OK\r\n", " EMMCSIZE:", "125007872"}},
      {"AT+EMMC", {"OK\r\n", "capacity: 119.00 GB"}},
      {"AT+UFSPLUS", {"OK\r\n"}},
      {"AT+GMEM=1", {"OK\r\n", " MEMSIZE:", "7654321"}},
      {"AT+MEMCARD", {"OK\r\n", "SDcard total=59.25GB, free=58.94GB\n"}},
      {"AT+EGMR=0,5", {"OK\r\n", " PCBA:", "NV2401170042"}},
      {"AT+DOWNLOAD_STATUS", {" DOWNLOAD:over\n"}},
      {"AT+CHARGE_MCU", {"OK\r\n", " ZEPH FW CHECK:", "1"}},
      {"AT+LCDSN", {"OK\r\n", " LCD SN CHECK:", "20231122164230"}},
      {"AT+IRIS=1", {"OK\r\n"}},
      {"AT+EADC=1", {"OK\r\n", "+EADC: 3.85,25.30,0.00,-512.000,2.10"}},
      {"AT+OPEN_REVERSE_CHARGE", {"OK\r\n"}},
      {"AT+CLOSE_REVERSE_CHARGE", {"OK\r\n"}},
      {"AT+CASP=1,151,2,20", {"OK\r\n"}},
      {"AT+CASP=2,151", {"OK\r\n"}},
      {"AT+WCDMIC=1", {"OK\r\n"}},
      {"AT+WCDMIC=0", {"OK\r\n"}},
      {"AT+CODEC_SPK", {"OK\r\n"}},
      {"AT+CODEC_HP", {"OK\r\n"}},
      {"AT+MIC1VOLT_OPEN", {"OK\r\n"}},
      {"AT+MIC1VOLT_CLOSE", {"OK\r\n"}},
      {"AT+HPMICVOLT_OPEN", {"OK\r\n"}},
      {"AT+HPMICVOLT_CLOSE", {"OK\r\n"}},
      {"AT+CASP=PA_SELFCHECK", {"OK\r\n", "OK\r\n", "OK\r\n", "0"}},
      {"AT+CASP=CHECK_AUDIO_CODEC", {"OK\r\n", "0"}},
      {"AT+CASP=CHECK_TOP_PA", {"OK\r\n", "0"}},
      {"AT+CASP=CHECK_BOTTOM_PA", {"OK\r\n", "0"}},
      {"AT+CASP=CHECK_AUDIO_SWITCH", {"OK\r\n", "0"}},
      {"AT+PRINTK=0,1", {"OK\r\n"}},
      {"AT+PRINTK=0,0", {"OK\r\n"}},
      {"AT+TRIGGER_DUMP=1", {"OK\r\n"}},
      {"AT^OPEN_GPS", {"OK\r\n"}},
      {"AT^CLOSE_GPS", {"OK\r\n"}},
      {"AT+KEY",
       {"AT_KEY test is start\n", "wait input event in 5s\n", "POWER_KEY:1, VOL+:1, VOL-:1, \n",
        "OK\r\n", "AT_KEY test is end\n"}},
      {"AT^FM_CAMERA_TEST", {"OK\r\n"}},
      {"AT^FM_FLASHLIGHT", {"OK\r\n"}},
      {"AT+CAMERA_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_BACK_AUX_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_BACK_AUX_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_FRONT_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_FRONT_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_BACK_TELE_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_BACK_TELE_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_BACK_MONO1_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_BACK_MONO1_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_BACK_MONO2_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_BACK_MONO2_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_FRONT_AUX_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_FRONT_AUX_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_F2_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_F2_CLOSE", {"OK\r\n"}},
      {"AT+CAMERA_BACK_MACRO_OPEN", {"OK\r\n"}},
      {"AT+CAMERA_BACK_MACRO_CLOSE", {"OK\r\n"}},
      {"AT+FLASH_OPEN", {"OK\r\n"}},
      {"AT+FLASH_CLOSE", {"OK\r\n"}},
      {"AT+FLASH_FRONT_OPEN", {"OK\r\n"}},
      {"AT+FLASH_FRONT_CLOSE", {"OK\r\n"}},
      {"AT^CAMERA_QR_CODE_GET", {" CAMERA_QR_CODE:", "OV64B24010100017", "\r\n", "OK\r\n"}},
      {"AT^CAMERA_BACK_WIDE_QR_CODE_GET",
       {" CAMERA_BACK_WIDE_QR_CODE:", "OV08D24010100018", "\r\n", "OK\r\n"}},
      {"AT^CAMERA_BACK_AUX_QR_CODE_GET",
       {" CAMERA_BACK_AUX_QR_CODE:", "GC02M24010100019", "\r\n", "OK\r\n"}},
      {"AT^CAMERA_FRONT_QR_CODE_GET",
       {" CAMERA_FRONT_QR_CODE:", "IMX4724010100020", "\r\n", "OK\r\n"}},
      {"AT^ENABLE_ENG_ADB", {"OK\r\n"}},
      {"AT^CHECK_ENCRYPT_STATE", {"OK\r\n"}},
      {"AT^SECRECY_LOCK_STATUS", {"OK\r\n", " UNLOCKED"}},
      {"AT^SECRECY_IMEI", {"OK\r\n", " IMEI: ", "860123456789012"}},
      {"AT^WITH_ARGS_SECRECY_UNLOCK:" + key, {"OK\r\n", " UNLOCKED SUCCESS"}},
      {"AT^WITH_ARGS_BACKCOVER_COLOR:ff00aa11", {"OK\r\n"}},
      {"AT^GET_BACKCOVER_COLOR", {"OK\r\n", "FF00AA11"}},
      {"AT^RESET_ENG_MARK", {"OK\r\n"}},
      {"AT^WITH_ARGS_PRODUCT_INFO:color=red", {"OK\r\n"}},
      {"AT^GET_PRODUCT_INFO", {"OK\r\n", "COLOR=RED\n", "\n"}},
      {"AT^RESET_PRODUCT_INFO", {"OK\r\n"}},
      {"AT^WITH_ARGS_QAC:cycles", {"OK\r\n", "cycles=10\n"}},
      {"AT^WITH_ARGS_UAC:cycles=12", {"OK\r\n"}},
      {"AT^REMOVE_AGING_CONFIG", {"OK\r\n"}},
      {"AT^WITH_ARGS_QTC:station", {"OK\r\n", "station=a7\n"}},
      {"AT^WITH_ARGS_UTC:station=b2", {"OK\r\n"}},
      {"AT^REMOVE_TEST_CONFIG", {"OK\r\n"}},
      {"AT^OPEN_WIFI", {"OK\r\n"}},
      {"AT^CLOSE_WIFI", {"OK\r\n", "STOP"}},
      {"AT^CHECK_WIFI", {"OK\r\n"}},
      {"AT+TP", {"PASS\n", "OK\r\n"}},
      {"AT^FINGER_QR_CODE_GET", {"FINGER_QR_CODE: FP20240117A00042\n", "OK\r\n"}},
      {"AT^SECUREBOOT_STATUS_CHECK", {"SECURE BOOT STAGE2\n", "OK\r\n"}},
      {"AT_RF_CABLE", {"RFCABLE:OK ", "0"}},
      {"AT+GSENSOR", {"x : 0.120000  \ny : -0.250000  \nz : 9.810000  \n", "OK\r\n"}},
      {"AT+GYRO", {"x : 0.010000  \ny : -0.020000  \nz : 0.005000  \n", "OK\r\n"}},
      {"AT+MSENSOR", {"x : 21.500000  \ny : -4.250000  \nz : -38.750000  \n", "OK\r\n"}},
      {"AT+PROX", {"x : 1034  \n", "OK\r\n"}},
      {"AT+LIGHT", {"lux : 312.500000\n", "OK\r\n"}},
      {"AT+PRESS", {"pressure(hPa) : 1013.252\n", "OK\r\n"}},
      {"AT+SAR", {"status : 1.000000  \n", "OK\r\n"}},
      {"AT+DUAL_GSENSOR", {"x : 0.310000  \ny : 0.050000  \nz : 9.790000  \n", "OK\r\n"}},
      {"AT+DUAL_GYRO", {"x : 0.030000  \ny : 0.040000  \nz : -0.010000  \n", "OK\r\n"}},
      {"AT+HALL", {"status : 1.000000\n", "OK\r\n"}},
      {"AT+ANGLE_HALL", {"x : 90.500000  \ny : 12.250000  \nz : 3.000000  \n", "OK\r\n"}},
      {"AT+PAD_ALS", {"lux : 150.000000\n", "OK\r\n"}},
      {"AT+VICE_PAD_ALS", {"lux : 148.500000\n", "OK\r\n"}},
      {"AT+VICE_SAR", {"status : 1.000000  \n", "OK\r\n"}},
  };
  EXPECT_EQ(rows.size(), 118U);
  Handset phone({.time_factor = 0.01});
  phone.start();
  for (const auto& [command, replies] : rows) {
    if (command == "AT+KEY") {
      for (const char* pressed : {"power", "volup", "voldown"}) {
        phone.press_key(pressed);
      }
    }
    Replies answered = phone.command(command + "\n");
    // The tone's reply comes from its own thread.
    if (answered.size() < replies.size() &&
        phone.serial.wait_replies(replies.size() - answered.size(), std::chrono::seconds(20))) {
      for (const std::string& late : phone.serial.take_replies()) {
        answered.push_back(late);
      }
    }
    EXPECT_EQ(answered, replies) << command;
  }
}
