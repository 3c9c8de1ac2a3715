// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/Description.h"

#include "text/Time.h"

void Describe(JsonObject& object, const Member& member, const Row& row) {
  object.Text("time", TimeText(row.time_us))
      .Text("device", member.device)
      .Text("process", member.process)
      .Text("address", AddressText(member.place.address))
      .Text("table", row.table)
      .Text("key", row.key)
      .Text("value", row.value);
}

void Describe(JsonObject& object, const Member& member) {
  object.Text("device", member.device)
      .Text("process", member.process)
      .Text("address", AddressText(member.place.address))
      .Number("port", member.place.port)
      .Text("group", member.group)
      .Text("database", member.database);
}
