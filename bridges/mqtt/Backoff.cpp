#include "Backoff.h"

#include <algorithm>

std::chrono::milliseconds Backoff::Next() {
  const auto wait = std::uniform_int_distribution<long>(longest_.count() / 2, longest_.count())(chance_);
  longest_ = std::min(2 * longest_, kLast);
  return std::chrono::milliseconds(wait);
}
