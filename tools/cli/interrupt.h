// Ctrl-C and its relatives: work stops at the next frame, half-written output is removed.
#pragma once

namespace zorv::tools {

/// Starts handling SIGINT, SIGTERM and SIGHUP (those that were not ignored at the start) and
/// ignores SIGPIPE and SIGXFSZ, so that writes report errors instead. Call it before any other
/// thread exists. The first signal makes throwIfInterrupted() throw; a second one, or the first
/// when no one has looked for two seconds, removes unfinished output and ends the program at once.
void startInterruptHandling();

/// Throws Interrupted once a signal has come. Any thread.
void throwIfInterrupted();

/// Prints the one line about the interruption, once, whoever comes first.
void reportInterruption();

constexpr int kInterruptedExitCode = 130;

}  // namespace zorv::tools
