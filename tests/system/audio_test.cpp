// The audio rows on the handset's sound card: the test tone with its second party, the die-crack
// test, the amplifiers and the microphone bias.

#include <errno.h>
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>

#include "tests/system/station.h"

using Texts = std::vector<std::string>;

static const char kOn[] = "AT+CASP=1,151,2,20";
static const char kOff[] = "AT+CASP=2,151";
static const char kCheck[] = "AT+CASP=PA_SELFCHECK";
static const char kCard[] = "/dev/snd/controlC0";
static const char kPaths[] = "/odm/etc/ftm_mixer_paths.xml";
static const char kNode[] = "/proc/tfa98xx-34/selfcheck";
static const char kSession[] = "vendor.norva.mm.ftm_spk";
static const char kPlayer[] = "tinyplay_ftm /vendor/norva/media/norva_ftm_smart_pa.wav";
static constexpr std::chrono::seconds kLimit(20);

static const Texts kToneWrites = {"TFA Profile = ftm",
                                  "Speaker Amplifier Switch = 1 1",
                                  "Speaker Equalizer = 7f 7f 7f 7f",
                                  "PRI_MI2S_RX Format = S24_LE",
                                  "PRI_MI2S_RX Channel Volume = 80 80",
                                  "RX Input Select = MAIN AUX",
                                  "PRI_MI2S_RX Audio Mixer MultiMedia1 = 1"};
static const Texts kToneResets = {"PRI_MI2S_RX Audio Mixer MultiMedia1 = 0",
                                  "RX Input Select = ZERO AUX",
                                  "PRI_MI2S_RX Channel Volume = 100 100",
                                  "PRI_MI2S_RX Format = S16_LE",
                                  "Speaker Equalizer = 10 20 30 40",
                                  "Speaker Amplifier Switch = 0 0",
                                  "TFA Profile = music"};

// Sends a command whose reply may come after it has been handled.
static Texts command(Handset& phone, const std::string& line, size_t replies) {
  Texts all = phone.command(line + "\r\n");
  if (all.size() < replies) {
    phone.serial.wait_replies(replies - all.size(), kLimit);
    const Texts later = phone.serial.take_replies();
    all.insert(all.end(), later.begin(), later.end());
  }
  return all;
}

template <typename Condition>
static bool soon(Condition condition) {
  for (int i = 0; i < 2000 && !condition(); ++i) {
    usleep(5000);
  }
  return condition();
}

static bool logged(const Handset& phone, const std::string& text) {
  return phone.log().find(text) != std::string::npos;
}

TEST(Loudspeaker, PlaysFromOnToOff) {
  Handset phone;
  phone.start();
  EXPECT_EQ(phone.sound.take_writes(), (Texts{"PRI_MI2S_RX Channel Volume = 100 100",
                                              "TX_DEC0 Volume = 0", "TX_DEC1 Volume = 0"}));
  phone.clock.take_waits();
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});
  EXPECT_EQ(phone.property(kSession), "cmd_on");
  EXPECT_EQ(phone.property("vendor.norva.mm.ftm_spk1"), "cmd1_on");
  EXPECT_EQ(phone.sound.take_writes(), kToneWrites);
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});  // runs already
  EXPECT_TRUE(logged(phone, "[FTM-AUDIO]at_loudspeaker_on: repeat cmd\n"));

  phone.set_property(kSession, "cmd_continue");
  EXPECT_TRUE(soon([&] { return phone.program_calls() == Texts{kPlayer, kPlayer}; }));
  EXPECT_EQ(phone.property(kSession), "cmd_on");
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
  EXPECT_EQ(phone.property("vendor.norva.mm.ftm_spk1"), "cmd1_off");
  EXPECT_EQ(phone.sound.take_writes(), kToneResets);
  EXPECT_TRUE(logged(phone, "[FTM-AUDIO]at_loudspeaker_off: thread_result ok\n"));
  std::vector<int> waits;
  for (const auto wait : phone.clock.take_waits()) {
    waits.push_back(static_cast<int>(wait.count() / 1000));
  }
  EXPECT_EQ(waits, (std::vector<int>{300, 10}));

  // Off without on; a player that fails or is not there makes no difference to the station.
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
  std::filesystem::remove(phone.path("/odm/bin/tinyplay_ftm"));
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
}

