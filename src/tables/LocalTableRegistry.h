// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <vector>

class LocalTable;

// The process-wide list of live local tables. It keeps none alive: its references are weak. It is made on first use and
// freed at process exit. From then on it is empty, though tables of the program's static objects may live on.
//
// Threads: any, with or without the table lock. The registry lock comes after the table lock. Nothing else is called
// while it is held.
class LocalTableRegistry {
 public:
  static void Enter(const std::shared_ptr<LocalTable>& table);
  static void Leave(LocalTable* table);
  // Strong references to all tables but those that are being destroyed, in no defined order.
  static std::vector<std::shared_ptr<LocalTable>> Alive();

  // For fork(): the child must not get a registry lock that another thread holds.
  static void Lock();
  static void Unlock();
  // Under that lock: the table is the parent's, and lives on only because its users are forgotten.
  static void LeaveInChild(LocalTable* table);
};
