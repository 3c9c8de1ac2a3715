// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The only unit on a connection: a header of 4 bytes, big-endian, with the length of field A in its upper 12 bits and
// that of field B in its lower 20, then A, then B.
struct Record {
  std::string_view a, b;
};

constexpr std::size_t kMostBytesOfA = 4095, kMostBytesOfB = 1'048'575;

// Both fields must be within their limits. Field B, which may be large, can follow in another way.
void AppendRecordUpToB(std::string& stream, const Record& record);
void AppendRecord(std::string& stream, const Record& record);

// Takes the records out of a stream that comes in pieces of any size.
class RecordReader {
 public:
  void Append(std::string_view piece);

  // The next record, if all of it has come. It refers to memory of this reader: valid until the next call of any
  // method.
  bool Next(Record& record);

  // The length of the record that comes next, header included; 0 as long as its header has not come.
  std::size_t NextSize() const;

  // How many bytes have come and are in no record that was taken.
  std::size_t Waiting() const { return bytes_.size() - taken_; }

  // How much memory this needs: never more than twice a record and a piece.
  std::size_t Held() const { return bytes_.capacity(); }

  // Gives back memory, because nothing comes for now.
  void GiveBackMemory();

  // Gives back all of it, and forgets what has come.
  void Drop();

 private:
  std::string_view Untaken() const { return std::string_view(bytes_).substr(taken_); }

  std::string bytes_;
  std::size_t taken_ = 0;  // So many bytes of bytes_ were in records that were taken.
};
