/* A host written in C: the public header compiles as C and the shared
   library's memory functions work through it. Exits 0 when all is well. */
#include <stdio.h>
#include <string.h>

#include "kavoDVDB.h"

static int failures = 0;

static void Check(int ok, int line, const char* condition) {
    if (ok) return;
    fprintf(stderr, "%s:%d: %s\n", __FILE__, line, condition);
    ++failures;
}
#define CHECK(condition) Check((condition) != 0, __LINE__, #condition)

int main(void) {
    MSHandle h = 0;
    MSHandle copy = 0;
    void* address = 0;
    void* p = 0;

    CHECK(MSNewHandle(&h, 5) == kNoError);
    CHECK(MSLockHandle(h, &address) == kNoError);
    CHECK(((unsigned char*)address)[4] == 0xA3);
    memcpy(address, "hello", 5);
    CHECK(MSUnlockHandle(h) == kNoError);
    CHECK(MSCloneHandle(h, &copy) == kNoError);
    CHECK(MSAppendHandleToHandle(copy, &h) == kNoError);
    CHECK(MSCopyHandleToNewPtr(h, &p) == kNoError);
    CHECK(MSGetPtrSize(p) == 10 && memcmp(p, "hellohello", 10) == 0);
    CHECK(MSDisposePtr(p) == kNoError);
    CHECK(MSDisposeHandle(copy) == kNoError);
    CHECK(MSDisposeHandle(h) == kNoError);
    CHECK(MSValidHandle(h) == 0 && MSLastError() == kInvalidHandle);
    if (failures == 0) printf("C host: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
