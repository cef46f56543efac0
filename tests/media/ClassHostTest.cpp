// A C++ host of the shared library's media classes: it includes only the
// public headers, links only the library, derives a class of its own from
// an exported one, and meets the library's objects through their virtual
// operations and type information. Exits 0 when all is well.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
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

// The host's own kind of movie: it can play.
class THostMovie : public TMooVMedium {
public:
    using TMooVMedium::TMooVMedium;
    int16_t Play() override { return 7; }
};

}  // namespace

int main() {
    namespace fs = std::filesystem;
    const fs::path previous = fs::current_path();
    const fs::path directory =
        fs::temp_directory_path() / ("kavo-media-class-host-" + std::to_string(std::random_device{}()));
    fs::create_directories(directory);
    fs::current_path(directory);
    {
        int16_t refNum = 0;
        CHECK(InitRMRezManager() == kNoError);
        CHECK(RMCreate("host.kdb", 1, 2) == kNoError);
        CHECK(RMOpen("host.kdb", kPermissionReadWrite, &refNum) == kNoError);
        CHECK(RMSetCurrentDB(refNum) == kNoError);

        THostMovie movie("host movie", 0);
        TMedium& asMedium = movie;
        CHECK(asMedium.Play() == 7);
        CHECK(movie.ChangeTitle("Played by the host") == kNoError);
        CHECK(movie.ChangeRezID(4) == kNoError);
        MSHandle path = nullptr;
        CHECK(MSNewHandle(&path, 6) == kNoError);
        CHECK(movie.ChangePathName(path) == kNoError);
        {
            THostMovie copy(movie);  // shares the path block; either may go first
            void* shared = nullptr;
            CHECK(copy.GetPathName(&shared) == kNoError && shared == path);
        }
        CHECK(movie.SaveAllToDB(refNum) == kNoError);

        std::unique_ptr<TMedium> loaded(MediumLoadByName(refNum, "host movie"));
        CHECK(loaded != nullptr);
        if (loaded != nullptr) {
            CHECK(dynamic_cast<TMooVMedium*>(loaded.get()) != nullptr);
            CHECK(dynamic_cast<TAnalogMedium*>(loaded.get()) == nullptr);
            CHECK(std::strcmp(loaded->GetTitle(), "Played by the host") == 0);
            CHECK(loaded->Play() == kNotOffered);
            CHECK(loaded->LoadPathName() == kNoError && loaded->HasPathNameLoaded());
        }
        CHECK(RMClose(refNum) == kNoError);
        CHECK(KillRMRezManager() == kNoError);
    }
    fs::current_path(previous);
    std::error_code ignored;
    fs::remove_all(directory, ignored);
    if (gFailures == 0) std::printf("C++ host of the media classes: all checks passed\n");
    return gFailures == 0 ? 0 : 1;
}
