#include "tests/tools/ToolRunner.h"

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kavotest {

namespace {

// One shell word holding the text exactly.
std::string ShellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

std::string MakeScratchDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kavo-tools-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory could be made");
    return pattern;
}

TRunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& directory, const std::string& input) {
    WriteFileBytes(directory + "/.stdin", input);
    // exec: a crash of the program is the shell's end too, not an exit code.
    std::string command = "cd " + ShellQuote(directory) + " && exec " + ShellQuote(program);
    for (const std::string& argument : arguments) command += " " + ShellQuote(argument);
    const int status = std::system((command + " <.stdin >.stdout 2>.stderr").c_str());
    TRunResult result;
    result.fExited = status != -1 && WIFEXITED(status);
    result.fExitCode = result.fExited ? WEXITSTATUS(status) : -1;
    result.fOut = ReadFileBytes(directory + "/.stdout");
    result.fErr = ReadFileBytes(directory + "/.stderr");
    for (const char* file : {"/.stdin", "/.stdout", "/.stderr"}) std::filesystem::remove(directory + file);
    return result;
}

std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace kavotest
