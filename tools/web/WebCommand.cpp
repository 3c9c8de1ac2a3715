// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/WebCommand.h"

#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include "text/JsonObject.h"
#include "text/Time.h"

namespace {

ObserverCommand::Kind Living() {
  ObserverCommand::Kind kind;
  kind.living = true;
  return kind;
}

std::string HostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

std::string Hello(const Options& options) {
  std::string hello;
  JsonObject(hello).Text("group", *options.group).Text("database", *options.database).Text("host", HostName()).End();
  return hello;
}

bool IsLoopback(std::uint32_t address) { return address >> 24 == 127; }

}  // namespace

WebCommand::WebCommand(const Options& options)
    : ObserverCommand(options, Living(), STDOUT_FILENO),
      server_(session_.loop, options.listen, model_, Hello(options), HostName()) {
  Place place{options.listen.address, server_.Port()};
  if (!IsLoopback(place.address)) {
    session_.progress.Note("whoever reaches " + PlaceText(place) + " sees every row: no password, no encryption");
  }
  if (place.address == 0) place.address = 0x7F000001;  // One that a browser of this device reaches.
  session_.output.Text() += "http://" + PlaceText(place) + "/\n";
  session_.output.Flush();  // Before anything is waited for.
}

void WebCommand::OnMet(const Member& member) { model_.AddMember(member, TimeNow()); }

std::size_t WebCommand::OnRow(const Member& member, const Row& row) { return model_.SetRow(member, row); }

void WebCommand::OnEnd(const Member& member, const End& end) {
  model_.RemoveMember(member.place, end, TimeNow());
  ObserverCommand::OnEnd(member, end);
}
