// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <vector>

#include "top/TopPage.h"

// The whole terminal, as long as this lives; then it is as it was.
class Screen {
 public:
  Screen();
  ~Screen() { Close(); }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  // Gives the terminal back early.
  void Close();

  std::size_t Width() const;
  std::size_t Height() const;

  void Show(const std::vector<TopPage::Line>& lines);

  // The next key that was pressed: a character, or a TopKey; 0 if there is none. -1 for another size of the terminal.
  int NextKey();

 private:
  bool closed_ = false;
};
