#include "tests/tools/ToolRunner.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace kavotest {

namespace {

// One shell word holding the text exactly.
std::string ShellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

}  // namespace

TScratchDirectory::TScratchDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kavo-tools-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory could be made");
    fPath = pattern;
}

TScratchDirectory::~TScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(fPath, ignored);
}

TRunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& directory, const std::string& input) {
    const std::string inputFile = directory + "/.stdin";
    const std::string errorFile = directory + "/.stderr";
    WriteFileBytes(inputFile, input);
    // exec: a crash of the program is the shell's end too, not an exit code.
    std::string command = "cd " + ShellQuote(directory) + " && exec " + ShellQuote(program);
    for (const std::string& argument : arguments) command += " " + ShellQuote(argument);
    command += " <" + ShellQuote(inputFile) + " 2>" + ShellQuote(errorFile);

    TRunResult result;
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot start " + program);
    char block[4096];
    std::size_t got;
    while ((got = std::fread(block, 1, sizeof block, pipe)) > 0) result.fOut.append(block, got);
    const int status = pclose(pipe);
    result.fExited = status != -1 && WIFEXITED(status);
    result.fExitCode = result.fExited ? WEXITSTATUS(status) : -1;
    result.fErr = ReadFileBytes(errorFile);
    std::filesystem::remove(inputFile);
    std::filesystem::remove(errorFile);
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
