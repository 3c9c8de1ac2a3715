// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/MembersFeed.h"

#include "commands/Description.h"
#include "text/JsonObject.h"

void MembersFeed::Fill(std::string& out) {
  const std::size_t enough = out.size() + kPiece;
  const auto& members = model_.Members();
  for (auto member = last_ ? members.upper_bound(*last_) : members.begin(); member != members.end(); ++member) {
    if (out.size() >= enough) return;
    JsonObject object(out);
    Describe(object, member->second.member);
    object.End();
    last_ = member->first;
  }
  done_ = true;
}