TEST(Loudspeaker, OffWaitsForTheSecondParty) {
  Handset phone;
  phone.tone_party.set_answering(false);
  phone.start();
  command(phone, kOn, 1);
  phone.sound.take_writes();
  phone.serial.send(std::string(kOff) + "\r\n");
  EXPECT_TRUE(soon([&] { return phone.property(kSession) == "cmd_off"; }));
  EXPECT_FALSE(phone.serial.wait_replies(1, std::chrono::seconds(1)));
  phone.tone_party.set_answering(true);
  EXPECT_TRUE(phone.serial.wait_replies(1, kLimit));
  EXPECT_TRUE(soon([&] { return phone.sound.writes() == kToneResets; }));

  // Ended by the second party alone, then a new session.
  command(phone, kOn, 1);
  phone.set_property(kSession, "cmd_finish");
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
}

TEST(AudioCard, IsTriedSevenTimesAndAgainByTheRowsThatRetry) {
  Handset phone;
  phone.fail(kCard, SYS_openat, ENODEV);
  phone.start();
  const auto waits = phone.clock.take_waits();
  EXPECT_EQ(std::count(waits.begin(), waits.end(), std::chrono::milliseconds(300)), 12);
  EXPECT_TRUE(logged(phone, "mixer init try 6 times fail!\n"));
  EXPECT_FALSE(logged(phone, "mixer init try 7 times fail!\n"));
  EXPECT_EQ(phone.serial.take_replies(), Texts{});
  const std::vector<int> six(6, 300);
  expect_exchanges(phone, {{kOn, {"AUDIO_ROUTE_INIT_FAIL\n"}, {}, six},
                           {kOff, {"ERROR\n"}},
                           {"AT+WCDMIC=1", {"AUDIO_ROUTE_INIT_FAIL\n"}, {}, six},
                           {"AT+WCDMIC=1", {"0"}},
                           {"AT+WCDMIC=0", {"OK\r\n"}},
                           {kCheck, {"ERROR\n", "ERROR\n", "OK\r\n", "0"}, {}, {1300}}});
  EXPECT_EQ(phone.property(kSession), std::nullopt);

  phone.fail(kCard, SYS_openat, 0);
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});  // opens the card anew
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
  EXPECT_EQ(command(phone, "AT+WCDMIC=1", 1), Texts{"OK\r\n"});
  phone.open_devices();
  EXPECT_EQ(phone.sound.handles(), 4U);  // mixer and route of the tone, of the die-crack test
}

TEST(AudioCard, AMissingPathFileIsToldAtOnce) {
  Handset phone;
  const std::string paths = phone.read_file(kPaths).value();
  std::filesystem::remove(phone.path(kPaths));
  phone.start();
  EXPECT_EQ(phone.serial.take_replies(), (Texts{"ERROR\n", "ERROR\n"}));
  expect_exchanges(phone, {{kOn, {"ERROR\n"}},
                           {"AT+WCDMIC=1", {"AUDIO_ROUTE_INIT_FAIL\n"}},
                           {"AT+WCDMIC=0", {"OK\r\n"}},
                           {kCheck, {"ERROR\n", "ERROR\n", "OK\r\n", "0"}, {}, {1300}}});
  phone.write_file(kPaths, "<mixer/>");
  EXPECT_EQ(command(phone, kOn, 1), Texts{"ERROR\n"});
  EXPECT_TRUE(logged(phone, "'ftm-loudspeaker-test' enable fail!\n"));
  phone.write_file(kPaths, paths);
  phone.set_property(kSession, "cmd_finish");
  EXPECT_EQ(command(phone, kOn, 1), Texts{"OK\r\n"});
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
}

