// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>

#include "commands/Session.h"
#include "net/Audience.h"
#include "net/Observer.h"
#include "top/Screen.h"
#include "top/TopModel.h"
#include "top/TopView.h"

// `varnix top`: a screen that lives.
class TopCommand : public Audience {
 public:
  explicit TopCommand(const Options& options);

  // The exit status.
  int Run();

 private:
  // Wakes the loop when a key was pressed, or the terminal has gone.
  class Keyboard : public Waiter {
   public:
    using Waiter::Waiter;
    bool IsGone() const { return gone_; }
    pollfd Awaited() const override;
    void OnReady(short events) override;

   private:
    bool gone_ = false;
  };

  void OnMet(const Member& member) override;
  std::size_t OnRow(const Member& member, const Row& row) override;
  void OnEnd(const Member& member, const End& end) override;

  bool HandleKeys();
  std::string Trouble() const;
  void Draw();
  TimePoint NextDrawing() const;

  Session session_;
  Screen screen_;  // Before the observer: where there is no terminal, nothing is announced.
  Observer observer_;
  Keyboard keyboard_;
  TopModel model_;
  std::optional<TopModel> stopped_model_;  // What is shown while the screen is stopped,
  TimePoint stopped_at_;                   // and since when.
  std::string notice_;                     // Shown until a key is pressed.
  TopView view_;
  std::size_t page_ = 1;  // How many lines the last part has.
  TimePoint drawn_{};
  bool changed_ = true;  // Since it was drawn.
};
