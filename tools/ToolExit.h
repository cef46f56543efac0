// The exit codes of kavodvdb and how it complains.
#ifndef KAVO_TOOLS_TOOLEXIT_H
#define KAVO_TOOLS_TOOLEXIT_H

#include <string>

constexpr int kExitOK = 0;
// The file is not a sound database: verify found problems, or the file
// exists but cannot be read as a database (foreign, damaged, or held by
// another program).
constexpr int kExitDamaged = 1;
// The command line is wrong.
constexpr int kExitUsage = 2;
// The file is missing or the system refuses to open it.
constexpr int kExitCannotOpen = 3;
// No record of that type and ID or name, or no about text.
constexpr int kExitNotFound = 4;
// Anything else: a record of that type and ID or name exists already, the
// file cannot be written, the library failed.
constexpr int kExitFailed = 5;

// Writes "kavodvdb: <message>" and a newline to stderr.
void Complain(const std::string& message);

#endif  // KAVO_TOOLS_TOOLEXIT_H
