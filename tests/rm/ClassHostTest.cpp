// A C++ host of the shared library: it includes only the public headers,
// links only the library, and uses the exported CRezManager class. Exits 0
// when all is well.
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include "kavoDVDBClasses.h"

namespace {

int gFailures = 0;

void Check(bool condition, const char* what, int line) {
    if (condition) return;
    std::fprintf(stderr, "ClassHostTest.cpp:%d: %s\n", line, what);
    ++gFailures;
}

#define CHECK(condition) Check((condition), #condition, __LINE__)

}  // namespace

int main() {
    namespace fs = std::filesystem;
    const fs::path previous = fs::current_path();
    const fs::path directory =
        fs::temp_directory_path() / ("kavo-class-host-" + std::to_string(std::random_device{}()));
    fs::create_directories(directory);
    fs::current_path(directory);
    {
        CRezManager manager;
        CHECK(manager.Create("host.db", 0x484F5354, 0x44415441) == kNoError);
        int16_t refNum = 0;
        CHECK(manager.Open("host.db", kPermissionReadWrite, &refNum) == kNoError);
        CHECK(refNum >= 1);

        MSHandle text = nullptr;
        CHECK(MSNewHandle(&text, 6) == kNoError);
        CHECK(manager.AddNewRecord(refNum, "TEXT", "greeting", 1, text) == kNoError);

        MSHandle read = nullptr;
        CHECK(manager.ReadRecordByName(kAllFiles, "greeting", "TEXT", &read) == kNoError && read == text);
        uint32_t size = 0;
        CHECK(manager.GetSizeOfNumberedRecord(refNum, 1, "TEXT", &size) == kNoError && size == 6);
        CHECK(manager.Close(refNum) == kNoError);
        CHECK(manager.LastError() == kNoError);
    }
    fs::current_path(previous);
    std::error_code ignored;
    fs::remove_all(directory, ignored);
    if (gFailures == 0) std::printf("C++ host: all checks passed\n");
    return gFailures == 0 ? 0 : 1;
}
