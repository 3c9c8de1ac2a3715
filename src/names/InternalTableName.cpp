#include "names/InternalTableName.h"

std::string InternalTableName(const std::string& kind, const std::string& database) {
  return "_vrx_." + kind + "." + database;
}
