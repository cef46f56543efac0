// The commands of kavodvdb. Each takes its parsed command line, does its work,
// and returns an exit code of tools/ToolExit.h after complaining on failure.
#ifndef KAVO_TOOLS_COMMANDS_H
#define KAVO_TOOLS_COMMANDS_H

#include <set>
#include <string>
#include <vector>

struct TArguments {
    std::vector<std::string> fPositional;
    std::set<std::string> fOptions;

    bool Has(const std::string& option) const { return fOptions.count(option) != 0; }
};

int RunInfo(const TArguments& arguments);
int RunList(const TArguments& arguments);
int RunCat(const TArguments& arguments);
int RunAbout(const TArguments& arguments);
int RunVerify(const TArguments& arguments);
int RunPut(const TArguments& arguments);
int RunRemove(const TArguments& arguments);
int RunCompact(const TArguments& arguments);

#endif  // KAVO_TOOLS_COMMANDS_H
