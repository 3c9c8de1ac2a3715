#pragma once

#include <string>
#include <string_view>

// One length byte, that many bytes of `name` (cut to 255), then `key`. Keys the rows of a combined table, and joins the
// device and the process of a participant to its identity, the uid.
std::string CombinedKey(const std::string& name, const std::string& key);
// The same, in the memory that `combined` has, if that is enough.
void AssignCombinedKey(std::string& combined, const std::string& name, const std::string& key);

// The two halves of a combined key of any origin. A key that is empty, or claims a longer name than it holds, has two
// empty halves. Points into `combined`.
struct SplitKey {
  explicit SplitKey(std::string_view combined);

  std::string_view name;
  std::string_view key;
};

// The three arguments of "%.*s::%s" for a combined key of any origin: a length that claims too much is cut to what is
// there. Points into `combined`.
struct PrintableKey {
  explicit PrintableKey(const std::string& combined);

  int name_length;
  const char* name;
  const char* key;
};
