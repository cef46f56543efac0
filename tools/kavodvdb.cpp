// kavodvdb: looks into a kavoDVDB database file, checks it, and for scripts
// adds and removes records. It works through the library's flat functions
// and its engine's integrity check, linked in, so it needs no shared library.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/Commands.h"
#include "tools/ToolExit.h"

#ifndef KAVO_TOOL_VERSION
#define KAVO_TOOL_VERSION "unknown"
#endif

namespace {

struct TCommand {
    const char* fName;
    int (*fRun)(const TArguments&);
    std::size_t fMinPositional;
    std::size_t fMaxPositional;
    std::vector<std::string> fOptions;
    const char* fUsage;
    const char* fHelp;
};

const char kGeneralHelp[] =
    "usage: kavodvdb COMMAND [OPTIONS] FILE [ARGUMENTS]\n"
    "       kavodvdb COMMAND --help\n"
    "\n"
    "Looks into a kavoDVDB database file, checks it, and for scripts adds and\n"
    "removes records.\n"
    "\n"
    "commands:\n"
    "  info FILE               creator, file type, platform, records per type, size\n"
    "  ls FILE [TYPE]          the records in the file's order: type, ID, size, name\n"
    "  cat FILE TYPE ID|NAME   one record's data as a hex dump, or --raw as it is\n"
    "  about FILE              the file's about text\n"
    "  verify FILE             checks the whole file; exit status 1 when damaged\n"
    "  put FILE TYPE ID NAME   adds a record, its data read from standard input\n"
    "  rm FILE TYPE ID|NAME    removes a record\n"
    "  compact FILE            gives back the file's free space\n"
    "Only put, rm and compact open the file for writing.\n"
    "\n"
    "types:\n"
    "  A type is four characters: MDUM, NFO!, .bmp. A shorter one is padded\n"
    "  with blanks, so DVC means 'DVC '. Any byte can be written as \\xHH (two\n"
    "  hexadecimal digits), a NUL as \\0 and a backslash as \\\\; quote these\n"
    "  from the shell: 'DVC\\x20'. info and ls print each type in single\n"
    "  quotes, ready to be pasted back.\n"
    "\n"
    "IDs and names:\n"
    "  An ID is a signed 32-bit decimal number. A name has at most 31\n"
    "  characters and is taken as it is. Where ID|NAME is asked for, a decimal\n"
    "  number is an ID and anything else a name (--name: always a name).\n"
    "  Options begin with --; an argument after -- is never one, and neither\n"
    "  is a negative number.\n"
    "\n"
    "exit status:\n"
    "  0  success\n"
    "  1  the file is not a sound database: verify found problems, or it cannot\n"
    "     be read as a database (a foreign file, one of another format version,\n"
    "     a damaged one, or one in use by another program)\n"
    "  2  the command line is wrong\n"
    "  3  the file is missing or cannot be opened\n"
    "  4  no such record, or no about text\n"
    "  5  any other failure: the record exists already, the file cannot be\n"
    "     written, the library failed\n";

const TCommand kCommands[] = {
    {"info",
     RunInfo,
     1,
     1,
     {"--json"},
     "kavodvdb info [--json] FILE",
     "Shows what the file says about itself: its creator and file type (from its\n"
     "file-info record, \"NFO!\" \"_File_Info_\"; '\?\?\?\?' and ?OS when it has none), the\n"
     "platform that wrote it, the number of records and of records of each type,\n"
     "whether it has an about text, and the size of the file.\n"
     "\n"
     "  --json   one JSON object instead of text\n"},
    {"ls",
     RunList,
     1,
     2,
     {"--json"},
     "kavodvdb ls [--json] FILE [TYPE]",
     "Lists every record, or only those of TYPE, in the file's order: type, ID,\n"
     "size of the data in bytes, and name.\n"
     "\n"
     "  --json   a JSON array of objects {\"type\", \"id\", \"name\", \"size\"}\n"},
    {"cat",
     RunCat,
     3,
     3,
     {"--raw", "--name"},
     "kavodvdb cat [--raw] [--name] FILE TYPE ID|NAME",
     "Shows the data of one record as a hex dump. The record is the one of TYPE\n"
     "with that ID when the last argument is a decimal number, else the one with\n"
     "that name.\n"
     "\n"
     "  --raw    writes the data bytes as they are to standard output\n"
     "  --name   takes the last argument as a name even if it looks like a number\n"},
    {"about",
     RunAbout,
     1,
     1,
     {},
     "kavodvdb about FILE",
     "Prints the file's about text (the \"BOUT\" \"About Media File\" record).\n"
     "Exit status 4 when the file has none.\n"},
    {"verify",
     RunVerify,
     1,
     1,
     {"--progress"},
     "kavodvdb verify [--progress] FILE",
     "Checks the whole file: the checksum of every page, the order and counts of\n"
     "every index, every record against its keys and every key against its\n"
     "record, every page used once or free. Prints the file size and the numbers\n"
     "of pages, free pages, records and keys, then each problem found.\n"
     "\n"
     "The log line tells how many operations a program had logged since the\n"
     "file's last checkpoint when it ended with the file open; the check redoes\n"
     "them, as the next open will. When their redo stops at a damaged or\n"
     "cut-short frame, the line says so: the operations from that frame on are\n"
     "lost, as a loss of power can lose the last one; whole frames found after\n"
     "it are named too, for they were operations acknowledged and lost.\n"
     "\n"
     "Exit status 0 when the file is sound, 1 when it is damaged or cannot be\n"
     "read as a database at all.\n"
     "\n"
     "A file of 8 MiB or more gets a progress line while it is checked, when\n"
     "standard output is a terminal.\n"
     "\n"
     "  --progress   shows the progress line for any file, terminal or not\n"},
    {"put",
     RunPut,
     4,
     4,
     {"--replace"},
     "kavodvdb put [--replace] FILE TYPE ID NAME",
     "Adds a record of TYPE with ID and NAME. Its data is everything read from\n"
     "standard input; empty input makes a record without data. Fails (exit\n"
     "status 5) when a record of TYPE has that ID or that name already.\n"
     "\n"
     "  kavodvdb put media.kdb MDUM 7 'Clip 7' < clip7.bin\n"
     "\n"
     "  --replace   first removes the record of TYPE with that ID and the one with\n"
     "              that name, if there are such records\n"},
    {"rm",
     RunRemove,
     3,
     3,
     {"--name"},
     "kavodvdb rm [--name] FILE TYPE ID|NAME",
     "Removes the record of TYPE with that ID when the last argument is a decimal\n"
     "number, else the one with that name. Exit status 4 when there is none.\n"
     "\n"
     "  --name   takes the last argument as a name even if it looks like a number\n"},
    {"compact",
     RunCompact,
     1,
     1,
     {"--json"},
     "kavodvdb compact [--json] FILE",
     "Moves the pages in use down into the free pages below them and gives back\n"
     "the end of the file, then prints its size before and after. It opens the\n"
     "file for writing, as put and rm do, and holds it against every other\n"
     "program meanwhile; the file is sound at every instant, so a compaction cut\n"
     "short leaves it whole, only less compact.\n"
     "\n"
     "  kavodvdb compact media.kdb\n"
     "  media.kdb: 104,857,600 bytes -> 1,245,184 bytes (gave back 103,612,416)\n"
     "\n"
     "  --json   one JSON object {\"file\", \"bytes_before\", \"bytes_after\"}\n"},
};

const TCommand* FindCommand(const char* name) {
    for (const TCommand& command : kCommands) {
        if (std::strcmp(command.fName, name) == 0) return &command;
    }
    return nullptr;
}

void PrintCommandHelp(const TCommand& command) {
    std::printf("usage: %s\n\n%s", command.fUsage, command.fHelp);
}

int UsageError(const std::string& message, const TCommand* command) {
    Complain(message);
    if (command != nullptr) {
        std::fprintf(stderr, "usage: %s\n(kavodvdb %s --help tells more)\n", command->fUsage, command->fName);
    } else {
        std::fprintf(stderr, "(kavodvdb --help tells more)\n");
    }
    return kExitUsage;
}

// An argument that begins with a dash is an option, unless it is a number.
bool LooksLikeOption(const std::string& argument) {
    if (argument.size() < 2 || argument[0] != '-') return false;
    return !(argument[1] >= '0' && argument[1] <= '9');
}

int RunCommand(const TCommand& command, int argc, char** argv) {
    TArguments arguments;
    bool optionsEnded = false;
    for (int i = 0; i < argc; ++i) {
        const std::string argument = argv[i];
        if (optionsEnded || !LooksLikeOption(argument)) {
            arguments.fPositional.push_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "--help" || argument == "-h") {
            PrintCommandHelp(command);
            return kExitOK;
        } else {
            bool known = false;
            for (const std::string& option : command.fOptions) known = known || option == argument;
            if (!known) return UsageError("unknown option " + argument + " for " + command.fName, &command);
            arguments.fOptions.insert(argument);
        }
    }
    const std::size_t count = arguments.fPositional.size();
    if (count < command.fMinPositional)
        return UsageError("too few arguments for " + std::string(command.fName), &command);
    if (count > command.fMaxPositional)
        return UsageError("too many arguments for " + std::string(command.fName), &command);
    return command.fRun(arguments);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return UsageError("no command given", nullptr);
    const std::string first = argv[1];
    if (first == "--help" || first == "-h") {
        std::fputs(kGeneralHelp, stdout);
        return kExitOK;
    }
    if (first == "help") {
        if (argc < 3) {
            std::fputs(kGeneralHelp, stdout);
            return kExitOK;
        }
        const TCommand* command = FindCommand(argv[2]);
        if (command == nullptr) return UsageError("no command " + std::string(argv[2]), nullptr);
        PrintCommandHelp(*command);
        return kExitOK;
    }
    if (first == "--version") {
        std::printf("kavodvdb %s\n", KAVO_TOOL_VERSION);
        return kExitOK;
    }
    const TCommand* command = FindCommand(first.c_str());
    if (command == nullptr) return UsageError("no command " + first, nullptr);
    const int result = RunCommand(*command, argc - 2, argv + 2);
    if (std::fflush(stdout) != 0 && result == kExitOK) {
        Complain("cannot write to standard output");
        return kExitFailed;
    }
    return result;
}
