#include "tests/rm/RmTestSupport.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

#include "Rm/Common/Source/Rmclock.h"

namespace kavotest {
namespace {

std::uint32_t gFakeSeconds = 0;

std::uint32_t FakeClock() {
    return ++gFakeSeconds;
}

}  // namespace

TCurrentTempDirectory::TCurrentTempDirectory() : fPrevious(std::filesystem::current_path()) {
    static std::uint64_t counter = 0;
    std::random_device device;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    const std::filesystem::path base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100 && fPath.empty(); ++attempt) {
        const std::string name = "kavo-rm-" + std::to_string(device()) + "-" +
                                 std::to_string(static_cast<std::uint64_t>(now)) + "-" +
                                 std::to_string(++counter);
        std::error_code error;
        if (std::filesystem::create_directory(base / name, error)) fPath = base / name;
    }
    if (fPath.empty()) throw std::runtime_error("no temporary directory could be made");
    std::filesystem::current_path(fPath);
}

TCurrentTempDirectory::~TCurrentTempDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(fPrevious, ignored);
    std::filesystem::remove_all(fPath, ignored);
}

void RmTest::SetUp() {
    KavoTest::SetUp();
    fDirectory = new TCurrentTempDirectory;
    // Each test draws from a different stretch of seconds.
    gFakeSeconds = static_cast<std::uint32_t>(std::random_device{}());
    rm::SetClockForTests(&FakeClock);
}

void RmTest::TearDown() {
    rm::SetClockForTests(nullptr);
    delete fDirectory;
    fDirectory = nullptr;
    KavoTest::TearDown();
}

void RmTest::DropReports(const std::string& expression) {
    std::vector<Report>& reports = Reports();
    reports.erase(std::remove_if(reports.begin(), reports.end(),
                                 [&](const Report& r) { return r.fExpression == expression; }),
                  reports.end());
}

void RmTest::ExpectRefused(std::int16_t result, std::int16_t code, const std::string& report) {
    EXPECT_EQ(result, code) << "the call that reports \"" << report << "\"";
    ExpectReported(report);
}

MSHandle NewHandleWith(const std::vector<std::uint8_t>& bytes) {
    MSHandle handle = nullptr;
    if (MSNewHandle(&handle, static_cast<std::uint32_t>(bytes.size())) != kNoError) return nullptr;
    if (!bytes.empty()) {
        void* address = nullptr;
        MSLockHandle(handle, &address);
        std::memcpy(address, bytes.data(), bytes.size());
        MSUnlockHandle(handle);
    }
    return handle;
}

MSHandle NewHandleWith(const std::string& text) {
    return NewHandleWith(std::vector<std::uint8_t>(text.begin(), text.end()));
}

std::vector<std::uint8_t> HandleBytes(MSHandle handle) {
    const std::uint32_t size = MSGetHandleSize(handle);
    std::vector<std::uint8_t> bytes(size);
    if (size != 0) {
        void* address = nullptr;
        MSLockHandle(handle, &address);
        std::memcpy(bytes.data(), address, size);
        MSUnlockHandle(handle);
    }
    return bytes;
}

std::vector<std::uint8_t> FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

namespace {

std::string UpToNul(const char* text, std::size_t bound) {
    std::size_t length = 0;
    while (length < bound && text[length] != '\0') ++length;
    return std::string(text, length);
}

}  // namespace

std::string TypeString(const char* type) {
    return UpToNul(type, 4);
}

std::string NameString(const char* name) {
    return UpToNul(name, 32);
}

}  // namespace kavotest
