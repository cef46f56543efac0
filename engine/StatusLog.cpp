#include "engine/StatusLog.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "engine/Engine.h"
#include "engine/EngineErrors.h"

namespace {

constexpr const char* kLogName = "DBSTATUS.LOG";
constexpr int kUserNumber = 1;       // always 1: the engine has one user, the host
constexpr int kLogFailureExit = 10;  // the log itself could not be opened
constexpr int kFatalAtExit = 100;    // the second fatal path
constexpr std::size_t kDateKept = 64;
constexpr std::size_t kMessageKept = 256;

// Notices and fatal messages go to stderr: it is unbuffered, so the text is
// out before the process ends, and it stays apart from whatever the host
// writes to stdout.
std::FILE* Console() {
    return stderr;
}

// Ends the process at once. Neither the host's nor the library's atexit
// handlers and static destructors run: after a fatal error the engine's state
// is not to be trusted, and a destructor that wrote it back would damage the
// files. The C streams are flushed first so that no text written so far is
// lost. Only the low 8 bits of the code reach the parent on POSIX systems.
[[noreturn]] void EndProcess(int exitCode) {
    std::fflush(nullptr);
    std::_Exit(exitCode);
}

// The local date and time in the C runtime's fixed form "Www Mmm dd hh:mm:ss
// yyyy\n", made here rather than by asctime, which keeps a shared static
// buffer and overruns it for years beyond 9999; the names are English
// whatever the locale, as asctime's are.
void FormatDate(char (&text)[kDateKept + 1]) {
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    const std::tm* local = std::localtime(&now);  // one thread: the shared result is safe
    if (local == nullptr || local->tm_wday < 0 || local->tm_wday > 6 || local->tm_mon < 0 ||
        local->tm_mon > 11) {
        std::snprintf(text, sizeof text, "??? ??? ?? ??:??:?? ????\n");
        return;
    }
    std::snprintf(text, sizeof text, "%.3s %.3s%3d %.2d:%.2d:%.2d %d\n", kDays[local->tm_wday],
                  kMonths[local->tm_mon], local->tm_mday, local->tm_hour, local->tm_min, local->tm_sec,
                  1900 + local->tm_year);
}

}  // namespace

std::int16_t LogStatus(const char* message, std::int16_t code) {
    if (code == kFatalStatusCode) code = 0;
    if (message == nullptr) message = "";

    std::FILE* log = std::fopen(kLogName, "a");
    if (log == nullptr) {
        std::fprintf(Console(), "\nThe engine's status log %s could not be opened for: %s (code %d)\n",
                     kLogName, message, code);
        EndProcess(kLogFailureExit);
    }

    char date[kDateKept + 1];
    FormatDate(date);
    char kept[kMessageKept + 1];
    std::snprintf(kept, sizeof kept, "%s", message);

    std::fprintf(log, "%s - User# %02d\t%s", date, kUserNumber, kept);
    if (code != 0) std::fprintf(log, ": %d", code);
    std::fprintf(log, "\n");
    std::fclose(log);
    return code;
}

void FatalError(int internalError) {
    char text[96];
    std::snprintf(text, sizeof text, "Fatal engine error #%d low_err=%d", internalError, EngineLowError());
    std::fprintf(Console(), "\n%s\n", text);
    LogStatus(text, kFatalStatusCode);
    EndProcess(internalError);
}

// The position is 64-bit; it is printed in hexadecimal followed by a literal
// "x", as the message's "%lxx" asks, without passing it through a long (32
// bits on Windows).
void FatalErrorAt(const char* routine, int module, int line, int fileNumber, std::uint64_t position,
                  int errorCode) {
    std::fprintf(Console(), "\n%s\nM%d L%d F%d P%" PRIx64 "x  ErrorCode=%d\n",
                 routine != nullptr ? routine : "", module, line, fileNumber, position, errorCode);
    EndProcess(kFatalAtExit);
}
