// The engineer module's records on the reserve partition, the secrecy lock and the test records.

#include <errno.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "handset/models/partitions.h"
#include "tests/system/station.h"

using namespace handset;

namespace fs = std::filesystem;
using Replies = std::vector<std::string>;

static const Replies kOk = {"OK\r\n"};
static const Replies kError = {"ERROR\n"};
static const Replies kGateClosed = {"ERROR\n", " UNLOCK FIRST"};
static const Replies kUnlocked = {"OK\r\n", " UNLOCKED SUCCESS"};

static const std::string kPartition = "/dev/block/bootdevice/by-name/norvareserve1";
static const std::string kNamed = "/dev/block/by-name/norvareserve1";
static const std::string kTarnPartition = "/dev/block/bootdevice/by-name/tarnreserve1";
static const std::string kSecrecyFile = "/mnt/vendor/norvareserve/system/config/secrecy.cfg";
static const std::string kTestRecords = "/mnt/vendor/persist/engineermode/test_record";
static const std::string kSetInfo = "AT^WITH_ARGS_PRODUCT_INFO:";
static const std::string kUnlock = "AT^WITH_ARGS_SECRECY_UNLOCK:";
static constexpr size_t kInfo = 0x481000;
static constexpr size_t kSecrecy = 0x48E000;

static void lay(Handset& phone, size_t offset, const std::string& bytes) {
  write_partition(phone.path(kPartition), offset, bytes);
}

static std::string bytes_at(Handset& phone, size_t offset, size_t size) {
  return read_partition(phone.path(kPartition), offset, size);
}

static std::string padded(std::string text, size_t size) {
  text.resize(size);
  return text;
}

static void expect_image(Handset& phone, const std::string& partition,
                         const std::string& expected) {
  const std::string image = *phone.read_file(partition);
  ASSERT_EQ(image.size(), expected.size());
  const auto differing = std::mismatch(image.begin(), image.end(), expected.begin());
  EXPECT_EQ(differing.first - image.begin(), static_cast<ptrdiff_t>(image.size()))
      << "first byte that differs";
}

TEST(EngineerRecords, LieAtTheirOffsetsAndLeaveTheRestAlone) {
  struct Place {
    std::string line;
    size_t ufs;
    size_t emmc;
    std::string bytes;
  };
  const std::vector<Place> places = {
      {"AT^WITH_ARGS_BACKCOVER_COLOR:ff00aa11\r\n", 0x42D200, 0x41A600, "FF00AA11"},
      {"AT^RESET_ENG_MARK\r\n", 0x42D400, 0x41AA00, std::string(512, '\0')},
      {"AT^ENABLE_ENG_ADB\r\n", 0x42D600, 0x41B000, "ENABLE_BY_FTM"},
      {kSetInfo + "COLOR=RED", kInfo, 0x464000, padded("COLOR=RED", 256)},
  };
  for (const bool ufs : {true, false}) {
    for (const std::string& partition : {kPartition, kTarnPartition}) {
      SCOPED_TRACE(partition + (ufs ? " on UFS" : " on eMMC"));
      Handset phone;
      if (!ufs) {
        fs::remove(phone.path("/dev/block/sda"));
      }
      phone.start();
      std::string expected(5 << 20, '\xaa');
      phone.write_file(partition, expected);
      for (const Place& place : places) {
        EXPECT_EQ(phone.command(place.line), kOk) << place.line;
        expected.replace(ufs ? place.ufs : place.emmc, place.bytes.size(), place.bytes);
      }
      expect_image(phone, partition, expected);
      EXPECT_EQ(phone.command("AT^RESET_PRODUCT_INFO"), kOk);
      expected.replace(ufs ? kInfo : 0x464000, 2560, 2560, '\0');
      expect_image(phone, partition, expected);
    }
  }
}

