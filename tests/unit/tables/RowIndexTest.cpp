// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/FailingAllocations.h"
#include "tables/RowIndex.h"

namespace {

// An index of rows whose keys are the numbers from 0.
class RowIndexTest : public testing::Test {
 protected:
  // Enters the next row, with the hash of its key or with another.
  void Add() { Add(RowIndex::HashOf(std::to_string(rows_.size()))); }
  void Add(std::size_t hash) {
    index_.MakeRoom();
    rows_.emplace_back(Varnix::Row(std::to_string(rows_.size()), "v"));
    index_.Enter(std::prev(rows_.end()), hash);
  }

  // The key that is found, or "none".
  std::string Found(const std::string& key) const { return Found(key, RowIndex::HashOf(key)); }
  std::string Found(const std::string& key, std::size_t hash) const {
    const StoredRows::iterator* const found = index_.Find(key, hash);
    return found == nullptr ? "none" : (*found)->content.first;
  }

  StoredRows rows_;
  RowIndex index_;
};

}  // namespace

TEST_F(RowIndexTest, FindsNothingWhileItIsEmpty) { EXPECT_EQ(Found("0"), "none"); }

TEST_F(RowIndexTest, FindsEveryRowAndNoOtherKeyAtAnySize) {
  for (int size = 1; size <= 1000; ++size) {
    Add();

    ASSERT_EQ(Found(std::to_string(size - 1)), std::to_string(size - 1));
    ASSERT_EQ(Found(std::to_string(size)), "none");
    ASSERT_EQ(Found("0"), "0");
  }
  for (int key = 0; key < 1000; ++key) EXPECT_EQ(Found(std::to_string(key)), std::to_string(key));
}

TEST_F(RowIndexTest, TellsKeysOfOneHashApart) {
  const std::size_t hash = RowIndex::HashOf("all");
  for (int key = 0; key < 100; ++key) Add(hash);

  for (int key = 0; key < 100; ++key) EXPECT_EQ(Found(std::to_string(key), hash), std::to_string(key));
  EXPECT_EQ(Found("100", hash), "none");
}

TEST_F(RowIndexTest, ComparesNoKeyWithRowsOfAnotherHash) {
  Add(RowIndex::HashOf("another"));

  EXPECT_EQ(Found("0"), "none");
}

TEST_F(RowIndexTest, GivesNoKeyTheHashOfAnEmptySlot) {
  for (int key = 0; key < 1000; ++key) EXPECT_NE(RowIndex::HashOf(std::to_string(key)), 0U);
}

TEST_F(RowIndexTest, AllocatesOnlyWhenItMakesRoom) {
  for (int size = 0; size < 1000; ++size) {
    index_.MakeRoom();
    rows_.emplace_back(Varnix::Row(std::to_string(size), "v"));
    const std::string key = std::to_string(size);

    EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] {
      index_.Enter(std::prev(rows_.end()), RowIndex::HashOf(key));
      index_.Find(key, RowIndex::HashOf(key));
    }));
  }
}

TEST_F(RowIndexTest, IsAsItWasWhenThereIsNoMemoryForMoreRoom) {
  int failures = 0;
  for (int size = 0; size < 100; ++size) {
    if (RunsOutOfMemoryAt(1, [&] { index_.MakeRoom(); })) ++failures;
    for (int key = 0; key < size; ++key) ASSERT_EQ(Found(std::to_string(key)), std::to_string(key));
    Add();
  }

  EXPECT_EQ(failures, 5);  // For 8, 16, 32, 64 and 128 slots.
}

TEST_F(RowIndexTest, UsesFourFifthsOfItsSlotsBeforeItTakesMore) {
  std::vector<std::size_t> sizes;
  for (std::size_t size = 0; size < 100; ++size) {
    if (RunsOutOfMemoryAt(1, [&] { index_.MakeRoom(); })) sizes.push_back(size);
    Add();
  }

  EXPECT_EQ(sizes, (std::vector<std::size_t>{0, 6, 12, 25, 51}));
}
