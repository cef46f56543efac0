#include "tests/rm/RmTestSupport.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <system_error>

#include "Rm/Common/Source/Rmclock.h"

namespace kavotest {
namespace {

std::uint32_t gFakeSeconds = 0;

std::uint32_t FakeClock() {
    return ++gFakeSeconds;
}

}  // namespace

void RmTest::SetUp() {
    KavoTest::SetUp();
    fPrevious = std::filesystem::current_path();
    fDirectory = std::make_unique<TTempDirectory>("rm");
    std::filesystem::current_path(fDirectory->Path());
    // Each test draws from a different stretch of seconds.
    gFakeSeconds = static_cast<std::uint32_t>(std::random_device{}());
    rm::SetClockForTests(&FakeClock);
}

void RmTest::TearDown() {
    rm::SetClockForTests(nullptr);
    // The directory is left before it is removed.
    std::error_code ignored;
    std::filesystem::current_path(fPrevious, ignored);
    fDirectory.reset();
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

std::string TypeString(const char* type) {
    return std::string(type, std::find(type, type + 4, '\0'));
}

std::string NameString(const char* name) {
    return std::string(name, std::find(name, name + 32, '\0'));
}

}  // namespace kavotest
