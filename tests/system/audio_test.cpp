// What the audio transcripts cannot say: a command that waits for another party, and the desk's
// mixer.

#include <errno.h>

#include "tests/system/station.h"

using Texts = std::vector<std::string>;

TEST(Loudspeaker, OffWaitsForTheSecondParty) {
  Handset phone;
  phone.tone_party.set_answering(false);
  phone.start();
  phone.serial.send("AT+CASP=1,151,2,20\r\n");
  EXPECT_TRUE(phone.serial.wait_replies(1, std::chrono::seconds(20)));
  phone.serial.take_replies();
  phone.sound.take_writes();
  phone.serial.send("AT+CASP=2,151\r\n");
  EXPECT_TRUE(eventually([&] { return phone.property("vendor.norva.mm.ftm_spk") == "cmd_off"; }));
  EXPECT_FALSE(phone.serial.wait_replies(1, std::chrono::seconds(1)));
  EXPECT_EQ(phone.sound.writes(), Texts{});
  phone.tone_party.set_answering(true);
  EXPECT_TRUE(phone.serial.wait_replies(1, std::chrono::seconds(20)));
  EXPECT_EQ(phone.serial.take_replies(), Texts{"OK\r\n"});
}

// The adapter between the daemon's mixer calls and the card, with alsa-lib in between.
TEST(Mixer, SeesEveryControlAndPassesOnEveryError) {
  Handset phone({.daemon = FTM_MIXER_PROBE});
  phone.sound.describe(
      "BOOL 1; Switch; ; 0\nINT 2; Ints; -10 100; 5 6\nENUM 2; Choice; a, b, c; c b\n"
      "BYTE 4; Bytes; ; 01 02 03 fe\nIEC958 1; Digital; ; 4\nINT64 1; Wide; ; 5\n"
      "INT 1; Refused; 0 1; 0\nINT 1; Ints; 0 9; 9\n");
  phone.sound.fail("Refused", SoundCard::Access::kWrite, EPERM);
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
