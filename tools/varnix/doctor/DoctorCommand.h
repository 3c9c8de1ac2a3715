// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <vector>

#include "commands/Session.h"
#include "doctor/Evidence.h"
#include "doctor/Finding.h"
#include "net/Audience.h"
#include "net/Observer.h"

// `varnix doctor`: why do they not meet? Looks for as long as it may, and then checks what it has seen.
class DoctorCommand : public Audience {
 public:
  explicit DoctorCommand(const Options& options);

  // The exit status.
  int Run();

 private:
  void OnHeard(const Place& place, const std::string& group) override;
  void OnOwnAnnouncement() override { evidence_.own_announcement = true; }
  void OnCame(const Place& place) override;
  void OnMet(const Member& member) override { Seen(member.place).OnNamed(member); }
  void OnOther(const Member& member) override { Seen(member.place).OnNamed(member); }
  void OnDuplicate(const Member& member) override;
  std::size_t OnRow(const Member& member, const Row& row) override;
  void OnEnd(const Member& member, const End& end) override;

  SeenPlace& Seen(const Place& place);
  void Turn();
  void AskToConnectBack();
  void AskToConnectBack(SeenPlace& seen);
  void Print(const std::vector<Finding>& findings);
  void Print(const Finding& finding);

  Session session_;
  Evidence evidence_;
  Observer observer_;
  const std::size_t most_places_;
  const Clock::duration patience_;  // For each step that others have to do.
  TimePoint next_asking_ = TimePoint::max();
  bool failed_ = false;
};
