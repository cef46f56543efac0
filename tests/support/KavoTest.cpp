#include "tests/support/KavoTest.h"

#include <algorithm>

#include "MemSys/Win32/Memsys.h"

namespace kavotest {
namespace {
std::vector<Report>* gActiveReports = nullptr;
}

KavoTest::KavoTest() : fPrevious(kavo::SetAssertionHook(&Hook)) {
    gActiveReports = &fReports;
}

KavoTest::~KavoTest() {
    kavo::SetAssertionHook(fPrevious);
    gActiveReports = nullptr;
}

void KavoTest::Hook(const char* expression, const char* file, int line) {
    if (gActiveReports != nullptr) gActiveReports->push_back(Report{expression, file, line});
}

void KavoTest::TearDown() {
    memsys::RefuseSystemAllocationAfter(-1);
    for (const Report& r : fReports)
        ADD_FAILURE() << "unexpected assertion report: " << r.fExpression << ", file " << r.fFile << ", line "
                      << r.fLine;
}

void KavoTest::ExpectReportedTimes(const std::string& expression, int times) {
    const auto matches = [&](const Report& r) { return r.fExpression == expression; };
    const int count = static_cast<int>(std::count_if(fReports.begin(), fReports.end(), matches));
    fReports.erase(std::remove_if(fReports.begin(), fReports.end(), matches), fReports.end());
    if (!KAVO_ASSERTIONS) return;
    if (times < 0) {
        EXPECT_GE(count, 1) << "expected the report \"" << expression << "\"";
    } else {
        EXPECT_EQ(count, times) << "reports of \"" << expression << "\"";
    }
}

}  // namespace kavotest