TEST(Audio, NoThreadAndNoProcess) {
  Handset phone;
  phone.start({.faults = true});
  phone.fail("thread", SYS_clone3, EAGAIN);
  expect_exchanges(phone, {{kOn, {"THREAD_CREAT_FAIL\n"}},
                           {kOff, {"OK\r\n"}, {}, {10}},
                           {kCheck, {"OK\r\n", "OK\r\n", "0"}, {}, {1300, 10}},
                           {"AT+WCDMIC=1", {"THREAD_CREAT_FAIL\n"}},
                           {"AT+WCDMIC=0", {"OK\r\n"}, {}, {10}}});
  phone.fail("thread", SYS_clone3, 0);
  phone.fail("process", SYS_clone3, EAGAIN);
  EXPECT_EQ(command(phone, kOn, 1), Texts{"ERROR\n"});
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
  Texts replies = command(phone, "AT+WCDMIC=1", 2);
  std::sort(replies.begin(), replies.end());  // of two threads
  EXPECT_EQ(replies, (Texts{"OK\r\n", "WCDMIC_TINYCAP_FAIL\n"}));
  expect_exchanges(phone, {{"AT+CODEC_SPK", {"ERROR\n"}},
                           {"AT+MIC1VOLT_OPEN", {"OK\r\n"}, {}, {10}, {"popen failed\n"}}});
}

// The adapter between the daemon's mixer calls and the card, with alsa-lib in between.
TEST(Mixer, SeesEveryControlAndPassesOnEveryError) {
  Handset phone({.daemon = FTM_MIXER_PROBE});
  phone.sound.describe(
      "BOOL 1; Switch; ; 0\nINT 2; Ints; -10 100; 5 6\nENUM 2; Choice; a, b, c; c b\n"
      "BYTE 4; Bytes; ; 01 02 03 fe\nIEC958 1; Digital; ; 4\nINT64 1; Wide; ; 5\n"
      "INT 1; Refused; 0 1; 0\nINT 1; Ints; 0 9; 9\n");
  phone.sound.fail("Refused", EPERM);
  phone.start();
  EXPECT_EQ(phone.command("AT+LIST"),
            (Texts{"0 Switch 0", "1 Ints 5 6", "2 Choice c b", "3 Bytes 1 2 3 254", "4 Digital -22",
                   "5 Wide -22", "1 Refused 0", "1 Ints 9"}));
  EXPECT_EQ(phone.command("AT+TRY"),
            Texts{"5 -7: 0 0 0 0 0 -22 -22 -22 -22 -22 -22 -22 -22 -22 -22 "
                  "-1 -22"});
  EXPECT_EQ(phone.sound.writes(),
            (Texts{"Ints = 5 -7", "Bytes = ff 80 00 fe", "Choice = b b", "Switch = 1"}));
  EXPECT_EQ(phone.open_devices(), 0U);
  EXPECT_EQ(phone.sound.handles(), 0U);
}

