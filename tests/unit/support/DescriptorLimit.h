// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

// The soft limit of the process, while this object lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit changed = {limit, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &changed), 0) << "the hard limit is " << before_.rlim_max;
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before_{};
};
