// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/Entries.h"
#include "support/FirstThread.h"

namespace {

// Fails every test after which a descriptor or a thread is left over. Detached threads get a moment to go.
class LeakCheck : public testing::EmptyTestEventListener {
 private:
  void OnTestStart(const testing::TestInfo&) override {
    descriptors_ = Entries("/proc/self/fd");
    threads_ = Entries("/proc/self/task");
  }

  void OnTestEnd(const testing::TestInfo&) override {
    const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(10);
    while (Entries("/proc/self/task") > threads_ && std::chrono::system_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ(descriptors_, Entries("/proc/self/fd")) << "open descriptors before and after the test";
    EXPECT_EQ(threads_, Entries("/proc/self/task")) << "threads before and after the test";
  }

  std::ptrdiff_t descriptors_ = 0;
  std::ptrdiff_t threads_ = 0;
};

}  // namespace

#if defined(__SANITIZE_THREAD__)
// Forked children start threads, in which the sanitizer sees a risk.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
// It does not see the lock of a stdio stream, under which the C library writes and closes. And a test waits for a row
// within a call that it replaces, where the lock of the descriptors is held.
extern "C" const char* __tsan_default_suppressions() {
  return "race:_IO_cookie_write\nrace:default_delete<SocketStream>\ndeadlock:CallRecorder::Add\n";
}
#endif

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
#if !defined(VARNIX_EMULATED)
  // Death tests start a new process: forking one with threads would copy locks that nobody releases. Under an emulator
  // a program cannot start itself.
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
#endif
  StartAndEndAThread();
  testing::UnitTest::GetInstance()->listeners().Append(new LeakCheck);
  return RUN_ALL_TESTS();
}
