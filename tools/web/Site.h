// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "web/Feed.h"

// What is served under each path. Requests are answered as text: sockets, time and limits are not its business.
class Site {
 public:
  // What there is to tell.
  class Content {
   public:
    virtual ~Content() = default;
    virtual std::unique_ptr<Feed> Members() const = 0;
    virtual std::unique_ptr<Feed> Metrics() const = 0;
    virtual std::unique_ptr<Feed> Rows(const std::optional<std::string>& table) const = 0;
    // Null if there are too many readers.
    virtual std::unique_ptr<Feed> Events() = 0;
  };

  // Requests must name this device, or an address; see IsOurHost().
  Site(Content& content, std::string own_name);
  ~Site();
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  struct Answer {
    std::string text;            // The status line, the headers, and the body, if no feed follows.
    std::unique_ptr<Feed> feed;  // The rest of the body, up to the end of the connection; or null.
  };

  // The head of a request is all of it, up to the empty line: whoever asks for something has nothing to send.
  Answer To(std::string_view head);

  // To somebody whose request has no end.
  Answer ToTooLong();

 private:
  class Routes;  // Hides the library that it is made with.
  const std::unique_ptr<Routes> routes_;
  const std::string own_name_;
};
