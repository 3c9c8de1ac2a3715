// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the library throws becomes a result: no exception leaves a function.
#include <arpa/inet.h>
#include <pthread.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Check.h"

// In place of the C library's: this program can start no thread.
extern "C" int pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) noexcept { return EAGAIN; }

namespace {

int to_throw;

// As a function of C cannot, and one of C++ must not.
void Throw(int, const char*, const char*, void*) {
  if (to_throw == 1) throw std::system_error(EDEADLK, std::generic_category());
  if (to_throw == 2) throw std::runtime_error("anything else");
  if (to_throw == 3) throw 3;
  if (to_throw == 4) throw std::system_error(0, std::generic_category());
}

int ResultOfThrowing(int what) {
  varnix_table* table = nullptr;
  to_throw = what;
  const int result = varnix_shared_table(VARNIX_LITERAL("d"), VARNIX_LITERAL("t"), &table);
  to_throw = 0;
  CHECK((result == 0) == (table != nullptr));
  varnix_table_free(table);
  return result;
}

void an_error_of_the_system_is_its_errno() { CHECK(ResultOfThrowing(1) == -EDEADLK); }

void any_other_exception_is_an_input_output_error() {
  CHECK(ResultOfThrowing(2) == -EIO);
  CHECK(ResultOfThrowing(3) == -EIO);
  CHECK(ResultOfThrowing(4) == -EIO);
}

void sharing_without_a_thread_is_to_be_tried_again() {
  const varnix_sharing settings = {
      VARNIX_LITERAL("group"),
      VARNIX_LITERAL("device"),
      VARNIX_LITERAL("process"),
      inet_addr("127.255.255.255"),
  };
  varnix_sharing* found = nullptr;
  CHECK(varnix_share(VARNIX_LITERAL("d"), &settings) == -EAGAIN);
  CHECK(varnix_get_sharing(VARNIX_LITERAL("d"), &found) == -ENOENT && found == nullptr);
}

void the_library_works_after_it() { CHECK(ResultOfThrowing(0) == 0); }

}  // namespace

int main() {
  CHECK(varnix_set_log_function(Throw, 7, nullptr) == 0);
  RUN(an_error_of_the_system_is_its_errno);
  RUN(any_other_exception_is_an_input_output_error);
  RUN(sharing_without_a_thread_is_to_be_tried_again);
  RUN(the_library_works_after_it);
}
