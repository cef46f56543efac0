// The engine's status log, "DBSTATUS.LOG" in the current directory, and its
// fatal-error routines.
//
// The log holds events that no caller can act on: index damage, internal
// inconsistencies, fatal errors. Each entry spans two lines: the local date
// and time, then " - User# 01", a tab and the message, followed by ": <code>"
// when the code is not 0.
#ifndef KAVO_ENGINE_STATUSLOG_H
#define KAVO_ENGINE_STATUSLOG_H

#include <cstdint>

// Messages of the engine that reach the log or the console. The hexadecimal
// formats print a literal "x" after the number; the quirk is kept.
constexpr const char* kMsgNodeBeyondEnd = "node exceeds logical index EOF";
constexpr const char* kMsgNoMirror = "Following file is opened without mirror ...";
constexpr const char* kMsgNodeDiagnostic = "f#=%d km=%d bm=%d node=%lxx numrec=%lxx";
constexpr const char* kMsgLinkError = "KLNK_ERR: pos=%lxx predsr=%lxx";
constexpr const char* kMsgLargeWrite = "Warning: write size request > 2GB";
constexpr const char* kMsgSeekError = "SEEK_ERR...";
constexpr const char* kMsgMarkDiagnostic = "mark=%xx pos=%lxx";
constexpr const char* kMsgMemoryTrackOff = "Memory Track: net  off at %5ld                    %s";
constexpr const char* kMsgMemoryTrackOn = "Memory Track: net   on at %5ld                    %s";

// Appends one entry and returns the code (0 for a fatal entry, code
// kFatalStatusCode). When the log cannot be opened, prints a notice with the
// message and the code on the console and ends the process with exit code 10.
std::int16_t LogStatus(const char* message, std::int16_t code);

// Prints "error #<n> low_err=<low-level error>" framed by newlines on the
// console, logs it as a fatal entry and ends the process with exit code n.
[[noreturn]] void FatalError(int internalError);

// The second fatal path: prints the routine's name and, after a newline,
// "M%d L%d F%d P%lxx  ErrorCode=%d", and ends the process with exit code 100.
[[noreturn]] void FatalErrorAt(const char* routine, int module, int line, int fileNumber,
                               std::uint64_t position, int errorCode);

#endif  // KAVO_ENGINE_STATUSLOG_H
