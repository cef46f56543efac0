// Shared by the record manager's tests: a fresh temporary directory made
// current for the length of a test (the engine writes its status log into
// the current directory), a clock that never makes a test wait, and small
// helpers over handles and files.
#ifndef KAVO_TESTS_RM_RMTESTSUPPORT_H
#define KAVO_TESTS_RM_RMTESTSUPPORT_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kavoDVDB.h"
#include "tests/engine/TempDirectory.h"
#include "tests/support/KavoTest.h"

namespace kavotest {

// The base of the record manager's tests: a current temporary directory,
// removed with everything in it afterwards, and a fake clock that moves one
// second on at every reading, so that drawing a reference number never
// waits for the clock.
class RmTest : public KavoTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Drops every report of this expression, however many there were (for
    // reports that depend on where a record happens to lie in the map).
    void DropReports(const std::string& expression);
    // A refusal: the call answered this code and made this report.
    void ExpectRefused(std::int16_t result, std::int16_t code, const std::string& report);

    std::unique_ptr<TTempDirectory> fDirectory;

private:
    std::filesystem::path fPrevious;
};

// What a call wrote to `out`, once it has answered kNoError.
template <typename T>
T Answer(std::int16_t result, const T& out) {
    EXPECT_EQ(result, kNoError);
    return out;
}

// A new handle holding the bytes.
MSHandle NewHandleWith(const std::vector<std::uint8_t>& bytes);
MSHandle NewHandleWith(const std::string& text);
// The bytes a handle holds.
std::vector<std::uint8_t> HandleBytes(MSHandle handle);
// The whole content of a file.
std::vector<std::uint8_t> FileBytes(const std::string& path);
// A 4-byte type and a 32-byte name as strings (up to their NUL).
std::string TypeString(const char* type);
std::string NameString(const char* name);

}  // namespace kavotest

#endif  // KAVO_TESTS_RM_RMTESTSUPPORT_H