TEST(DieCrack, NamesTheStepThatFails) {
  const Texts round = {"DIE_CRK_DET_INT1 = 0xC2", "DIE_CRK_DET_INT1 = 0x82",
                       "DIE_CRK_DET_INT1 = 0x42", "DIE_CRK_DET_INT1 = 0x02"};
  Texts all = {"DIE_CRK_DET_EN = 0x80"};
  all.insert(all.end(), round.begin(), round.end());
  all.push_back("DIE_CRK_DET_EN = 0xC0");
  all.insert(all.end(), round.begin(), round.end());

  struct Case {
    const char* reply;
    size_t writes;  // of all
    void (*spoil)(Handset&);
  };
  const std::vector<Case> cases = {
      {"OK\r\n", 10, [](Handset&) {}},
      {"ffc04205", 9,
       [](Handset& phone) {
         phone.sound.on_write("DIE_CRK_DET_INT1", [&phone] {
           const bool round_1 = phone.sound.show("DIE_CRK_DET_EN") == "DIE_CRK_DET_EN = 0xC0";
           const bool spoilt = phone.sound.show("DIE_CRK_DET_INT1") == "DIE_CRK_DET_INT1 = 0x42";
           phone.sound.set("DIE_CRK_DET_OUT", round_1 && spoilt ? "5" : "0");
         });
       }},
      {"800001", 0, [](Handset& phone) { phone.sound.fail("DIE_CRK_DET_EN", EIO); }},
      {"80c201", 1, [](Handset& phone) { phone.sound.fail("DIE_CRK_DET_INT1", EIO); }},
  };
  Handset phone;
  const std::string controls = phone.read_file("/dev/snd/controls").value();
  phone.start();
  std::string last = "0";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reply);
    phone.sound.describe(controls);
    c.spoil(phone);
    phone.sound.take_writes();
    phone.clock.take_waits();
    EXPECT_EQ(command(phone, "AT+WCDMIC=1", 1), Texts{c.reply});
    last = c.reply == std::string("OK\r\n") ? last : c.reply;
    EXPECT_EQ(command(phone, "AT+WCDMIC=1", 1), Texts{last});
    EXPECT_EQ(command(phone, "AT+WCDMIC=0", 1), Texts{"OK\r\n"});
    Texts writes = phone.sound.take_writes();
    std::erase_if(writes, [](const std::string& w) { return w.compare(0, 7, "DIE_CRK") != 0; });
    EXPECT_EQ(writes, Texts(all.begin(), all.begin() + static_cast<long>(c.writes)));
    const auto waits = phone.clock.take_waits();
    EXPECT_EQ(std::count(waits.begin(), waits.end(), std::chrono::milliseconds(200)), 1);
    EXPECT_EQ(std::count(waits.begin(), waits.end(), std::chrono::milliseconds(1000)), 1);
    if (c.writes == all.size()) {
      EXPECT_EQ(waits.size(), 2 + 24 + 1U);  // the detector's steps, and one before the reset
    }
  }
  EXPECT_FALSE(phone.read_file("/mnt/vendor/wcd-mic-record.pcm").has_value());
  EXPECT_EQ(phone.program_calls().front(),
            "tinycap /mnt/vendor/wcd-mic-record.pcm -c 2 -r 48000 -b 16 -T 1");
}

TEST(DieCrack, NeedsItsControls) {
  Handset phone;
  phone.sound.describe("ENUM 1; DIE_CRK_DET_EN; 0x80\nENUM 1; DIE_CRK_DET_INT1; 0x82\n");
  phone.start();
  EXPECT_EQ(command(phone, "AT+WCDMIC=1", 1), Texts{"22"});
  EXPECT_EQ(command(phone, "AT+WCDMIC=0", 1), Texts{"OK\r\n"});
}

static std::string words(uint32_t top, uint32_t bottom) {
  std::string bytes(8, '\0');
  bytes[0] = static_cast<char>(top);
  bytes[4] = static_cast<char>(bottom);
  return bytes;
}

TEST(Amplifiers, CheckThemselvesWhileTheTonePlays) {
  const std::string head = "[FTM-AUDIO]audio_pa_check_call: ";
  const std::string normal = "OTP state:Normal, UVP state:Normal, OVP state:Normal, OCP state:";
  struct Case {
    std::string node;
    Texts replies;
    Texts logged;
  };
  const std::vector<Case> cases = {
      {words(0, 0), {"OK\r\n", "OK\r\n", "OK\r\n", "0"}, {head + "smart PA selfcheck is PASS\n"}},
      {words(16, 0),
       {"OK\r\n", "OK\r\n", "OK\r\n", "16"},
       {head + "Top PA OTP state:Normal, UVP state:Normal, OVP state:Error, OCP state:Normal",
        head + "Bottom PA " + normal + "Normal"}},
      {words(0, 0x20),
       {"OK\r\n", "OK\r\n", "OK\r\n", "8192"},
       {head + "Top PA " + normal + "Normal", head + "Bottom PA " + normal + "Error"}},
      {words(0x2, 0x1),
       {"OK\r\n", "OK\r\n", "smartPA i2s clk/i2c read issue", "OK\r\n", "258"},
       {head + "Top smartPA i2s clk isn't issue, reg read is issue\n"
               "Bottom smartPA i2s clk is issue, reg read isn't issue\n"}},
  };
  Handset phone;
  phone.start();
  phone.sound.take_writes();
  for (const Case& c : cases) {
    phone.nodes.set(kNode, c.node);
    EXPECT_EQ(command(phone, kCheck, c.replies.size()), c.replies);
    for (const std::string& text : c.logged) {
      EXPECT_TRUE(logged(phone, text)) << text;
    }
    Texts writes = kToneWrites;
    writes.insert(writes.end(), kToneResets.begin(), kToneResets.end());
    EXPECT_EQ(phone.sound.take_writes(), writes);
  }

  // A session of the loudspeaker's runs: no second one, no reply to that, and this one's end.
  command(phone, kOn, 1);
  EXPECT_EQ(command(phone, kCheck, 4),
            (Texts{"OK\r\n", "smartPA i2s clk/i2c read issue", "OK\r\n", "258"}));
  EXPECT_TRUE(logged(phone, head + "repeat cmd\n"));
  EXPECT_EQ(command(phone, kOff, 1), Texts{"OK\r\n"});
  // A short node: the tone plays on.
  phone.nodes.set(kNode, "1234567");
  Texts replies = command(phone, kCheck, 2);
  std::sort(replies.begin(), replies.end());  // of two threads
  EXPECT_EQ(replies, (Texts{"ERROR\n", "OK\r\n"}));
  EXPECT_EQ(phone.property(kSession), "cmd_on");
  phone.set_property(kSession, "cmd_finish");

  phone.nodes.remove(kNode);
  expect_exchange(phone, {kCheck,
                          {"ERROR\n"},
                          {},
                          {},
                          {"audio_pa_check_call open /proc/tfa98xx-34/selfcheck failed, No such"}});
}

