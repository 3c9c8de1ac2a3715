// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <Varnix.h>

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "Errors.h"
#include "Handles.h"

namespace {

// Moves the row into the change: no byte of a long one is copied.
void Fill(varnix_change* change, Varnix::Row&& row, varnix_watcher* watcher) {
  Change& filled = *static_cast<Change*>(change);
  filled.row = std::move(row);
  filled.key = filled.row.first.data();
  filled.key_size = filled.row.first.size();
  filled.value = filled.row.second.data();
  filled.value_size = filled.row.second.size();
  filled.watcher = watcher;
}

std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> WaitFor(Varnix::WatcherSet& set, int timeout_ms) {
  using Clock = std::chrono::steady_clock;
  if (timeout_ms < 0) return set.Wait();
  if (timeout_ms == 0) return set.WaitUntil(Clock::time_point::min());  // So nobody needs to ask for the time.
  return set.WaitUntil(Clock::now() + std::chrono::milliseconds(timeout_ms));
}

// Most sets have one member: those need no search.
varnix_watcher* HandleOf(const varnix_watcher_set& set, const Varnix::Watcher* watcher) {
  const auto found = set.handles.size() == 1 ? set.handles.begin() : set.handles.find(watcher);
  return found->second.get();
}

}  // namespace

int varnix_change_new(varnix_change** change) {
  return ResultOf([&] {
    *change = new Change();
    Fill(*change, {}, nullptr);
    return 0;
  });
}

void varnix_change_free(varnix_change* change) { delete static_cast<Change*>(change); }

int varnix_watcher_take(varnix_watcher* watcher, varnix_change* change) {
  return ResultOf([&] {
    std::vector<Varnix::Row> rows = watcher->watcher->GetChanges();
    if (rows.empty()) return -EAGAIN;
    Fill(change, std::move(rows.front()), watcher);
    return 0;
  });
}

void varnix_watcher_free(varnix_watcher* watcher) {
  if (watcher != nullptr) const std::shared_ptr<varnix_watcher> last = std::move(watcher->own);
}

int varnix_watcher_set_new(varnix_watcher* const* watchers, size_t count, varnix_watcher_set** set) {
  return ResultOf([&] {
    auto made = std::make_unique<varnix_watcher_set>();
    std::vector<std::shared_ptr<Varnix::Watcher>> members;
    for (size_t i = 0; i < count; ++i) {
      if (watchers[i] == nullptr) continue;
      members.push_back(watchers[i]->watcher);
      made->handles.emplace(members.back().get(), watchers[i]->own);
    }
    made->set = Varnix::MakeWatcherSet(std::move(members));
    *set = made.release();
    return 0;
  });
}

int varnix_watcher_set_wait(varnix_watcher_set* set, int timeout_ms, varnix_change* change) {
  return ResultOf([&] {
    std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> next = WaitFor(*set->set, timeout_ms);
    if (next.second == nullptr) return -EAGAIN;
    Fill(change, std::move(next.first), HandleOf(*set, next.second.get()));
    return 0;
  });
}

int varnix_watcher_set_descriptor(varnix_watcher_set* set) {
  return ResultOf([&] {
    const int descriptor = Varnix::GetDescriptor(set->set);
    return descriptor >= 0 ? descriptor : -errno;
  });
}

void varnix_watcher_set_free(varnix_watcher_set* set) { delete set; }
