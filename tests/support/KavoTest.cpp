#include "tests/support/KavoTest.h"

#include <algorithm>

namespace kavotest {
namespace {
AssertionCapture* gActiveCapture = nullptr;
}

AssertionCapture::AssertionCapture() : fPrevious(kavo::SetAssertionHook(&Hook)) {
    gActiveCapture = this;
}

AssertionCapture::~AssertionCapture() {
    kavo::SetAssertionHook(fPrevious);
    gActiveCapture = nullptr;
}

void AssertionCapture::Hook(const char* expression, const char* file, int line) {
    if (gActiveCapture != nullptr) gActiveCapture->fReports.push_back(Report{expression, file, line});
}

int AssertionCapture::Take(const std::string& expression) {
    const auto matches = [&](const Report& r) { return r.fExpression == expression; };
    const int count = static_cast<int>(std::count_if(fReports.begin(), fReports.end(), matches));
    fReports.erase(std::remove_if(fReports.begin(), fReports.end(), matches), fReports.end());
    return count;
}

void KavoTest::TearDown() {
    for (const Report& r : fCapture.Reports())
        ADD_FAILURE() << "unexpected assertion report: " << r.fExpression << ", file " << r.fFile
                      << ", line " << r.fLine;
}

void KavoTest::ExpectReported(const std::string& expression) {
#if KAVO_ASSERTIONS
    EXPECT_GE(fCapture.Take(expression), 1) << "expected the report \"" << expression << "\"";
#else
    fCapture.Take(expression);
#endif
}

void KavoTest::ExpectReportedTimes(const std::string& expression, int times) {
#if KAVO_ASSERTIONS
    EXPECT_EQ(fCapture.Take(expression), times) << "reports of \"" << expression << "\"";
#else
    (void)times;
    fCapture.Take(expression);
#endif
}

}  // namespace kavotest