TEST(AudioParts, AreRegisteredOrNot) {
  Handset phone;
  phone.start();
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"AT+CASP=CHECK_AUDIO_CODEC", "/proc/wcd_codec_exist"},
      {"AT+CASP=CHECK_TOP_PA", kNode},
      {"AT+CASP=CHECK_BOTTOM_PA", "/proc/tfa98xx-35/selfcheck"},
      {"AT+CASP=CHECK_AUDIO_SWITCH", "/proc/audio_switch_exist"},
  };
  for (const auto& [row, node] : rows) {
    expect_exchange(phone, {row, {"OK\r\n", "0"}, {}, {}, {" already register\n"}});
    phone.nodes.remove(node);
    expect_exchange(phone, {row, {"ERROR\n", "-1"}, {}, {}, {" not register\n"}});
  }
}

TEST(AudioParts, RevisionAndMicbiasUseTheMixerTool) {
  Handset phone;
  phone.start();
  expect_exchanges(phone, {{"AT+CODEC_SPK", {"OK\r\n"}, {}, {}, {"buffer:SPK_Pa Revision: >OK"}},
                           {"AT+CODEC_HP", {"OK\r\n"}},
                           {"AT+MIC1VOLT_OPEN", {"OK\r\n"}, {}, {10}},
                           {"AT+HPMICVOLT_OPEN", {"OK\r\n"}, {}, {10}},
                           {"AT+MIC1VOLT_CLOSE", {"OK\r\n"}, {}, {1000, 1000}},
                           {"AT+HPMICVOLT_CLOSE", {"OK\r\n"}, {}, {1000, 1000}}});
  EXPECT_EQ(phone.program_calls(),
            (Texts{"tinymix SPK_Pa Revision", "tinymix HP_Pa Revision",
                   "tinymix Enable Micbias MICBIAS1", "tinymix Enable Micbias MICBIAS2",
                   "tinymix Enable Micbias DISABLE", "tinymix Enable Micbias DISABLE"}));
  // No mark; none in the first line's 255 bytes; nothing.
  for (const std::string& text : {std::string("OK >NG\n"), std::string(255, 'x') + ">OK\n",
                                  std::string("first\n>OK\n"), std::string()}) {
    phone.write_file("/data/tinymix/HP_Pa Revision", text);
    expect_exchange(phone, {"AT+CODEC_HP", {"ERROR\n"}});
  }
  std::filesystem::remove(phone.path("/system/bin/tinymix"));
  expect_exchanges(phone,
                   {{"AT+CODEC_SPK", {"ERROR\n"}}, {"AT+MIC1VOLT_OPEN", {"OK\r\n"}, {}, {10}}});
}
