// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <Varnix.h>

#include <memory>
#include <string>

#include "Errors.h"
#include "varnix_c.h"

namespace {

// Settings, and the bytes to which they point.
struct Settings : varnix_sharing {
  std::string bytes[3];
};

}  // namespace

#define VARNIX_TEXT_OF(number) #number
#define VARNIX_TEXT(number) VARNIX_TEXT_OF(number)

const char* varnix_version(void) {
  return VARNIX_TEXT(VARNIX_VERSION_MAJOR) "." VARNIX_TEXT(VARNIX_VERSION_MINOR) "." VARNIX_TEXT(VARNIX_VERSION_PATCH);
}

int varnix_share(const char* database, size_t database_size, const varnix_sharing* sharing) {
  return ResultOf([&] {
    Varnix::SetSharingGroup(Bytes(database, database_size), Bytes(sharing->group, sharing->group_size),
                            Bytes(sharing->device, sharing->device_size),
                            Bytes(sharing->process, sharing->process_size), sharing->broadcast_address);
    return 0;
  });
}

int varnix_stop_sharing(const char* database, size_t database_size) {
  return ResultOf([&] {
    Varnix::StopSharing(Bytes(database, database_size));
    return 0;
  });
}

int varnix_get_sharing(const char* database, size_t database_size, varnix_sharing** sharing) {
  return ResultOf([&] {
    auto made = std::make_unique<Settings>();
    std::string& group = made->bytes[0];
    std::string& device = made->bytes[1];
    std::string& process = made->bytes[2];
    unsigned address = 0;
    if (!Varnix::GetSharingGroup(Bytes(database, database_size), group, device, process, &address)) return -ENOENT;
    static_cast<varnix_sharing&>(*made) = {group.data(),   group.size(),   device.data(), device.size(),
                                           process.data(), process.size(), address};
    *sharing = made.release();
    return 0;
  });
}

void varnix_sharing_free(varnix_sharing* sharing) { delete static_cast<Settings*>(sharing); }

int varnix_network_changed(void) {
  return ResultOf([] {
    Varnix::NetworkChanged();
    return 0;
  });
}
