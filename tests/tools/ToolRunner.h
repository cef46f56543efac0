// Runs a command-line program the way a shell user would, capturing what it
// writes and how it ends, in a directory of its own.
#ifndef KAVO_TESTS_TOOLS_TOOLRUNNER_H
#define KAVO_TESTS_TOOLS_TOOLRUNNER_H

#include <string>
#include <vector>

namespace kavotest {

struct TRunResult {
    bool fExited = false;  // false: it ended by a signal (a crash)
    int fExitCode = -1;
    std::string fOut;
    std::string fErr;
};

// A fresh directory under the system's temporary directory; whoever asked for
// it removes it.
std::string MakeScratchDirectory();

// Runs program with the arguments, each passed as it is, in directory, with
// input as its standard input.
TRunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& directory, const std::string& input = "");

std::string ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::string& bytes);

}  // namespace kavotest

#endif  // KAVO_TESTS_TOOLS_TOOLRUNNER_H
