#pragma once

// Logs a message of level 3 whose only argument, if it has one, is errno as "%d", and ends the process with abort(),
// also when the log hook throws: for the failures that cannot happen on a healthy system and leave nothing to go on
// with.
[[noreturn]] void LogErrnoAndAbort(const char* tag, const char* format);

// Keeps a descriptor out of the programs that the host starts: there it would hold a connection open whose owner is
// gone.
void CloseOnExec(int descriptor);