TEST(EngineerRecords, AColourIsAnyEightCharacters) {
  Handset phone;
  phone.start();
  const std::string set = "AT^WITH_ARGS_BACKCOVER_COLOR:";
  const Replies invalid = {"ERROR\n", " INVALID COLOR"};
  EXPECT_EQ(phone.command("AT^GET_BACKCOVER_COLOR"), (Replies{"OK\r\n", ""}));
  EXPECT_EQ(phone.command(set + "ff00aa1"), invalid);
  EXPECT_EQ(phone.command(set), invalid);
  EXPECT_EQ(phone.command(set + "ff00aa1\n"), kOk);
  EXPECT_EQ(phone.command("AT^GET_BACKCOVER_COLOR"), (Replies{"OK\r\n", "FF00AA1\n"}));
  expect_exchange(phone, {set + "0123:xyz9876",
                          kOk,
                          {},
                          {},
                          {"at_set_backcover_color, cookie=0123:XYZ9876\r\n\n",
                           "at_set_backcover_color, temp=0123:XYZ, len=8\n",
                           "[FTM-ENGINEER]Write reserve4 success, color = 0123:XYZ"}});
  EXPECT_EQ(phone.command("AT^GET_BACKCOVER_COLOR"), (Replies{"OK\r\n", "0123:XYZ"}));
}

TEST(EngineerRecords, ProductInfoTakesTheFirstFreeOrMatchingSlot) {
  Handset phone;
  phone.start();
  const auto set = [&](const std::string& entry) { return phone.command(kSetInfo + entry); };
  const auto expect_entries = [&](const std::vector<std::string>& entries) {
    Replies replies = kOk;
    for (const std::string& entry : entries) {
      replies.insert(replies.end(), {entry, "\n"});
    }
    EXPECT_EQ(phone.command("AT^GET_PRODUCT_INFO"), replies);
  };
  const Replies invalid = {"ERROR\n", " INVALID PRODUCT INFO"};
  const Replies too_long = {"ERROR\n", " INVALID PRODUCT INFO SIZE"};
  const std::string name(16, 'N');

  expect_entries({});
  EXPECT_EQ(set("COLOR=RED"), kOk);
  EXPECT_EQ(set("color=blue"), kOk);
  expect_entries({"COLOR=BLUE"});
  EXPECT_EQ(set("COL=X"), kOk);  // begins the stored name
  expect_entries({"COL=X"});
  EXPECT_EQ(set("COLOR=Y"), kOk);  // does not
  expect_entries({"COL=X", "COLOR=Y"});
  EXPECT_EQ(set("=E"), kOk);
  expect_entries({"=E", "COLOR=Y"});
  EXPECT_EQ(set(name + "=" + std::string(238, 'V')), kOk);
  EXPECT_EQ(set(name + "=" + std::string(239, 'V')), too_long);
  EXPECT_EQ(set(name + "N=V"), invalid);
  EXPECT_EQ(set("NOTHING"), invalid);
  expect_entries({"=E", "COLOR=Y", name + "=" + std::string(238, 'V')});

  // A free slot ahead of the one with the same name; a slot without terminator; one without '='.
  EXPECT_EQ(phone.command("AT^RESET_PRODUCT_INFO"), kOk);
  const std::string full = "F=" + std::string(254, 'f');
  lay(phone, kInfo, padded("FREE", 256) + full + padded("COLOR=RED", 256));
  expect_entries({"FREE", full, "COLOR=RED"});
  EXPECT_EQ(set("COLOR=NEW"), kOk);
  expect_entries({"COLOR=NEW", full, "COLOR=RED"});

  EXPECT_EQ(phone.command("AT^RESET_PRODUCT_INFO"), kOk);
  for (char c = 'A'; c < 'A' + 10; ++c) {
    EXPECT_EQ(set(std::string(1, c) + "=1"), kOk);
  }
  const std::string before = bytes_at(phone, kInfo, 2560);
  expect_exchange(phone, {kSetInfo + "Z=1", kError, {}, {}, {"property not found or full"}});
  EXPECT_EQ(bytes_at(phone, kInfo, 2560), before);
  EXPECT_EQ(set("J=2"), kOk);
  EXPECT_EQ(bytes_at(phone, kInfo, 2560), before.substr(0, 9 * 256) + padded("J=2", 256));
  EXPECT_EQ(phone.command("AT^RESET_PRODUCT_INFO"), kOk);
  expect_entries({});
  fs::resize_file(phone.path(kPartition), kInfo + 256 + 255);  // one whole slot and a part
  lay(phone, kInfo, padded("A=1", 256) + "B=2");
  expect_entries({"A=1"});
}

