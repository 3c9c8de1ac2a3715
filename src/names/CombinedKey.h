// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>
#include <string_view>

// One length byte, that many bytes of `name` (cut to 255), then `key`. Rows of a combined table have such keys. The
// identity of a member, its uid, is the combined key of its device and its process.
std::string CombinedKey(const std::string& name, const std::string& key);
// The same, in the memory that `combined` has, if it is enough.
void AssignCombinedKey(std::string& combined, const std::string& name, const std::string& key);

// The two halves of a combined key, which may come from anywhere. Both are empty if the key is empty or claims a longer
// name than it holds. Points into `combined`.
struct SplitKey {
  explicit SplitKey(std::string_view combined);

  std::string_view name;
  std::string_view key;
};

// The three arguments of "%.*s::%s" for a combined key, which may come from anywhere: a length that claims too much is
// cut to what is there. Points into `combined`.
struct PrintableKey {
  explicit PrintableKey(const std::string& combined);

  int name_length;
  const char* name;
  const char* key;
};
