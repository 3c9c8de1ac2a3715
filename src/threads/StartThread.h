// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

// Starts a thread with a stack of 256 KiB, or of 8 MiB where thread-local objects of the program do not fit into that.
// It has to be joined. Returns zero, or an error number.
int StartThread(void* (*body)(void*), void* argument);