TEST(EngineerRecords, ResetDeletesTestRecordsAndKeepsFolders) {
  Handset phone;
  phone.start({.faults = true});
  const fs::path folder = phone.path(kTestRecords);
  fs::create_directory(folder / "kept");
  phone.write_file(kTestRecords + "/kept/file", "x");
  phone.write_file(kTestRecords + "/.hidden", "x");
  phone.write_file(kTestRecords + "/" + std::string(210, 'n'), "x");  // a path of 255 bytes
  fs::create_symlink("kept", folder / "link");
  sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
  const int socket_fd = socket(AF_UNIX, SOCK_STREAM, 0);
  (folder / "socket").string().copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(bind(socket_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  close(socket_fd);
  expect_exchange(phone, {"AT^RESET_ENG_MARK", kOk, {}, {}, {" remove " + kTestRecords + "/link"}});
  const fs::directory_iterator left(folder);
  EXPECT_EQ(std::vector<fs::path>(begin(left), end(left)), std::vector<fs::path>{folder / "kept"});
  EXPECT_TRUE(fs::exists(folder / "kept/file"));

  // A record that cannot be deleted, or a folder that cannot be opened: the mark goes all the same.
  const std::string mark(512, 'm');
  const std::string too_long = kTestRecords + "/" + std::string(211, 'n');
  phone.write_file(too_long, "x");
  lay(phone, 0x42D400, mark);
  expect_exchange(phone,
                  {"AT^RESET_ENG_MARK", kError, {}, {}, {"failed, err:File name too long "}});
  EXPECT_EQ(bytes_at(phone, 0x42D400, 512), std::string(512, '\0'));
  EXPECT_TRUE(phone.read_file(too_long).has_value());
  fs::remove(phone.path(too_long));
  phone.fail(kTestRecords + "/", SYS_openat, EIO);
  expect_exchange(
      phone, {"AT^RESET_ENG_MARK", kError, {}, {}, {"invalid root path, err:Input/output error "}});
  fs::remove_all(folder);
  EXPECT_EQ(phone.command("AT^RESET_ENG_MARK"), kOk);
}

TEST(EngineerRecords, FailuresOfThePartition) {
  Handset phone;
  phone.start({.faults = true});
  lay(phone, kInfo, padded("A=1", 256));
  const std::string unopened = "[FTM-ENGINEER]Unable to open " + kNamed + "\n";
  const std::string info_unread = "[FTM-ENGINEER]read product info fail\n";
  const std::string info_unsaved = "[FTM-ENGINEER]save product info fail, errno = ";
  // The replies and a log text for each call that fails: nothing in the replies means silence.
  struct Failure {
    Replies replies;
    std::string logged;
  };
  struct Case {
    std::string command;
    Failure open, seek, read, write, sync;
  };
  const Failure works = {kOk, ""};
  const std::vector<Case> cases = {
      {"AT^WITH_ARGS_BACKCOVER_COLOR:12345678",
       {{}, unopened},
       {kError, "[FTM-ENGINEER]lseek SEEK_SET fail\n"},
       works,
       {kError, "[FTM-ENGINEER]Write reserve4 fail, errno = 5"},
       works},
      {"AT^GET_BACKCOVER_COLOR",
       {{}, unopened},
       {kError, "[FTM-ENGINEER]lseek SEEK_SET fail\n"},
       {kError, "[FTM-ENGINEER]read none from reserve4\n"},
       {{"OK\r\n", "12345678"}, ""},
       {{"OK\r\n", "12345678"}, ""}},
      {"AT^ENABLE_ENG_ADB",
       {kError, unopened},
       {{}, "[FTM-ENGINEER]lseek to reserve error  \n"},
       works,
       {kOk, "[FTM-ENGINEER]fail to write file " + kNamed + "\n"},
       works},
      {"AT^RESET_ENG_MARK",
       {kError, "open " + kNamed + " failed! err:Input/output error"},
       {kError, "lseek failed! size:-1"},
       works,
       {kError, "[FTM-ENGINEER]reset_engineermode_mark fail, res = -1"},
       works},
      {kSetInfo + "A=2",
       {kError, info_unsaved + "5"},
       {kError, "read failed! size:-1"},
       works,
       {kError, "write failed! size:-1"},
       works},
      {"AT^GET_PRODUCT_INFO",
       {kError, info_unread},
       {kError, info_unread},
       {kError, "read no content! size:-1"},
       {{"OK\r\n", "A=2\r\n", "\n"}, "[FTM-ENGINEER]read product info success\n"},
       {{"OK\r\n", "A=2\r\n", "\n"}, ""}},
      {"AT^RESET_PRODUCT_INFO",
       {kError, info_unread},
       {kError, info_unread},
       {kOk, "[FTM-ENGINEER]read product info success\n"},
       {kError, info_unread},
       {kOk, "write 2560 bytes"}},
  };
  const auto expect_failure = [&](const std::string& command, const std::string& path, int call,
                                  const Failure& failure) {
    SCOPED_TRACE("call " + std::to_string(call));
    phone.fail(path, call, EIO);
    expect_exchange(phone, {command, failure.replies, {}, {}, {failure.logged}});
    phone.fail(path, call, 0);
  };
  for (const Case& c : cases) {
    expect_failure(c.command, kNamed, SYS_openat, c.open);
    expect_failure(c.command, kPartition, SYS_lseek, c.seek);
    expect_failure(c.command, kPartition, SYS_read, c.read);
    expect_failure(c.command, kPartition, SYS_write, c.write);
    expect_failure(c.command, kPartition, SYS_fsync, c.sync);
  }
  // The ADB mark makes the partition's file when there is none; nothing else does.
  fs::remove(phone.path(kPartition));
  EXPECT_EQ(phone.command("AT^WITH_ARGS_BACKCOVER_COLOR:12345678"), Replies{});
  EXPECT_EQ(phone.command("AT^ENABLE_ENG_ADB"), kOk);
  EXPECT_EQ(phone.read_file(kPartition)->substr(0x42D600), "ENABLE_BY_FTM");
}

TEST(Secrecy, TheEncryptionMarkIsAFile) {
  Handset phone;
  phone.start();
  EXPECT_EQ(phone.command("AT^CHECK_ENCRYPT_STATE"), kOk);
  phone.write_file("/cache/.encrypting", "");
  EXPECT_EQ(phone.command("AT^CHECK_ENCRYPT_STATE"), kError);
}

static const std::string kKey = std::string(256, 'k') + std::string(256, 'Z');

TEST(Secrecy, ReadsTheConfigurationFromRecordOrFile) {
  const Replies no_lock = {"OK\r\n", " NO LOCK"};
  const Replies locked = {"OK\r\n", " LOCKED"};
  const Replies unlocked = {"OK\r\n", " UNLOCKED"};
  const Replies no_imei = {"OK\r\n", " NO IMEI"};
  const auto imei = [](const std::string& text) { return Replies{"OK\r\n", " IMEI: ", text}; };
  const Replies gate_open = {"ERROR\n", " INVALID COLOR"};
  const std::string with_key = "#\nrc4_key=" + kKey + "\n";
  // Exactly the size of the record, its last line without an end.
  const std::string lock_line = "encrypt_x=true";
  const std::string full =
      with_key + std::string(1024 - with_key.size() - lock_line.size() - 1, '#') + "\n" + lock_line;
  struct Case {
    std::string record;
    const char* file;  // null: none
    Replies status, imei, gate;
  };
  const std::vector<Case> cases = {
      {"", nullptr, no_lock, no_imei, gate_open},
      {"no mark: encrypt_x=true", nullptr, no_lock, no_imei, gate_open},
      {"", "", no_lock, no_imei, gate_open},
      {"#\nencrypt_x=true", nullptr, no_lock, no_imei, kGateClosed},
      {"#\nencrypt_=true\n", nullptr, no_lock, no_imei, kGateClosed},
      {"#\nencrypt_x=TRUE\nencrypt_y=true \nencrypt_z\nx_encrypt_=true\nencrypt=true\r", nullptr,
       no_lock, no_imei, gate_open},
      {with_key, nullptr, unlocked, no_imei, gate_open},
      {with_key + "encrypt_x=true\nencrypt_x=false", nullptr, locked, no_imei, kGateClosed},
      {full, nullptr, locked, no_imei, kGateClosed},
      {"#\nrc4_key=" + kKey.substr(1) + "\n", nullptr, no_lock, no_imei, gate_open},
      {"#\nrc4_key=" + kKey + "x\n", nullptr, no_lock, no_imei, gate_open},
      {"#\n\nimei=123456789012345\nimei\n=\x01", nullptr, no_lock, imei("\x01"), gate_open},
      {"#\nimei=123456789012345\nimei=1234567890123456\n", nullptr, no_lock,
       imei("123456789012345"), gate_open},
      {"#\nimei=1234567890123456\n", nullptr, no_lock, no_imei, gate_open},
      {"#\nimei=1\nim=", nullptr, no_lock, no_imei, gate_open},
      {"#\nim=77\nimeix=1\nr=" + kKey, nullptr, unlocked, imei("77"), gate_open},
      {"#\nIMEI=77\nrc4_keys=" + kKey, nullptr, no_lock, no_imei, gate_open},
      {"#imei=77\n", "imei=88\nencrypt_x=true", no_lock, no_imei, gate_open},
      {"imei=77\n", "imei=88\nencrypt_x=true", no_lock, imei("88"), kGateClosed},
  };
  Handset phone;
  phone.start({.faults = true});
  const std::string set_color = "AT^WITH_ARGS_BACKCOVER_COLOR:\n";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.record + " / " + (c.file == nullptr ? "no file" : c.file));
    lay(phone, kSecrecy, padded(c.record, 1024));
    fs::remove(phone.path(kSecrecyFile));
    if (c.file != nullptr) {
      phone.write_file(kSecrecyFile, c.file);
    }
    EXPECT_EQ(phone.command("AT^SECRECY_LOCK_STATUS"), c.status);
    EXPECT_EQ(phone.command("AT^SECRECY_IMEI"), c.imei);
    EXPECT_EQ(phone.command(set_color), c.gate);
  }
  const std::string before = *phone.read_file(kPartition);
  for (const char* command :
       {"AT^ENABLE_ENG_ADB", "AT^WITH_ARGS_BACKCOVER_COLOR:12345678", "AT^RESET_ENG_MARK",
        "AT^WITH_ARGS_PRODUCT_INFO:A=1", "AT^RESET_PRODUCT_INFO"}) {
    expect_exchange(phone, {command, kGateClosed, {}, {}, {"[FTM-ENGINEER]is_secrecy_locked\n"}});
  }
  expect_image(phone, kPartition, before);
  // The record cannot be read: the file counts. The file cannot be read either: nothing goes.
  lay(phone, kSecrecy, padded("#\nimei=99\n", 1024));
  phone.fail(kPartition, SYS_read, EIO);
  EXPECT_EQ(phone.command("AT^SECRECY_IMEI"), imei("88"));
  phone.fail(kSecrecyFile, SYS_read, EIO);
  const std::string unopened = "[FTM-ENGINEER]Unable to open " + kSecrecyFile + "\n";
  expect_exchanges(
      phone,
      {{"AT^SECRECY_IMEI", kError, {}, {}, {unopened}},
       {"AT^SECRECY_LOCK_STATUS",
        kError,
        {},
        {},
        {"readSecrecyCfg config from reserve",
         "[FTM-ENGINEER]readSecrecyCfg read config file fail, Input/output error", unopened}},
       {kUnlock + kKey, kError, {}, {}, {unopened}},
       {"AT^RESET_PRODUCT_INFO", kGateClosed}});
  // Without the first folder the second one's file counts.
  phone.write_file("/mnt/vendor/tarnreserve/system/config/secrecy.cfg", "imei=55");
  EXPECT_EQ(phone.command("AT^SECRECY_IMEI"), kError);
  fs::remove_all(phone.path("/mnt/vendor/norvareserve"));
  EXPECT_EQ(phone.command("AT^SECRECY_IMEI"), imei("55"));
}

