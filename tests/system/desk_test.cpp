// What a handset leaves on the desk: nothing, also when it is ended before its time.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/system/station.h"

namespace fs = std::filesystem;

// The folders of a process' handsets.
static size_t folders_of(pid_t process) {
  const std::string start = "ftm-handset." + std::to_string(process) + ".";
  size_t count = 0;
  for (const auto& entry : fs::directory_iterator(fs::temp_directory_path())) {
    count += entry.path().filename().string().starts_with(start) ? 1 : 0;
  }
  return count;
}

static pid_t start_console() {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  std::string words[] = {FTM_CONSOLE, ".pause 10", "AT+KEY"};  // AT+KEY takes five seconds
  char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
  pid_t process = 0;
  EXPECT_EQ(posix_spawn(&process, FTM_CONSOLE, &actions, nullptr, arguments, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_TRUE(eventually([&] { return folders_of(process) == 1; }));
  return process;
}

TEST(Desk, AConsoleThatIsAskedToEndTakesItsFolderAlong) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    const pid_t process = start_console();
    kill(process, number);
    int status = 0;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_TRUE(WIFEXITED(status)) << number;
    EXPECT_EQ(folders_of(process), 0U) << number;
  }
}

TEST(Desk, TheNextHandsetClearsOnlyTheFoldersOfTheDead) {
  const pid_t killed = start_console();
  kill(killed, SIGKILL);
  ASSERT_EQ(waitpid(killed, nullptr, 0), killed);
  EXPECT_EQ(folders_of(killed), 1U);
  Handset living;
  {
    Handset next;
    EXPECT_EQ(folders_of(killed), 0U);
    EXPECT_EQ(folders_of(getpid()), 2U);
  }
  EXPECT_EQ(folders_of(getpid()), 1U);
}
