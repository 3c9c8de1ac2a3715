// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <exception>
#include <string>

#include "network/StopExceptions.h"

TEST(StopExceptions, SelfConnectSaysWhyTheStreamEnds) {
  EXPECT_STREQ(SelfConnect().what(), "TableServer shutdown due to self-connect");
}

TEST(StopExceptions, WrongServerSaysWhyTheStreamEnds) {
  EXPECT_STREQ(WrongServer().what(), "TableServer shutdown because connected to unexpected table server");
}

TEST(StopExceptions, AbortRequestedSaysWhyTheStreamEnds) {
  EXPECT_STREQ(AbortRequested().what(), "TableServer shutdown because abort requested");
}

TEST(StopExceptions, AlreadyConnectedSaysWhyTheStreamEnds) {
  EXPECT_STREQ(AlreadyConnected().what(), "TableServer shutdown because existing connection detected");
}

template <class Exception>
class EachStopException : public testing::Test {};
using StopExceptionTypes = testing::Types<SelfConnect, WrongServer, AbortRequested, AlreadyConnected>;
TYPED_TEST_SUITE(EachStopException, StopExceptionTypes, );  // clang wants the last argument, if empty.

TYPED_TEST(EachStopException, IsCaughtAsAStandardException) {
  std::string text;

  try {
    throw TypeParam();
  } catch (const std::exception& exception) {
    text = exception.what();
  }

  EXPECT_EQ(text, TypeParam().what());
}

TYPED_TEST(EachStopException, HasNoDataOfItsOwn) { EXPECT_EQ(sizeof(TypeParam), sizeof(std::exception)); }
