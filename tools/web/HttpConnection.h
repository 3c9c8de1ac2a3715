// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "net/FileDescriptor.h"
#include "net/Loop.h"
#include "web/Feed.h"
#include "web/Site.h"

// One request and its answer. Whoever is slow to ask, or to read an answer that has an end, is given up; whoever is
// slow to read a living one gets what is newest by then, because a piece of it is made when the one before has gone.
class HttpConnection : public Waiter {
 public:
  static constexpr std::size_t kMostRequest = 8192;

  HttpConnection(Loop& loop, FileDescriptor socket, Site& site);

  // Whether it reads an answer that goes on as long as it wants.
  bool IsBrowser() const { return state_ == State::kAnswering && feed_ && feed_->IsLiving(); }
  bool IsAsking() const { return state_ == State::kAsking; }
  bool IsAnswered() const { return state_ == State::kLeaving || IsEnded(); }
  bool IsEnded() const { return state_ == State::kEnded; }

  pollfd Awaited() const override;
  void OnReady(short events) override;
  TimePoint Deadline() const override;
  void OnDeadline() override;

 private:
  enum class State {
    kAsking,
    kAnswering,
    kLeaving,  // Everything is sent. Closing before the other side does could take the answer away from it.
    kEnded,
  };

  bool HasUnsent() const { return sent_ < unsent_.size(); }
  bool WantsToWrite() const;
  void ReadRequest();
  void Begin(Site::Answer answer);
  void LookForEnd();
  void Write();
  bool GiveSignWhenDue(TimePoint now);
  void NoteProgress();
  bool SendUnsent();
  void ResetWhenClosed(bool is_reset);
  void EndAs(State state, TimePoint due);

  Site& site_;
  FileDescriptor socket_;
  State state_ = State::kAsking;
  TimePoint due_;                     // When it must ask, take something, or leave,
  TimePoint end_ = TimePoint::max();  // and when it must have taken everything.
  std::string request_;
  std::unique_ptr<Feed> feed_;
  std::string unsent_;
  std::size_t sent_ = 0;  // So much of unsent_.
  bool pausing_ = false;  // A piece has just gone; the next one waits until then:
  TimePoint not_before_{}, next_sign_ = TimePoint::max();
};
