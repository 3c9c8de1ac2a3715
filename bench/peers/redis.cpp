// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Redis: a hash holds the table, and a channel of the same name tells of its changes. Pipelines of 10,000 commands,
// each read to its end before the next (Redis manual, "Redis pipelining"; hiredis README, "Pipelining"). A watcher
// subscribes first and then reads the hash in steps that do not hold up the others (Redis manual, SCAN), so it misses
// nothing.

#include <hiredis/hiredis.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <vector>

#include "Peer.h"

namespace {

constexpr int kPort = 6379;
constexpr int kPipelined = 10'000;

using Connection = std::unique_ptr<redisContext, decltype(&redisFree)>;
using Reply = std::unique_ptr<redisReply, decltype(&freeReplyObject)>;

[[noreturn]] void Fail(const char* why) {
  std::fprintf(stderr, "redis: %s\n", why);
  std::abort();
}

Connection Connect(const PeerSettings& settings) {
  Connection connection(redisConnect(settings.address.c_str(), kPort), redisFree);
  if (connection == nullptr || connection->err != 0) Fail("no connection");
  return connection;
}

void Append(const Connection& connection, std::initializer_list<std::string_view> words) {
  std::vector<const char*> data;
  std::vector<std::size_t> sizes;
  for (const std::string_view word : words) {
    data.push_back(word.data());
    sizes.push_back(word.size());
  }
  redisAppendCommandArgv(connection.get(), static_cast<int>(words.size()), data.data(), sizes.data());
}

Reply NextReply(const Connection& connection) {
  void* reply = nullptr;
  if (redisGetReply(connection.get(), &reply) != REDIS_OK) Fail(connection->errstr);
  Reply owned(static_cast<redisReply*>(reply), freeReplyObject);
  if (owned->type == REDIS_REPLY_ERROR) Fail(owned->str);
  return owned;
}

std::string_view View(const redisReply* text) { return {text->str, text->len}; }

class RedisPeer final : public Peer {
 public:
  explicit RedisPeer(const PeerSettings& settings) : settings_(settings), writing_(Connect(settings)) {}

  void Set(const std::string& key, const std::string& value) override {
    Append(writing_, {"HSET", settings_.written, key, value});
    Append(writing_, {"PUBLISH", settings_.written, key + '\0' + value});
    pending_ += 2;
    if (pending_ >= kPipelined) Flush();
  }

  void Flush() override {
    for (; pending_ > 0; --pending_) NextReply(writing_);  // The first one sends all commands.
  }

  [[noreturn]] void Watch(const Seen& seen) override {
    const Connection messages = Connect(settings_);
    Append(messages, {"SUBSCRIBE", settings_.watched});
    NextReply(messages);
    ReadAll(seen);
    for (;;) {
      const Reply message = NextReply(messages);
      const std::string_view row = View(message->element[2]);
      const std::size_t end_of_key = row.find('\0');
      seen(row.substr(0, end_of_key), row.substr(end_of_key + 1));
    }
  }

 private:
  void ReadAll(const Seen& seen) const {
    const Connection reading = Connect(settings_);
    std::string cursor = "0";
    do {
      Append(reading, {"HSCAN", settings_.watched, cursor, "COUNT", "1000"});
      const Reply reply = NextReply(reading);
      cursor = View(reply->element[0]);
      const redisReply& rows = *reply->element[1];
      for (std::size_t i = 0; i < rows.elements; i += 2) seen(View(rows.element[i]), View(rows.element[i + 1]));
    } while (cursor != "0");
  }

  const PeerSettings settings_;
  const Connection writing_;
  int pending_ = 0;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<RedisPeer>(settings); }
