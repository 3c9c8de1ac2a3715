// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>

// Of a thread of this process: 'S' while it sleeps, 'R' while it runs or could run, 'X' when it has gone.
inline char StateOfThread(pid_t thread_id) {
  std::ifstream stat("/proc/self/task/" + std::to_string(thread_id) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::string::size_type name_end = text.rfind(')');
  return name_end == std::string::npos ? 'X' : text.at(name_end + 2);  // One that has gone has no such file.
}

// A thread that runs `body`. When the constructor returns it sleeps there, as far as its state tells, or has ended.
// Joined by the destructor.
class SleepingThread {
 public:
  explicit SleepingThread(std::function<void()> body)
      : thread_([this, work = std::move(body)] {
          thread_id_ = gettid();
          work();
          ended_ = true;
        }) {
    while (!ended_ && (thread_id_ == 0 || StateOfThread(thread_id_) != 'S')) std::this_thread::yield();
  }
  ~SleepingThread() { thread_.join(); }
  SleepingThread(const SleepingThread&) = delete;
  SleepingThread& operator=(const SleepingThread&) = delete;

 private:
  std::atomic<pid_t> thread_id_{0};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};
