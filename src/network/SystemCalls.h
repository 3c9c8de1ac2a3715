// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <poll.h>

#include <chrono>

// Logs a message of level 3 whose only argument, if it has one, is errno as "%d", and ends the process with abort(),
// also when the log hook throws. It is for failures that a healthy system does not have, after which nothing can go on.
[[noreturn]] void LogErrnoAndAbort(const char* tag, const char* format);

// poll(), again with the same time-out when a signal interrupts it.
int PollAgainAfterSignals(pollfd* entries, nfds_t count, int time_out);

// poll() of one descriptor for something to be read. -1, with errno, also when a signal interrupts it.
int PollForInput(int descriptor, std::chrono::milliseconds time_out);

// Names the calling thread for those who list the threads of the process: `what`, then as much of the database's name
// as fits.
void NameThisThread(const char* what, const char* database);
