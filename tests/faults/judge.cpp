// The judging process; see judge.h.

#include "tests/faults/judge.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

Judge::Judge() {
  int questions[2];
  int answers[2];
  if (pipe2(questions, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot make a pipe");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, questions[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, answers[1], STDOUT_FILENO);
  const char* const arguments[] = {FTM_PYTHON, FTM_JUDGE, nullptr};
  const int error = posix_spawn(&process_, FTM_PYTHON, &actions, nullptr,
                                const_cast<char* const*>(arguments), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(questions[0]);
  close(answers[1]);
  to_ = fdopen(questions[1], "w");
  from_ = fdopen(answers[0], "r");
  if (error != 0) {
    throw std::runtime_error("cannot start " FTM_JUDGE);
  }
}

Judge::~Judge() {
  fclose(to_);  // ends it
  fclose(from_);
  waitpid(process_, nullptr, 0);
}

Judge::Result Judge::result(const std::string& exchange) {
  fprintf(to_, "%s\n", exchange.c_str());
  fflush(to_);
  std::string answer;
  for (int c = fgetc(from_); c != '\n'; c = fgetc(from_)) {
    if (c == EOF) {
      throw std::runtime_error("the judge has ended at: " + exchange);
    }
    answer += static_cast<char>(c);
  }
  return answer.empty() ? Result::kNone : answer == "pass" ? Result::kPass : Result::kFail;
}
