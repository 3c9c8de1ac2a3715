// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// What of the model is shown, and how; the keys change it.
struct TopView {
  enum class Part { kAll, kMembers, kTables, kRows };
  enum class Order { kLastChange, kRate, kName };

  Part part = Part::kAll;
  Order order = Order::kLastChange;
  std::string filter;        // What a row's member, table or key has in it.
  bool typing = false;       // The filter.
  bool stopped = false;      // Nothing changes on the screen.
  std::size_t scrolled = 0;  // So many lines of the last part are above the screen.
  std::string trouble;       // What the user should know.
};

// What a key does to the view. Keys that are not characters have the numbers of TopKey.
enum TopKey : int { kUp = 0x110000, kDown, kPageUp, kPageDown, kHome, kEnter, kEscape, kBackspace };

enum class TopAction { kNone, kRedraw, kQuit };

TopAction PressKey(TopView& view, int key, std::size_t page);
