// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <cstddef>

#include "network/SocketStream.h"

// The only unit of a stream, in both directions: a header of 4 bytes, big-endian, with the length of field A in its
// upper 12 bits and that of field B in its lower 20, then field A, then field B. A record is a row: A its key, B its
// value.
constexpr std::size_t kRecordHeaderSize = 4;

// Writes one record into the stream's buffer; longer fields are cut to their length modulo 4,096 and 1,048,576.
// False when the stream has failed, and when a field has no bytes: stdio reports an item of 0 bytes as not written.
// What is in the buffer by then goes out with the next flush. Throws AbortRequested when the server stops.
bool BufferRecord(const Varnix::Row& record, SocketStream& stream);

// Whether a field is empty on the wire: then BufferRecord() writes only what stands before it, and WriteRecord() does
// not flush.
bool HasEmptyField(const Varnix::Row& record);

// Sends what is in the buffer, and what a flush by the program has taken from there and not sent. False when the stream
// has failed.
bool FlushRecords(SocketStream& stream);

// Writes and, if all of it was written, flushes.
bool WriteRecord(const Varnix::Row& record, SocketStream& stream);

// Reads the records of one stream.
class RecordReader {
 public:
  explicit RecordReader(SocketStream& stream) : stream_(stream) {}

  // False, with `record` unchanged, when the stream has ended or failed. Throws AbortRequested when the server stops.
  bool Read(Varnix::Row& record);

 private:
  bool ReadFields(Varnix::Row& record);

  SocketStream& stream_;
  Varnix::Row incoming_;  // The record that is being read, in memory that the next one will use.
};
