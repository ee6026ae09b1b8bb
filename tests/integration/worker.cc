#include "tests/integration/worker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

extern char** environ;

namespace Kestrun::Testing {

Worker::Worker() {
  signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> words;
  std::istringstream emulator(KESTRUN_EMULATOR);
  for (std::string word; emulator >> word;) words.push_back(word);
  words.emplace_back(KESTRUN_STORE_WORKER);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  // Far from the descriptors that the worker expects them at, so that moving one can't overwrite the other.
  int commands[2];
  int answers[2];
  EXPECT_EQ(pipe2(commands, O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(answers, O_CLOEXEC), 0);
  const int input = fcntl(commands[0], F_DUPFD_CLOEXEC, 50);
  const int output = fcntl(answers[1], F_DUPFD_CLOEXEC, 50);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, 3);
  posix_spawn_file_actions_adddup2(&actions, output, 4);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  EXPECT_EQ(posix_spawnp(&id_, arguments[0], &actions, nullptr, arguments.data(), environ), 0)
      << arguments[0];
  posix_spawn_file_actions_destroy(&actions);
  for (const int end : {commands[0], answers[1], input, output}) close(end);
  commands_ = fdopen(commands[1], "w");
  answers_ = fdopen(answers[0], "r");
}

Worker::~Worker() {
  std::fclose(commands_);
  std::fclose(answers_);
  int status = 0;
  while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  EXPECT_TRUE(WIFEXITED(status) ? WEXITSTATUS(status) == 0 : WTERMSIG(status) == SIGKILL) << status;
}

std::string Worker::Do(const std::string& command) {
  Begin(command);
  return End();
}

void Worker::Begin(const std::string& command) {
  std::fprintf(commands_, "%s\n", command.c_str());
  EXPECT_EQ(std::fflush(commands_), 0);
}

std::string Worker::End() {
  char* line = nullptr;
  size_t capacity = 0;
  const ssize_t size = getline(&line, &capacity, answers_);
  std::string answer = size <= 0 ? "<gone>" : std::string(line, static_cast<size_t>(size) - 1);
  std::free(line);
  return answer;
}

void Worker::Kill() {
  kill(id_, SIGKILL);
}

}  // namespace Kestrun::Testing
