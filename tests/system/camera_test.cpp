// Camera power, flashes and QR codes.

#include <errno.h>

#include <filesystem>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static const Replies kOk = {"OK\r\n"};
static const Replies kError = {"ERROR\n"};
static const Replies kSilence = {};
static const char kConfiguration[] = "/odm/etc/camera/CameraHWConfiguration.config";
static const char kRearFlash[] = "/proc/qcom_flash";
static const char kFrontFlash[] = "/sys/devices/platform/soc/2.qcom,camera-flash/fswitch";

struct CameraRow {
  std::string open;
  std::string close;
  int camera;  // id, with the healthy phone's configuration 0, 2, 1, 3, 4, 5
  Replies close_failed;
};

static const std::vector<CameraRow> kRows = {
    {"AT+CAMERA_OPEN", "AT+CAMERA_CLOSE", 0, kError},
    {"AT+CAMERA_BACK_AUX_OPEN", "AT+CAMERA_BACK_AUX_CLOSE", 2, kError},
    {"AT+CAMERA_FRONT_OPEN", "AT+CAMERA_FRONT_CLOSE", 1, kSilence},
    {"AT+CAMERA_BACK_TELE_OPEN", "AT+CAMERA_BACK_TELE_CLOSE", 3, kSilence},
    {"AT+CAMERA_BACK_MONO1_OPEN", "AT+CAMERA_BACK_MONO1_CLOSE", 3, kSilence},
    {"AT+CAMERA_BACK_MACRO_OPEN", "AT+CAMERA_BACK_MACRO_CLOSE", 3, kSilence},
    {"AT+CAMERA_BACK_MONO2_OPEN", "AT+CAMERA_BACK_MONO2_CLOSE", 4, kSilence},
    {"AT+CAMERA_FRONT_AUX_OPEN", "AT+CAMERA_FRONT_AUX_CLOSE", 5, kSilence},
    {"AT+CAMERA_F2_OPEN", "AT+CAMERA_F2_CLOSE", 5, kSilence},
};

TEST(Camera, EachRowMovesItsSensor) {
  Handset phone;
  phone.start();
  for (const CameraRow& row : kRows) {
    CameraSensor& sensor = phone.cameras.sensor(row.camera);
    expect_exchange(phone, {row.open, kOk});
    EXPECT_TRUE(sensor.powered()) << row.open;
    expect_exchange(phone, {row.close, kOk});
    EXPECT_FALSE(sensor.powered()) << row.close;
  }
  EXPECT_EQ(phone.cameras.sensor(3).requests().size(), 6U);
  EXPECT_EQ(phone.open_devices("camera"), 6U);
  EXPECT_EQ(phone.open_devices("media"), 0U);
}

TEST(Camera, ARefusedRequestAnswersAsItsHandlerDoes) {
  for (const CameraRow& row : kRows) {
    Handset phone;
    phone.start();
    CameraSensor& sensor = phone.cameras.sensor(row.camera);
    sensor.fail(CameraSensor::kPowerDown, EIO);
    expect_exchange(phone, {row.close,
                            row.close_failed,
                            {},
                            {},
                            {"VIDIOC_CAM_FTM_POWNER_DOWN failed: Input/output error"}});
    sensor.fail(CameraSensor::kPowerUp, EIO);
    expect_exchange(
        phone, {row.open, kError, {}, {}, {"VIDIOC_CAM_FTM_POWNER_UP failed: Input/output error"}});
    // The main and back aux handlers leave their end line out after a failed power-down.
    EXPECT_EQ(phone.log().find("close end\n") == std::string::npos, row.close_failed == kError);
  }
}

TEST(Camera, WithoutASensorEveryRowAnswersError) {
  Handset phone;
  phone.remove_device("/dev/media1");
  phone.start();
  for (const CameraRow& row : kRows) {
    expect_exchange(phone, {row.open, kError});
    expect_exchange(phone, {row.close, kError});
  }
  expect_exchange(phone, {"AT^FM_CAMERA_TEST", kError, {}, {}, {"fd open error\n"}});
}

