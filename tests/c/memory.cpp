// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Without memory every function fails by its result, has changed no output, and works when there is memory again.
#include <cerrno>
#include <cstdio>
#include <functional>

#include "Check.h"
#include "support/FailingAllocations.h"

namespace {

// Fails each allocation of the call in turn, until one call has them all.
void FailEachAllocation(const char* name, const std::function<int()>& call) {
  std::printf("%s_says_that_there_is_no_memory\n", name);
  for (long n = 1;; ++n) {
    const FailingAllocation failing(n);
    const int result = call();
    if (!failing.HasFailed()) {
      CHECK(result == 0);
      CHECK(n > 1);
      return;
    }
    CHECK(result == -ENOMEM || result == 0);  // 0: what can do without.
    if (result == 0) return;
  }
}

const char kLong[] = "longer than the strings that need no allocation";
constexpr std::size_t kLength = sizeof kLong - 1;

// `make` stores a handle, `free_handle` takes it back.
template <typename Handle, typename Make>
void FailToMake(const char* name, Make make, void (*free_handle)(Handle*)) {
  FailEachAllocation(name, [&] {
    Handle* handle = nullptr;
    const int result = make(&handle);
    CHECK((result == 0) == (handle != nullptr));
    free_handle(handle);
    return result;
  });
}

}  // namespace

int main() {
  varnix_table* const table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_watcher_set* const set = set_of(watcher);
  varnix_change* const change = new_change();

  FailToMake<varnix_change>("change_new", varnix_change_new, varnix_change_free);
  FailToMake<varnix_table>(
      "table_new", [](auto made) { return varnix_table_new(kLong, kLength, made); }, varnix_table_free);
  FailToMake<varnix_table>(
      "shared_table", [](auto made) { return varnix_shared_table(kLong, kLength, kLong, kLength, made); },
      varnix_table_free);
  FailToMake<varnix_table>("database_table", varnix_database_table, varnix_table_free);
  FailToMake<varnix_table>(
      "table_table", [](auto made) { return varnix_table_table(kLong, kLength, made); }, varnix_table_free);
  FailToMake<varnix_table>(
      "peer_table", [](auto made) { return varnix_peer_table(kLong, kLength, made); }, varnix_table_free);
  FailToMake<varnix_table_list>("local_tables", varnix_local_tables, varnix_table_list_free);
  FailToMake<varnix_watcher>(
      "table_watch", [&](auto made) { return varnix_table_watch(table, kLong, kLength, made); }, varnix_watcher_free);
  FailToMake<varnix_watcher>(
      "table_watch_all", [&](auto made) { return varnix_table_watch_all(table, made); }, varnix_watcher_free);
  FailToMake<varnix_watcher_set>(
      "watcher_set_new", [&](auto made) { return varnix_watcher_set_new(&watcher, 1, made); }, varnix_watcher_set_free);
  FailToMake<varnix_log_buffer>(
      "log_buffer_new", [](auto made) { return varnix_log_buffer_new(1, made); }, varnix_log_buffer_free);
  FailEachAllocation("table_set", [&] { return varnix_table_set(table, kLong, kLength, kLong, kLength); });
  FailEachAllocation("watcher_set_wait", [&] { return varnix_watcher_set_wait(set, 0, change); });
  CHECK(is(change, kLong, kLong));
  CHECK(varnix_table_set(table, "k", 1, kLong, kLength) == 0);
  FailEachAllocation("watcher_take", [&] { return varnix_watcher_take(watcher, change); });
  CHECK(is(change, "k", kLong));
  FailEachAllocation("watcher_set_descriptor", [&] {
    const int result = varnix_watcher_set_descriptor(set);
    return result >= 0 ? 0 : result;
  });
  FailEachAllocation("get_sharing", [] {
    varnix_sharing* sharing = nullptr;
    const int result = varnix_get_sharing(kLong, kLength, &sharing);
    CHECK(sharing == nullptr);
    return result == -ENOENT ? 0 : result;
  });
  FailEachAllocation("stop_sharing", [] { return varnix_stop_sharing(kLong, kLength); });

  varnix_watcher_set_free(set);
  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}
