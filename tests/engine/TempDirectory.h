// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
#ifndef KAVO_TESTS_ENGINE_TEMPDIRECTORY_H
#define KAVO_TESTS_ENGINE_TEMPDIRECTORY_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

namespace kavotest {

class TTempDirectory {
public:
    explicit TTempDirectory(const std::string& tag) {
        // The clock and a counter make the name unique even where
        // random_device is deterministic (older MinGW runtimes).
        static std::uint64_t counter = 0;
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        fPath = std::filesystem::temp_directory_path() /
                ("kavo-" + tag + "-" + std::to_string(std::random_device()()) + "-" +
                 std::to_string(static_cast<std::uint64_t>(now)) + "-" + std::to_string(++counter));
        std::error_code error;
        if (!std::filesystem::create_directory(fPath, error))
            throw std::runtime_error("no temporary directory could be made");
    }

    ~TTempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(fPath, ignored);
    }

    TTempDirectory(const TTempDirectory&) = delete;
    TTempDirectory& operator=(const TTempDirectory&) = delete;

    const std::filesystem::path& Path() const { return fPath; }
    std::string File(const std::string& name) const { return (fPath / name).string(); }

private:
    std::filesystem::path fPath;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_TEMPDIRECTORY_H
