#include "tests/tools/run_kestrun.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace Kestrun::Testing {
namespace {

// A file without a name that holds `content`, read from its beginning.
int MakeFile(const std::string& content = std::string()) {
  const int file = memfd_create("kestrun-test", MFD_CLOEXEC);
  size_t written = 0;
  while (file >= 0 && written < content.size()) {
    const ssize_t got = write(file, content.data() + written, content.size() - written);
    if (got <= 0) break;
    written += static_cast<size_t>(got);
  }
  if (file < 0 || written != content.size() || lseek(file, 0, SEEK_SET) != 0) {
    std::perror("a file for a test");
    std::abort();
  }
  return file;
}

std::string TakeFile(int file) {
  std::string content;
  char bytes[65536];
  ssize_t got = 0;
  for (off_t at = 0; (got = pread(file, bytes, sizeof(bytes), at)) > 0; at += got) {
    content.append(bytes, static_cast<size_t>(got));
  }
  close(file);
  return content;
}

// Standard input, output and error become these descriptors, or are closed where one is negative.
pid_t Start(const std::vector<std::string>& arguments, const int (&descriptors)[3]) {
  std::vector<char*> argv = {const_cast<char*>(KESTRUN_PROGRAM)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  const pid_t id = fork();
  if (id != 0) return id;
  for (int i = 0; i < 3; ++i) {
    if (descriptors[i] < 0) {
      close(i);
    } else {
      dup2(descriptors[i], i);
    }
  }
  execv(argv[0], argv.data());
  _exit(127);
}

int WaitFor(pid_t id) {
  int status = 0;
  if (waitpid(id, &status, 0) != id) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What a program writes to the terminal, until it ends.
std::string TakeTerminal(int terminal) {
  std::string content;
  char bytes[4096];
  ssize_t got = 0;
  while ((got = read(terminal, bytes, sizeof(bytes))) > 0) content.append(bytes, static_cast<size_t>(got));
  close(terminal);
  return content;
}

}  // namespace

Ran RunKestrun(const std::vector<std::string>& arguments, const std::string& input) {
  const int in = MakeFile(input);
  const int out = MakeFile();
  const int err = MakeFile();
  const int status = WaitFor(Start(arguments, {in, out, err}));
  close(in);
  return {status, TakeFile(out), TakeFile(err)};
}

Ran RunKestrunOnTerminal(const std::vector<std::string>& arguments, const std::string& typed) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
    std::perror("a terminal for a test");
    std::abort();
  }
  const int line = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (write(terminal, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size())) std::abort();
  const int out = MakeFile();
  const pid_t id = Start(arguments, {line, out, line});
  close(line);
  Ran ran;
  ran.err = TakeTerminal(terminal);
  ran.status = WaitFor(id);
  ran.out = TakeFile(out);
  return ran;
}

Ran RunKestrunWithout(const std::vector<int>& closed, const std::vector<std::string>& arguments) {
  const int in = MakeFile();
  const int out = MakeFile();
  const int err = MakeFile();
  int descriptors[3] = {in, out, err};
  for (const int descriptor : closed) descriptors[descriptor] = -1;
  const int status = WaitFor(Start(arguments, descriptors));
  close(in);
  return {status, TakeFile(out), TakeFile(err)};
}

Ran RunKestrunInto(const std::string& path, const std::vector<std::string>& arguments) {
  const int in = MakeFile();
  const int out = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const int err = MakeFile();
  Ran ran;
  ran.status = WaitFor(Start(arguments, {in, out, err}));
  close(in);
  close(out);
  ran.err = TakeFile(err);
  return ran;
}

RunningKestrun::RunningKestrun(const std::vector<std::string>& arguments)
    : out_(MakeFile()), err_(MakeFile()) {
  const int in = MakeFile();
  id_ = Start(arguments, {in, out_, err_});
  close(in);
}

RunningKestrun::~RunningKestrun() {
  if (id_ > 0) WaitFor(id_);
}

void RunningKestrun::Signal(int signal) {
  kill(id_, signal);
}

Ran RunningKestrun::Wait() {
  Ran ran;
  ran.status = WaitFor(id_);
  id_ = -1;
  ran.out = TakeFile(out_);
  ran.err = TakeFile(err_);
  return ran;
}

}  // namespace Kestrun::Testing
