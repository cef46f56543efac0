// Test support shared by every module's tests.
//
// KavoTest captures the library's assertion reports for the length of a test.
// A test states each report it provokes with ExpectReported; any report left
// over at the end fails the test, so an unexpected assertion never passes
// unnoticed. With the reports compiled out, ExpectReported checks nothing.
// At its end a test also leaves no refusal of system allocations armed.
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

class KavoTest : public ::testing::Test {
protected:
    KavoTest();
    ~KavoTest() override;
    void TearDown() override;

    // At least one report of this expression was made since the last call.
    void ExpectReported(const std::string& expression) { ExpectReportedTimes(expression, -1); }
    // Exactly `times` reports of this expression (-1: at least one).
    void ExpectReportedTimes(const std::string& expression, int times);
    // Forgets every report so far (for steps whose reports are not the point).
    void IgnoreReports() { fReports.clear(); }
    std::vector<Report>& Reports() { return fReports; }

private:
    static void Hook(const char* expression, const char* file, int line);

    std::vector<Report> fReports;
    kavo::AssertionHook fPrevious;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_SUPPORT_KAVOTEST_H
