// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Member.h"

#include "wire/CombinedKey.h"

void Name(Member& member, std::string_view database, std::string_view identity) {
  const NameAndKey names = SplitCombinedKey(identity);
  const bool malformed = names.name.empty() && names.key.empty();
  member.database = database;
  member.identity = identity;
  member.device = names.name;
  member.process = malformed ? identity : names.key;  // So that nothing of a broken one is hidden.
}
