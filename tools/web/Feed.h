// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// The body of an answer that is written while it is read, because it is large, or never ends.
class Feed {
 public:
  // About so much is written at a time.
  static constexpr std::size_t kPiece = 1 << 16;

  virtual ~Feed() = default;

  // Whether there is something to write now.
  virtual bool HasMore() const = 0;

  // Adds a piece to the text, or all that there is.
  virtual void Fill(std::string& out) = 0;

  // Whether more may come when there is nothing to write now.
  virtual bool IsLiving() const { return false; }

  // Something that changes nothing, and shows that the server is there; of one that lives. It may stand before a piece.
  virtual std::string SignOfLife() const { return ""; }
};
