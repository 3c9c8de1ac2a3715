// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Without memory every function fails by its result, has changed no output, and works when there is memory again. What
// each of its allocations does when it fails is seen, one after the other.
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

#include "Check.h"
#include "support/FailingAllocations.h"

namespace {

using Step = std::function<void()>;
using Call = std::function<int()>;

// Fails the n-th allocation of the call, for each n that it has. `prepare` comes before each call.
void FailEachAllocation(const char* name, const Step& prepare, const Call& call) {
  std::printf("%s_says_that_there_is_no_memory\n", name);
  for (long n = 1;; ++n) {
    prepare();
    bool failed = false;
    int result = 0;
    {
      const FailingAllocation failing(n);
      result = call();
      failed = failing.HasFailed();
    }
    CHECK(result == 0 || (failed && result == -ENOMEM));  // 0: what can do without.
    if (result != 0) CHECK(call() == 0);
    if (failed) continue;
    CHECK(n > 1);
    return;
  }
}

void NeedNoMemory(const char* name, const Call& call) {
  std::printf("%s_needs_no_memory\n", name);
  const FailingAllocation failing(1);
  CHECK(call() == 0);
  CHECK(!failing.HasFailed());
}

void Nothing() {}

const char kLong[] = "longer than the strings that need no allocation";
constexpr std::size_t kLength = sizeof kLong - 1;

// One that no call has been given before: so each makes what it names.
const std::string& NewName() {
  static int count = 0;
  static std::string name;
  name = kLong + std::to_string(++count);
  return name;
}

// `make` stores a handle, which is freed.
template <typename Handle, typename Make>
void FailToMake(const char* name, void (*free_handle)(Handle*), Make make) {
  std::string fresh;
  FailEachAllocation(
      name, [&] { fresh = NewName(); },
      [&] {
        Handle* handle = nullptr;
        const int result = make(fresh, &handle);
        CHECK((result == 0) == (handle != nullptr));
        free_handle(handle);
        return result;
      });
}

void TablesAndWatchers() {
  varnix_table* const table = new_table();
  varnix_watcher* watcher = watch_all(table);
  FailToMake<varnix_change>("change_new", varnix_change_free,
                            [](const std::string&, auto made) { return varnix_change_new(made); });
  FailToMake<varnix_table>("table_new", varnix_table_free, [](const std::string& name, auto made) {
    return varnix_table_new(name.data(), name.size(), made);
  });
  FailToMake<varnix_watcher>("table_watch", varnix_watcher_free, [&](const std::string& name, auto made) {
    return varnix_table_watch(table, name.data(), name.size(), made);
  });
  FailToMake<varnix_watcher>("table_watch_all", varnix_watcher_free,
                             [&](const std::string&, auto made) { return varnix_table_watch_all(table, made); });
  FailToMake<varnix_watcher_set>("watcher_set_new", varnix_watcher_set_free, [&](const std::string&, auto made) {
    return varnix_watcher_set_new(&watcher, 1, made);
  });
  FailToMake<varnix_table_list>("local_tables", varnix_table_list_free,
                                [](const std::string&, auto made) { return varnix_local_tables(made); });
  varnix_table_list* list;
  CHECK(varnix_local_tables(&list) == 0);
  FailToMake<varnix_table>("table_list_get", varnix_table_free, [&](const std::string&, auto made) {
    const char* name = nullptr;
    std::size_t size = 0;
    const int result = varnix_table_list_get(list, 0, &name, &size, made);
    CHECK((result == 0) == (name != nullptr));
    return result;
  });
  varnix_table_list_free(list);
  varnix_watcher_free(watcher);
  varnix_table_free(table);
}

void Changes() {
  varnix_table* const table = new_table();
  varnix_watcher* const watcher = watch_all(table);
  varnix_watcher_set* const set = set_of(watcher);
  varnix_change* const change = new_change();
  std::string row;
  FailEachAllocation(
      "table_set_of_a_new_row", [&] { row = NewName(); },
      [&] { return varnix_table_set(table, row.data(), row.size(), row.data(), row.size()); });
  FailEachAllocation(
      "table_set_of_a_known_row", [&] { set_row(table, "known", ""); },
      [&] { return varnix_table_set(table, "known", 5, kLong, kLength); });
  const auto set_long_row = [&] {
    while (varnix_watcher_take(watcher, change) == 0) continue;
    row = NewName();
    set_row(table, row.c_str(), kLong);
  };
  FailEachAllocation("watcher_take", set_long_row, [&] {
    const int result = varnix_watcher_take(watcher, change);
    CHECK(is(change, row.c_str(), kLong) == (result == 0));
    return result;
  });
  FailEachAllocation("watcher_set_wait", set_long_row, [&] {
    const int result = varnix_watcher_set_wait(set, -1, change);
    CHECK(is(change, row.c_str(), kLong) == (result == 0));
    return result;
  });
  varnix_watcher_set* other = nullptr;
  FailEachAllocation(
      "watcher_set_descriptor",
      [&] {
        varnix_watcher_set_free(other);
        other = set_of(watcher);
      },
      [&] {
        const int result = varnix_watcher_set_descriptor(other);
        return result >= 0 ? 0 : result;
      });
  varnix_watcher_set_free(other);
  varnix_watcher_set_free(set);
  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}

// The process makes it once: after the first call that succeeds there is nothing more to fail.
void TheDatabaseTable() {
  std::printf("database_table_says_that_there_is_no_memory\n");
  varnix_table* table = nullptr;
  for (long n = 1; table == nullptr; ++n) {
    const FailingAllocation failing(n);
    const int result = varnix_database_table(&table);
    CHECK((result == 0) == (table != nullptr));
    CHECK(result == 0 || (failing.HasFailed() && result == -ENOMEM));
    CHECK(result != 0 || n > 5);  // It has many.
  }
  varnix_table_free(table);
}

void Databases() {
  FailToMake<varnix_table>("shared_table", varnix_table_free, [](const std::string& name, auto made) {
    return varnix_shared_table(name.data(), name.size(), name.data(), name.size(), made);
  });
  FailToMake<varnix_table>("table_table", varnix_table_free, [](const std::string& name, auto made) {
    return varnix_table_table(name.data(), name.size(), made);
  });
  FailToMake<varnix_table>("peer_table", varnix_table_free, [](const std::string& name, auto made) {
    return varnix_peer_table(name.data(), name.size(), made);
  });
}

void Sharing() {
  const varnix_sharing settings = {kLong, kLength, kLong, kLength, kLong, kLength, inet_addr("127.255.255.255")};
  std::string name;
  const auto share = [&] { return varnix_share(name.data(), name.size(), &settings); };
  const auto stop = [&] { return varnix_stop_sharing(name.data(), name.size()); };
  const auto stop_and_rename = [&] {
    CHECK(stop() == 0);
    name = NewName();
  };
  FailEachAllocation("share", stop_and_rename, share);
  FailToMake<varnix_sharing>("get_sharing", varnix_sharing_free, [&](const std::string&, auto made) {
    return varnix_get_sharing(name.data(), name.size(), made);
  });
  NeedNoMemory("network_changed", varnix_network_changed);
  FailEachAllocation(
      "stop_sharing", [&] { CHECK(share() == 0); }, stop);
}

void Logging() {
  FailToMake<varnix_log_buffer>("log_buffer_new", varnix_log_buffer_free,
                                [](const std::string&, auto made) { return varnix_log_buffer_new(1, made); });
  varnix_log_buffer* buffer;
  varnix_log_message message;
  CHECK(varnix_log_buffer_new(1, &buffer) == 0);
  FailEachAllocation("log_buffer_install", Nothing, [&] { return varnix_log_buffer_install(buffer, 7); });
  varnix_table* const table = new_table();
  set_row(table, "the row", "is logged");
  NeedNoMemory("log_buffer_wait_and_take", [&] {
    varnix_log_buffer_wake(buffer);
    varnix_log_buffer_wait(buffer);
    return varnix_log_buffer_take(buffer, &message);
  });
  const auto ignore = [](int, const char*, const char*, void*) {};
  FailEachAllocation("set_log_function", Nothing, [&] { return varnix_set_log_function(ignore, 7, nullptr); });
  varnix_log_buffer_free(buffer);
  varnix_table_free(table);
}

}  // namespace

int main() {
  TheDatabaseTable();
  TablesAndWatchers();
  Changes();
  Databases();
  Sharing();
  Logging();
}
