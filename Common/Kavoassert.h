// Assertion reports, shared by every module.
//
// A failed assertion reports "Assertion failed: <expression>, file <module>,
// line <n>" and execution goes on: the caller then returns its failure code.
// The module path is relative to the source root (the build maps the root
// away from __FILE__). With KAVO_ASSERTIONS off the reports are compiled out;
// the conditions that guard a failure path are still evaluated.
#ifndef KAVO_COMMON_KAVOASSERT_H
#define KAVO_COMMON_KAVOASSERT_H

#ifndef KAVO_ASSERTIONS
#define KAVO_ASSERTIONS 1
#endif

namespace kavo {

// Receives every report. The default hook prints the report to stderr.
using AssertionHook = void (*)(const char* expression, const char* file, int line);

// Installs a hook (nullptr restores the default) and returns the previous one.
AssertionHook SetAssertionHook(AssertionHook hook);

void ReportAssertion(const char* expression, const char* file, int line);

// Reports when ok is false and hands ok back, so that a check can guard the
// failure path: if (!KAVO_CHECK(p != nullptr)) return kGeneralError;
inline bool CheckAssertion(bool ok, const char* expression, const char* file, int line) {
#if KAVO_ASSERTIONS
    if (!ok) ReportAssertion(expression, file, line);
#else
    (void)expression;
    (void)file;
    (void)line;
#endif
    return ok;
}

}  // namespace kavo

// Plain assertion: the expression is evaluated only when reports are built in.
#if KAVO_ASSERTIONS
#define KAVO_ASSERT(expression) \
    ((expression) ? (void)0 : ::kavo::ReportAssertion(#expression, __FILE__, __LINE__))
#define KAVO_ASSERT_TEXT(expression, text) \
    ((expression) ? (void)0 : ::kavo::ReportAssertion(text, __FILE__, __LINE__))
#else
// Compiled out, the expression is still seen by the compiler (its variables
// count as used) but never evaluated.
#define KAVO_ASSERT(expression) ((void)sizeof((expression) ? 1 : 0))
#define KAVO_ASSERT_TEXT(expression, text) ((void)sizeof((expression) ? 1 : 0))
#endif

// Checked condition: always evaluated, reported when false, yields its truth.
#define KAVO_CHECK(expression) \
    (::kavo::CheckAssertion(static_cast<bool>(expression), #expression, __FILE__, __LINE__))
#define KAVO_CHECK_TEXT(expression, text) \
    (::kavo::CheckAssertion(static_cast<bool>(expression), text, __FILE__, __LINE__))

#endif  // KAVO_COMMON_KAVOASSERT_H
