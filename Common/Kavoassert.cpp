#include "Common/Kavoassert.h"

#include <cstdio>

namespace kavo {
namespace {

void PrintReport(const char* expression, const char* file, int line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expression, file, line);
    std::fflush(stderr);
}

AssertionHook gAssertionHook = PrintReport;

}  // namespace

AssertionHook SetAssertionHook(AssertionHook hook) {
    AssertionHook previous = gAssertionHook;
    gAssertionHook = hook != nullptr ? hook : PrintReport;
    return previous;
}

void ReportAssertion(const char* expression, const char* file, int line) {
    gAssertionHook(expression, file, line);
}

}  // namespace kavo