TEST(Secrecy, UnlocksFileAndRecordWithTheKey) {
  Handset phone;
  phone.start({.faults = true});
  const std::string text = "#\n\nrc4_key=" + kKey + "\nencrypt_data=true\nother=true\nkeep=truely";
  const std::string rewritten =
      padded("#\nrc4_key=" + kKey + "\nencrypt_data=false\nother=false\nkeep=truely\n", 1024);
  const auto lay_both = [&](const std::string& record, const std::string& file) {
    lay(phone, kSecrecy, padded(record, 1024));
    phone.write_file(kSecrecyFile, file);
  };
  const auto record = [&] { return bytes_at(phone, kSecrecy, 1024); };
  const Replies invalid = {"ERROR\n", " INVALID KEY"};
  const Replies mismatch = {"ERROR\n", " KEY DOESN'T MATCH"};

  lay_both(text, "old");
  EXPECT_EQ(phone.command(kUnlock + kKey.substr(1)), invalid);
  EXPECT_EQ(phone.command(kUnlock + "x" + kKey.substr(1)), mismatch);
  EXPECT_EQ(phone.command(kUnlock + kKey.substr(1) + "x"), mismatch);
  EXPECT_EQ(record(), padded(text, 1024));
  std::string image = *phone.read_file(kPartition);
  // As long as one read of the line can be.
  const std::string longest = kUnlock + kKey + std::string(576 - kUnlock.size() - 512, 'x');
  EXPECT_EQ(phone.command(longest), kUnlocked);
  expect_image(phone, kPartition, image.replace(kSecrecy, 1024, rewritten));
  EXPECT_EQ(phone.read_file(kSecrecyFile), rewritten);
  EXPECT_EQ(phone.command("AT^SECRECY_LOCK_STATUS"), (Replies{"OK\r\n", " UNLOCKED"}));

  // From the file alone: the record gets the text, too.
  lay_both("", text.substr(2));
  expect_exchange(phone, {kUnlock + kKey,
                          kUnlocked,
                          {},
                          {},
                          {"unlockSecrecyCfg config from reserve",
                           "unlockSecrecyCfg  write 1024 bytes", "unlockSecrecyCfg count = 1024"}});
  EXPECT_EQ(record(), rewritten.substr(2) + std::string(2, '\0'));
  EXPECT_EQ(phone.read_file(kSecrecyFile), record());

  // Nothing to unlock: a success that writes nothing. No key: nothing to compare with.
  const std::string nothing = "#\nrc4_key=" + kKey + "\nencrypt_data=false";
  lay_both(nothing, "old");
  EXPECT_EQ(phone.command(kUnlock + kKey), kUnlocked);
  EXPECT_EQ(record(), padded(nothing, 1024));
  EXPECT_EQ(phone.read_file(kSecrecyFile), "old");
  lay_both("#\nencrypt_data=true", "old");
  EXPECT_EQ(phone.command(kUnlock + kKey), (Replies{"OK\r\n", " NO LOCK"}));

  // Each "true" makes the text one byte longer: up to its size it is written, beyond it is not.
  const std::string start = "#\nrc4_key=" + kKey + "\nencrypt_data=true\n";
  lay_both(start + std::string(1022 - start.size(), 'x'), "old");
  EXPECT_EQ(phone.command(kUnlock + kKey), kUnlocked);
  EXPECT_EQ(record().substr(1022), "x\n");
  const std::string too_long = start + std::string(1023 - start.size(), 'x');
  lay_both(too_long, "old");
  EXPECT_EQ(phone.command(kUnlock + kKey), kError);
  EXPECT_EQ(record(), padded(too_long, 1024));
  EXPECT_EQ(phone.read_file(kSecrecyFile), "old");

  // The record's outcome is the command's.
  struct Failure {
    std::string path;
    int call;
    Replies replies;
    std::string logged;
  };
  const std::vector<Failure> failures = {
      {kPartition, SYS_write, kError, "unlockSecrecyCfg count = -1"},
      {kSecrecyFile, SYS_openat, kUnlocked,
       "unlockSecrecyCfg  open " + kSecrecyFile + " failed! err:Input/output error"},
      {kSecrecyFile, SYS_write, kUnlocked, "unlockSecrecyCfg  write failed! size:-1"},
  };
  for (const Failure& failure : failures) {
    lay_both(text, text);
    phone.fail(failure.path, failure.call, EIO);
    expect_exchange(phone, {kUnlock + kKey, failure.replies, {}, {}, {failure.logged}});
    phone.fail(failure.path, failure.call, 0);
    EXPECT_EQ(record() == rewritten, failure.replies == kUnlocked);
    EXPECT_EQ(phone.read_file(kSecrecyFile) == rewritten, failure.path == kPartition);
  }
}