TEST(Camera, AFrontThatFailedNeverHitsAnotherFile) {
  Handset phone;
  phone.start();
  CameraSensor& front = phone.cameras.sensor(1);
  front.fail(CameraSensor::kPowerUp, EIO);
  expect_exchange(phone, {"AT+CAMERA_FRONT_OPEN", kError});
  EXPECT_EQ(phone.open_devices("camera"), 5U);
  EXPECT_EQ(front.opened(), 0);
  front.fail(CameraSensor::kPowerUp, 0);
  // A file of the daemon that would be given the freed number: the serial number's stream stays
  // open.
  phone.command("AT^SN");
  const size_t requests = front.requests().size();
  const size_t descriptors = phone.open_descriptors();
  expect_exchange(phone, {"AT+CAMERA_FRONT_OPEN", kError});
  expect_exchange(phone, {"AT+CAMERA_FRONT_CLOSE", kSilence});
  expect_exchange(phone, {"AT^SN", {"OK\r\n", "SN: deadbeef\n"}});
  EXPECT_EQ(front.requests().size(), requests);
  EXPECT_EQ(phone.open_descriptors(), descriptors);
}

TEST(Camera, TheTestRowTogglesWhateverTheDriverSays) {
  Handset phone;
  phone.start();
  CameraSensor& main = phone.cameras.sensor(0);
  main.fail(CameraSensor::kPowerUp, EIO);
  for (int i = 0; i < 4; ++i) {
    expect_exchange(phone, {"AT^FM_CAMERA_TEST", kOk});
  }
  EXPECT_EQ(main.requests(), (std::vector<uint32_t>{0, 1, 0, 1}));
  EXPECT_NE(phone.log().find("power up failed!"), std::string::npos);
}

TEST(Camera, RolesFollowTheConfigurationLine) {
  struct Case {
    std::optional<std::string> configuration;
    std::vector<int> cameras;  // by role 0 to 5; -1 for none
  };
  const std::vector<int> as_numbered = {0, 1, 2, 3, 4, 5};
  const std::vector<Case> cases = {
      {std::nullopt, as_numbered},
      {"", as_numbered},
      {"Other:543210\n", as_numbered},
      {"CameraSequence:\nCameraSequence:5\n", as_numbered},  // the first such line decides
      {"x\nmy CameraSequence = 0,2,1\nCameraSequence:5\n", {0, 2, 1, -1, -1, -1}},
      {"CameraSequence:10", {1, 0, -1, -1, -1, -1}},  // two ids, not one
      {"CameraSequence:9,8", {-1, -1, -1, -1, -1, -1}},
      {"CameraSequence:54321001234501234567", {5, 4, 3, 2, 1, 0}},
      {"CameraSequence:" + std::string(84, ' ') + "12\n",
       {1, -1, -1, -1, -1, -1}},  // 100 characters
  };
  const std::vector<std::string> open = {
      "AT+CAMERA_OPEN",           "AT+CAMERA_BACK_AUX_OPEN",   "AT+CAMERA_FRONT_OPEN",
      "AT+CAMERA_BACK_TELE_OPEN", "AT+CAMERA_BACK_MONO2_OPEN", "AT+CAMERA_F2_OPEN"};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.configuration.value_or("no file"));
    Handset phone;
    if (c.configuration.has_value()) {
      phone.write_file(kConfiguration, *c.configuration);
    } else {
      std::filesystem::remove(phone.path(kConfiguration));
    }
    phone.start();
    for (size_t role = 0; role < open.size(); ++role) {
      const int camera = c.cameras[role];
      expect_exchange(phone, {open[role], camera < 0 ? kError : kOk});
      for (int id = 0; id < 6; ++id) {
        const bool now = id == camera && phone.cameras.sensor(id).powered();
        const bool before =
            std::find(c.cameras.begin(), c.cameras.begin() + static_cast<long>(role), id) !=
            c.cameras.begin() + static_cast<long>(role);
        EXPECT_EQ(phone.cameras.sensor(id).powered(), now || before) << "camera " << id;
      }
    }
  }
}

