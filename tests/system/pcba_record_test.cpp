// The PCBA record as the factory line writes it, byte by byte: a length, and thirty bytes scrambled
// with a key of which no two bytes are the same. The daemon is built with that key.

#include "handset/models/partitions.h"
#include "tests/system/station.h"

TEST(PcbaRecord, IsDescrambledWithItsKeyByteByByte) {
  const std::string record(
      "\x18\x80\x51\x26\x33\xcc\x9d\xc8\xdb\x34\x26\x86\x75\x8b\x99\xef"
      "\xbd\x5c\x7d\x5e\xbf\xd8\x88\x7f\x5e\xb1\xd0\xf3\xd2\xb5\x54",
      31);
  Handset phone({.daemon = FTM_PCBA_PROBE});
  phone.start();
  write_partition(phone.path("/dev/block/bootdevice/by-name/norvareserve1"), 4358144, record);
  expect_exchange(phone, "AT+EGMR=0,5", {"OK\r\n", " PCBA:", "PCBA-0123456789-abcdefgh"});
}
