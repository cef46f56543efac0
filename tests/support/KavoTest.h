// Test support shared by every module's tests.
//
// KavoTest captures the library's assertion reports for the length of a test.
// A test states each report it provokes with ExpectReported; any report left
// over at the end fails the test, so an unexpected assertion never passes
// unnoticed. With the reports compiled out, ExpectReported checks nothing.
#ifndef KAVO_TESTS_SUPPORT_KAVOTEST_H
#define KAVO_TESTS_SUPPORT_KAVOTEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Common/Kavoassert.h"

namespace kavotest {

struct Report {
    std::string fExpression;
    std::string fFile;
    int fLine;
};

class AssertionCapture {
public:
    AssertionCapture();
    ~AssertionCapture();
    AssertionCapture(const AssertionCapture&) = delete;
    AssertionCapture& operator=(const AssertionCapture&) = delete;

    std::vector<Report>& Reports() { return fReports; }
    // Removes the reports of this expression and says how many there were.
    int Take(const std::string& expression);

private:
    static void Hook(const char* expression, const char* file, int line);

    std::vector<Report> fReports;
    kavo::AssertionHook fPrevious;
};

class KavoTest : public ::testing::Test {
protected:
    void TearDown() override;

    // At least one report of this expression was made since the last call.
    void ExpectReported(const std::string& expression);
    // Exactly `times` reports of this expression.
    void ExpectReportedTimes(const std::string& expression, int times);
    // Forgets every report so far (for steps whose reports are not the point).
    void IgnoreReports() { fCapture.Reports().clear(); }
    std::vector<Report>& Reports() { return fCapture.Reports(); }

private:
    AssertionCapture fCapture;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_SUPPORT_KAVOTEST_H
