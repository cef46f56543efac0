/* A small host program: it makes, fills, grows, copies and frees memory
   blocks through the library's flat memory functions and says what it did. */
#include <stdio.h>
#include <string.h>

#include "kavoDVDB.h"

static void show(const char* what, int16_t result) {
    printf("  %-48s -> %d%s\n", what, result, result == kNoError ? " (kNoError)" : "");
}

int main(void) {
    MSHandle clip = 0;
    MSHandle copy = 0;
    void* address = 0;
    void* snapshot = 0;
    const char* title = "Holiday 2026, take 3";
    int valid;

    printf("kavoDVDB memory demo\n");
    show("MSNewHandle(&clip, 0)", MSNewHandle(&clip, 0));
    show("MSCopyBlockToHandle(title, &clip, strlen+1)",
         MSCopyBlockToHandle(title, &clip, (uint32_t)strlen(title) + 1));
    printf("  handle size is now %u bytes\n", (unsigned)MSGetHandleSize(clip));

    show("MSLockHandle(clip, &address)", MSLockHandle(clip, &address));
    printf("  the block holds \"%s\" and is %slocked\n", (const char*)address,
           MSHandleIsLocked(clip) ? "" : "not ");
    show("MSUnlockHandle(clip)", MSUnlockHandle(clip));

    show("MSCloneHandle(clip, &copy)", MSCloneHandle(clip, &copy));
    show("MSGrowHandle(&copy, 64)", MSGrowHandle(&copy, 64));
    show("MSFillHandle(copy, 43, 21, '.')", MSFillHandle(copy, 43, 21, '.'));
    show("MSCopyHandleToNewPtr(copy, &snapshot)", MSCopyHandleToNewPtr(copy, &snapshot));
    printf("  the pointer holds %u bytes: \"%.20s\" then \"%.12s...\"\n",
           (unsigned)MSGetPtrSize(snapshot), (const char*)snapshot, (const char*)snapshot + 21);

    printf("misuse is refused, not followed (an assertion report goes to stderr):\n");
    fflush(stdout);
    show("MSDisposePtr(snapshot)", MSDisposePtr(snapshot));
    show("MSDisposePtr(snapshot) again", MSDisposePtr(snapshot));
    fflush(stdout);
    show("MSDisposeHandle(copy)", MSDisposeHandle(copy));
    show("MSDisposeHandle(clip)", MSDisposeHandle(clip));
    valid = MSValidHandle(clip);
    printf("  MSValidHandle(clip) is %d, MSLastError() is %d\n", valid, MSLastError());
    return 0;
}
