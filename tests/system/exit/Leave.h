// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

constexpr int kStatus = 5;

// Whether a child that is forked now, and exits at once, ends as it should.
inline bool ForkedChildExits() {
  const pid_t child = fork();
  if (child == 0) std::exit(kStatus);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == kStatus;
}

// Ends the process in the way that is named, with kStatus: main passes on what this returns.
inline int Leave(const std::string& way) {
  if (way == "exit") std::exit(kStatus);
  if (way == "quick exit") std::quick_exit(kStatus);
  if (way == "exec") execl("/bin/sh", "sh", "-c", ("exit " + std::to_string(kStatus)).c_str(), nullptr);
  if (way == "exit after a fork") std::exit(ForkedChildExits() ? kStatus : 1);
  if (way == "exit from a thread") {
    std::thread([] { std::exit(kStatus); }).detach();
    for (;;) pause();
  }
  return way == "return" ? kStatus : 1;
}
