// A second process, forked, that takes turns with the test.
//
//   ChildProcess child([&](ChildLink& parent) {
//     ...                   // hold a lock
//     parent.Signal();      // it is held
//     parent.Await();       // until the test has seen what it wanted to see
//     return 0;
//   });
//   child.Await();
//   ...
//   child.Signal();
//   EXPECT_EQ(child.Wait(), 0);
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace Kestrun::Testing {

// One end of a connection over which two processes wait for each other. An end that waits for a process that
// is gone is let go with false.
class ChildLink {
 public:
  ChildLink(int readEnd, int writeEnd) : readEnd_(readEnd), writeEnd_(writeEnd) {}
  ~ChildLink();
  ChildLink(const ChildLink&) = delete;
  ChildLink& operator=(const ChildLink&) = delete;

  bool Signal();
  bool Await();
  // A text of any length, in place of a signal.
  bool Send(const std::string& text);
  bool Receive(std::string* text);

 private:
  int readEnd_;
  int writeEnd_;
};

class ChildProcess {
 public:
  // Forks. The child runs `body` and ends with its result as exit status, without destructors of static
  // objects and without whatever is left in the buffer of standard output. No other thread may be running.
  explicit ChildProcess(const std::function<int(ChildLink& parent)>& body);
  // Kills the child when it is still there.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Signal() { return link_->Signal(); }
  bool Await() { return link_->Await(); }
  bool Send(const std::string& text) { return link_->Send(text); }
  bool Receive(std::string* text) { return link_->Receive(text); }

  void Kill();
  // Waits for the end. The exit status; 128 and the signal's number when a signal ended the child.
  int Wait();
  pid_t Id() const { return id_; }

 private:
  ChildLink* link_;
  pid_t id_;
  int status_ = 0;
  bool waited_ = false;
};

// Sends what this process prints from now on to /dev/null, with a buffer, so that printing makes hardly any
// system call. False when that can't be opened. For children: a test's own output stays.
bool DropStandardOutput();

}  // namespace Kestrun::Testing
