// Growth a few bytes at a time: one list taking 1,000,000 Append calls and one
// handle taking 1,000,000 PackLong calls. Both grow their handle by exactly
// what they add, so without the memory system's hidden spare room they would
// reallocate on every call.
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "MemSys/Win32/Memsys.h"
#include "Pack/Pack.h"
#include "TList/Common/Tlist.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void Report(const char* what, long calls, double seconds) {
    std::printf("%-44s %9ld calls  %8.3f s  %7.1f ns/call\n", what, calls, seconds, seconds * 1e9 / calls);
}

}  // namespace

int main(int argc, char** argv) {
    const long calls = argc > 1 ? std::atol(argv[1]) : 1000000;

    // A list holds at most 65,535 elements (16-bit indices): it is filled to
    // 60,000 and cleared, over and over, until it has taken every call.
    {
        TList list;
        const auto start = Clock::now();
        long appended = 0;
        while (appended < calls) {
            for (int i = 0; i < 60000 && appended < calls; ++i, ++appended) {
                if (list.Append(static_cast<std::int32_t>(appended)) != kNoError) return 1;
            }
            list.Clear();
        }
        Report("TList::Append (refilled to 60,000)", calls, SecondsSince(start));
    }
    {
        MSHandle image = nullptr;
        if (MSNewHandle(&image, 0) != kNoError) return 1;
        std::uint32_t length = 0;
        const auto start = Clock::now();
        for (long i = 0; i < calls; ++i) {
            image = PackLong(image, length, static_cast<std::uint32_t>(i));
            if (image == nullptr) return 1;
        }
        const double seconds = SecondsSince(start);
        Report("PackLong onto one handle", calls, seconds);
        std::printf("%-44s %9u bytes\n", "  image size", MSGetHandleSize(image));
        MSDisposeHandle(image);
    }
    return 0;
}
