// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <optional>
#include <thread>
#include <utility>

#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Own.h"
#include "support/SleepingThread.h"
#include "support/SystemCallHooks.h"
#include "threads/FileDescriptor.h"

namespace {

FileDescriptor Open() { return Own(dup(STDERR_FILENO)); }

}  // namespace

TEST(FileDescriptor, OwnsNothingAtFirst) {
  const FileDescriptor none;

  EXPECT_FALSE(none.IsOpen());
  EXPECT_EQ(none.Get(), -1);
}

TEST(FileDescriptor, IsClosedWithItsOwner) {
  int number = -1;
  {
    const FileDescriptor owner = Open();
    number = owner.Get();
    EXPECT_TRUE(IsOpen(number));
  }

  EXPECT_FALSE(IsOpen(number));
}

TEST(FileDescriptor, ThatIsClosedIsNotClosedAgain) {
  FileDescriptor owner = Open();
  const int number = owner.Get();
  owner.Close();
  ASSERT_EQ(dup2(STDERR_FILENO, number), number);  // The number is somebody else's now.

  owner.Close();
  owner = FileDescriptor();

  EXPECT_TRUE(IsOpen(number));
  close(number);
}

TEST(FileDescriptor, ThatIsMovedHasOneOwner) {
  FileDescriptor first = Open();
  const int number = first.Get();

  FileDescriptor second(std::move(first));
  FileDescriptor third = Open();
  const int replaced = third.Get();
  third = std::move(second);

  EXPECT_FALSE(second.IsOpen());
  EXPECT_EQ(third.Get(), number);
  EXPECT_TRUE(IsOpen(number));
  EXPECT_FALSE(IsOpen(replaced));
}

TEST(FileDescriptor, FailureOfTheSystemCallLeavesErrnoToTheCaller) {
  errno = 0;

  const FileDescriptor none = Own(dup(-1));

  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(none.IsOpen());
}

TEST(FileDescriptor, IsClosedInAForkedChildAndOpenInItsParent) {
  FileDescriptor moved = Open();
  const FileDescriptor first = Open();
  FileDescriptor gone = Open();
  const FileDescriptor second = Open();
  const FileDescriptor third(std::move(moved));
  gone.Close();

  EXPECT_TRUE(HoldsInForkedChild([&] { return !first.IsOpen() && !second.IsOpen() && !third.IsOpen(); }));
  const int numbers[] = {first.Get(), second.Get(), third.Get()};
  EXPECT_TRUE(HoldsInForkedChild([&] { return !IsOpen(numbers[0]) && !IsOpen(numbers[1]) && !IsOpen(numbers[2]); }));
  for (const int number : numbers) EXPECT_TRUE(IsOpen(number));
}

TEST(FileDescriptor, IsClosedInAForkedChildAlsoWhenThoseBesideItHaveGone) {
  const FileDescriptor oldest = Open();
  FileDescriptor second = Open();
  FileDescriptor third = Open();
  const FileDescriptor newest = Open();

  third.Close();
  second.Close();

  EXPECT_TRUE(HoldsInForkedChild([&] { return !oldest.IsOpen() && !newest.IsOpen(); }));
}

TEST(FileDescriptor, NumberThatIsTheProgramsByNowIsLeftOpenInAForkedChild) {
  FileDescriptor closed = Open();
  const int number = closed.Get();
  closed.Close();
  ASSERT_EQ(dup2(STDERR_FILENO, number), number);

  EXPECT_TRUE(HoldsInForkedChild([&] { return IsOpen(number); }));
  close(number);
}

TEST(FileDescriptor, ChildOpensAndForksAnew) {
  const FileDescriptor of_parent = Open();

  EXPECT_TRUE(HoldsInForkedChild([&] {
    const FileDescriptor own = Open();
    const int number = own.Get();
    return IsOpen(number) && HoldsInForkedChild([&] { return !IsOpen(number); }) && IsOpen(number);
  }));
}

TEST(FileDescriptor, ForkWaitsForADescriptorThatIsBeingMade) {
  std::promise<void> making;
  std::promise<void> forked;
  std::atomic<bool> forks{false};
  const pid_t forking_thread = gettid();
  std::optional<FileDescriptor> owner;
  int number = -1;
  std::thread maker([&] {
    {
      const NoFork no_fork;
      number = dup(STDERR_FILENO);
      making.set_value();
      while (!forks || StateOfThread(forking_thread) != 'S') std::this_thread::yield();  // Until fork() waits.
      owner.emplace(no_fork, number);
    }
    forked.get_future().wait();  // The thread sanitizer wants a child to join the threads that had ended.
  });
  making.get_future().wait();

  forks = true;
  const bool closed = HoldsInForkedChild([&] { return !IsOpen(number); });

  forked.set_value();
  maker.join();
  EXPECT_TRUE(closed);
}

#if !defined(VARNIX_EMULATED)  // An emulator need not stand a fork by another thread than the first.
TEST(FileDescriptor, ForkWaitsForADescriptorThatIsBeingClosed) {
  FileDescriptor owner = Open();
  const int number = owner.Get();
  bool closed = false;
  std::optional<SleepingThread> forker;
  {
    const Hooked close(Hooks().close, [&](int descriptor) {
      if (descriptor == number && !forker) {
        forker.emplace([&] { closed = HoldsInForkedChild([&] { return !IsOpen(number); }); });
      }
      return Hooks().close.Real(descriptor);
    });
    owner.Close();
    forker.reset();
  }

  EXPECT_TRUE(closed);
}
#endif
