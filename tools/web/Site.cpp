// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The only source that sees the library cpp-httplib. It takes requests apart, finds who answers, and puts answers
// together. Its own sockets are not used: they take a thread for each connection, and requests of any length.
#include "web/Site.h"

#include <httplib.h>

#include <algorithm>
#include <utility>

#include "web/Host.h"
#include "web/Page.h"

namespace {

constexpr char kNoSniffing[] = "nosniff";
// Everything that the page needs comes from here, in files of their own: what members send can never be a script.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'";

// A request that is read from memory, and the answer that is written there.
class Exchange : public httplib::Stream {
 public:
  explicit Exchange(std::string request) : request_(std::move(request)) {}

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* to, std::size_t size) override {
    const std::size_t taken = request_.copy(to, size, taken_);
    taken_ += taken;
    return static_cast<ssize_t>(taken);
  }
  ssize_t write(const char* from, std::size_t size) override {
    answer_.append(from, size);
    return static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return 0; }

  std::string TakeAnswer() { return std::move(answer_); }

 private:
  const std::string request_;
  std::size_t taken_ = 0;
  std::string answer_;
};

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

bool IsHostHeader(std::string_view line) {
  constexpr std::string_view kName = "host:";
  return line.size() >= kName.size() && std::equal(kName.begin(), kName.end(), line.begin(), [](char left, char right) {
           return left == (right >= 'A' && right <= 'Z' ? right - 'A' + 'a' : right);
         });
}

struct Head {
  std::string_view request;  // The first line.
  std::string_view host;
  int hosts = 0;
};

Head Read(std::string_view text) {
  Head head;
  for (std::size_t number = 0; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1);
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (number == 0) head.request = Trimmed(line);
    if (number > 0 && Trimmed(line).empty()) break;
    if (number == 0 || !IsHostHeader(line)) continue;
    head.host = Trimmed(line.substr(line.find(':') + 1));
    ++head.hosts;
  }
  return head;
}

const char* Explanation(int status) {
  switch (status) {
    case 400:
      return "This is no request that can be understood.\n";
    case 403:
      return "This page is known under another name: that of this device, localhost, or an address.\n";
    case 404:
      return "There is nothing here. There is: / /members /rows?table= /events /metrics\n";
    case 405:
      return "Nothing can be changed here: GET and HEAD alone are answered.\n";
    case 431:
      return "A request may have 8192 bytes.\n";
    case 503:
      return "As many browsers as there may be are looking already.\n";
    default:
      return "This went wrong.\n";
  }
}

}  // namespace

class Site::Routes : private httplib::Server {
 public:
  explicit Routes(Content& content) : content_(content) {
    set_default_headers({{"Content-Security-Policy", kPolicy},
                         {"Cross-Origin-Resource-Policy", "same-origin"},
                         {"X-Content-Type-Options", kNoSniffing},
                         {"Referrer-Policy", "no-referrer"},
                         {"Cache-Control", "no-store"}});
    set_pre_routing_handler([this](const auto& request, auto& response) { return Refuse(request, response); });
    set_error_handler(httplib::Server::Handler([](const auto&, auto& response) {
      if (response.body.empty()) response.set_content(Explanation(response.status), "text/plain; charset=utf-8");
    }));
    for (const PageFile& file : kPageFiles) {
      Get(file.path, [&file](const auto&, auto& response) {
        response.set_content(file.text.data(), file.text.size(), file.type);
      });
    }
    Get("/members",
        [this](const auto& request, auto& response) { Send(request, response, kJsonLines, content_.Members()); });
    Get("/metrics",
        [this](const auto& request, auto& response) { Send(request, response, kMetrics, content_.Metrics()); });
    Get("/rows", [this](const auto& request, auto& response) { SendRows(request, response); });
    Get("/events", [this](const auto& request, auto& response) { SendEvents(request, response); });
  }

  // With a status other than 0 the request is not even looked at.
  Answer To(std::string request, int refusal) {
    refusal_ = refusal;
    Exchange exchange(std::move(request));
    bool closed = false;
    process_request(exchange, true, closed, nullptr);
    return {exchange.TakeAnswer(), std::move(feed_)};
  }

 private:
  static constexpr char kJsonLines[] = "application/x-ndjson";
  static constexpr char kMetrics[] = "text/plain; version=0.0.4; charset=utf-8";

  HandlerResponse Refuse(const httplib::Request& request, httplib::Response& response) const {
    int status = refusal_;
    if (status == 0 && request.method != "GET" && request.method != "HEAD") status = 405;
    if (status == 0) return HandlerResponse::Unhandled;
    if (status == 405) response.set_header("Allow", "GET, HEAD");
    response.status = status;
    return HandlerResponse::Handled;
  }

  void SendRows(const httplib::Request& request, httplib::Response& response) {
    std::optional<std::string> table;
    if (request.has_param("table")) table = request.get_param_value("table");
    Send(request, response, kJsonLines, content_.Rows(table));
  }

  void SendEvents(const httplib::Request& request, httplib::Response& response) {
    if (request.method == "HEAD") return Send(request, response, "text/event-stream", nullptr);
    std::unique_ptr<Feed> events = content_.Events();
    if (events) return Send(request, response, "text/event-stream", std::move(events));
    response.status = 503;
    response.set_header("Retry-After", "5");
  }

  // What provides the content here provides nothing: the headers must not give a length.
  void Send(const httplib::Request& request, httplib::Response& response, const char* type,
            std::unique_ptr<Feed> feed) {
    if (request.method != "HEAD") feed_ = std::move(feed);
    response.set_content_provider(type, [](std::size_t, httplib::DataSink& sink) {
      sink.done();
      return true;
    });
  }

  Content& content_;
  int refusal_ = 0;
  std::unique_ptr<Feed> feed_;
};

Site::Site(Content& content, std::string own_name)
    : routes_(std::make_unique<Routes>(content)), own_name_(std::move(own_name)) {}

Site::~Site() = default;

// Of the headers, only that which is looked at goes further.
Site::Answer Site::To(std::string_view text) {
  const Head head = Read(text);
  const int refusal = head.hosts != 1 ? 400 : IsOurHost(head.host, own_name_) ? 0 : 403;
  return routes_->To(std::string(head.request) + "\r\n\r\n", refusal);
}

Site::Answer Site::ToTooLong() { return routes_->To("GET / HTTP/1.1\r\n\r\n", 431); }