TEST(Camera, StrangeDriversAndDevicesAreSteppedOver) {
  CameraSensor good(0);
  CameraSensor negative(-1);
  CameraSensor beyond(16);
  CameraSensor far(1000);
  CameraSensor last(15);
  CameraSensor twin(0);
  CameraSensor mute(3);
  mute.fail(CameraSensor::kControl, EIO);
  MediaDevice broken("cam-req-mgr-devnode", {});
  broken.fail(EIO);
  const uint32_t kSensor = 0x10001;
  MediaDevice manager("cam-req-mgr-devnode", {{1, kSensor, "cam-a"},
                                              {2, kSensor, "cam-b"},
                                              {3, kSensor, "cam-c"},
                                              {5, kSensor, "cam-d"},
                                              {6, kSensor, "cam-e"},
                                              {7, kSensor, "no-such-node"},
                                              {9, kSensor, "cam-f"},
                                              {10, kSensor, "cam-g"}});
  Handset phone;
  std::filesystem::remove(phone.path(kConfiguration));
  phone.add_device("/dev/media0", &broken);
  phone.add_device("/dev/media1", &manager);
  CameraSensor* const sensors[] = {&twin, &negative, &beyond, &far, &last, &good, &mute};
  for (int i = 0; i < 7; ++i) {
    phone.add_device(std::string("/dev/cam-") + static_cast<char>('a' + i), sensors[i]);
  }
  phone.start();
  expect_exchange(phone, {"AT+CAMERA_OPEN", kOk});
  EXPECT_TRUE(good.powered());                  // the later of the two that report 0
  EXPECT_EQ(phone.open_devices("camera"), 2U);  // cameras 0 and 15; the others are closed
  expect_exchange(phone, {"AT+CAMERA_BACK_TELE_OPEN", kError});

  // A gap in the numbering ends the walk.
  Handset gap;
  gap.remove_device("/dev/media0");
  gap.start();
  expect_exchange(gap, {"AT+CAMERA_OPEN", kError});
  EXPECT_NE(gap.log().find("No more media devices found on /dev/media0,error:No such file"),
            std::string::npos);
}

TEST(Flash, AnswersOkAndPausesAfterSwitchingOn) {
  Handset phone;
  phone.start();
  expect_exchanges(phone, {{"AT+FLASH_OPEN", kOk, {{kRearFlash, "3\n"}}, {50}},
                           {"AT+FLASH_CLOSE", kOk, {{kRearFlash, "0\n"}}},
                           {"AT+FLASH_FRONT_OPEN", kOk, {{kFrontFlash, "3\n"}}, {50}},
                           {"AT+FLASH_FRONT_CLOSE", kOk, {{kFrontFlash, "0\n"}}},
                           {"AT^FM_FLASHLIGHT", kOk, {{kRearFlash, "3\n"}}, {50}},
                           {"AT+FLASH_OPEN", kOk, {{kRearFlash, "3\n"}}, {50}},
                           {"AT^FM_FLASHLIGHT", kOk, {{kRearFlash, "0\n"}}},
                           {"AT^FM_FLASHLIGHT", kOk, {{kRearFlash, "3\n"}}, {50}}});
  phone.nodes.remove(kRearFlash);
  expect_exchange(phone, {"AT+FLASH_OPEN", kOk, {}, {50}});
}

// ---- QR codes

static std::string qr_file(const std::string& sensor) {
  return "/mnt/vendor/persist/camera/" + sensor + "_qrcode_start_OTP.txt";
}

