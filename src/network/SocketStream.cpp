// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/SocketStream.h"

#include <utility>

SocketStream::SocketStream(FileDescriptor socket, int done_descriptor)
    : socket_(std::move(socket)), cookie_(socket_, done_descriptor) {}

SocketStream::~SocketStream() {
  if (file_ != nullptr) fclose(file_);
}

bool SocketStream::Open() {
  constexpr cookie_io_functions_t kFunctions = {&Cookie::Read, &Cookie::Write, nullptr, nullptr};
  file_ = fopencookie(&cookie_, "r+", kFunctions);
  return file_ != nullptr;
}

StreamLock::StreamLock(SocketStream& stream) : stream_(stream) {
  flockfile(stream_.File());
  stream_.GetCookie().locked_stream_ = stream_.File();
}

StreamLock::~StreamLock() {
  stream_.GetCookie().locked_stream_ = nullptr;
  funlockfile(stream_.File());
}
