#pragma once

#include <memory>
#include <vector>

class LocalTable;

// The process-wide list of live local tables. It holds weak references only, so it keeps none alive. It is made on
// first use and freed at process exit; from then on it stays empty, because tables in the host's static objects live
// on.
//
// Threads: any, with or without the table lock. The registry lock comes after the table lock and nothing is called out
// while it is held.
class LocalTableRegistry {
 public:
  static void Enter(const std::shared_ptr<LocalTable>& table);
  static void Leave(LocalTable* table);
  // Strong references to all tables but those that are being destroyed, in no defined order.
  static std::vector<std::shared_ptr<LocalTable>> Alive();

  // For fork(), which must not copy a registry lock that another thread holds.
  static void Lock();
  static void Unlock();
};
