// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The ring of log messages in a forked child, whatever the threads of the parent were doing. (Its tests from outside
// are in logging.c.)
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "Check.h"
#include "LogBuffer.h"

namespace {

std::atomic<bool> holds{false};
std::atomic<bool> held{false};

}  // namespace

// The linker puts it in the place of the one of the C library, which is __real_sem_post.
extern "C" int __real_sem_post(sem_t* semaphore);
extern "C" int __wrap_sem_post(sem_t* semaphore) {
  if (holds) held = true;
  while (holds) std::this_thread::yield();
  return __real_sem_post(semaphore);
}

namespace {

void a_child_that_is_forked_while_a_thread_wakes_the_reader_can_wake_its_own() {
  LogBuffer buffer(1);
  holds = true;
  std::thread waker([&] { buffer.Wake(); });
  while (!held) std::this_thread::yield();

  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    alarm(60);  // Bounds a failing run only.
    holds = false;
    for (int i = 0; i < 3; ++i) {
      buffer.Wake();
      buffer.Wait();
    }
    _exit(0);
  }
  holds = false;
  waker.join();
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  buffer.Wait();
}

}  // namespace

int main() { RUN(a_child_that_is_forked_while_a_thread_wakes_the_reader_can_wake_its_own); }