TEST(QrCode, TheFirstFileThatOpensDecides) {
  struct Chain {
    std::string command;
    std::string prefix;
    std::string failure;
    std::vector<std::pair<std::string, std::string>> files;  // sensor, name in its missing line
  };
  const std::vector<Chain> chains = {
      {"AT^CAMERA_QR_CODE_GET",
       " CAMERA_QR_CODE:",
       " CAMERA_MAIN_QR_CODE READ FAILED\r\n",
       {{"ov64b", " ov64b"},
        {"s5kjn1sq03", " s5kjn1"},
        {"imx581", " imx581"},
        {"s5khm6", " s5khm6"}}},
      {"AT^CAMERA_BACK_WIDE_QR_CODE_GET",
       " CAMERA_BACK_WIDE_QR_CODE:",
       " CAMERA_BACK_WIDE__QR_CODE READ FAILED\r\n",
       {{"ov08d10", ""}}},
      {"AT^CAMERA_FRONT_QR_CODE_GET",
       " CAMERA_FRONT_QR_CODE:",
       " CAMERA_FRONT__QR_CODE READ FAILED\r\n",
       {{"imx471", ""}, {"ov16a1q", " ov16a1q"}, {"s5k3p9", " s5k3p9"}, {"ov32c", " ov32c"}}},
  };
  for (const Chain& chain : chains) {
    Handset phone;
    phone.start();
    const auto success = [&](const std::string& code) {
      return Replies{chain.prefix, code, "\r\n", "OK\r\n"};
    };
    const Replies failure = {"ERROR\n", chain.failure};
    for (const auto& [sensor, missing] : chain.files) {
      phone.write_file(qr_file(sensor), "code of " + sensor);
    }
    for (const auto& [sensor, missing] : chain.files) {
      SCOPED_TRACE(sensor);
      expect_exchange(phone, {chain.command, success("code of " + sensor)});
      phone.write_file(qr_file(sensor), "");
      expect_exchange(phone, {chain.command, failure});
      phone.write_file(qr_file(sensor), std::string("\0code", 5));
      expect_exchange(phone, {chain.command, failure});
      phone.write_file(qr_file(sensor), "12345678901234567890");
      expect_exchange(phone, {chain.command, success("12345678901234567890")});
      phone.write_file(qr_file(sensor), "12345678901234567890123");
      expect_exchange(phone, {chain.command, success("12345678901234567890")});
      std::filesystem::remove(phone.path(qr_file(sensor)));
    }
    std::vector<std::string> logged;
    for (const auto& [sensor, missing] : chain.files) {
      logged.push_back("QR_code_get" + missing + " = fail \n");
    }
    expect_exchange(phone, {chain.command, failure, {}, {}, logged});
  }
}

TEST(QrCode, BackAuxNeedsItsFirstOrThirdFile) {
  struct Case {
    bool gc02m1;
    bool ov02b10;
    bool sc201cs;
    std::string code;  // empty: a failure
  };
  const std::vector<Case> cases = {
      {false, false, false, ""},   {false, false, true, "sc"},   {false, true, false, ""},
      {false, true, true, "sc"},   {true, false, false, "gc02"}, {true, false, true, "gc02"},
      {true, true, false, "gc02"}, {true, true, true, "gc02"},
  };
  Handset phone;
  phone.start();
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.gc02m1 << c.ov02b10 << c.sc201cs);
    const std::vector<std::tuple<std::string, bool, std::string>> files = {
        {"gc02m1", c.gc02m1, "gc02"},
        {"ov02b10", c.ov02b10, "ov02b10"},
        {"sc201cs", c.sc201cs, "sc"}};
    for (const auto& [sensor, there, code] : files) {
      std::filesystem::remove(phone.path(qr_file(sensor)));
      if (there) {
        phone.write_file(qr_file(sensor), code);
      }
    }
    const Replies replies = c.code.empty()
                                ? Replies{"ERROR\n", " CAMERA_BACK_AUX__QR_CODE READ FAILED\r\n"}
                                : Replies{" CAMERA_BACK_AUX_QR_CODE:", c.code, "\r\n", "OK\r\n"};
    expect_exchange(phone, {"AT^CAMERA_BACK_AUX_QR_CODE_GET", replies});
  }
}
