/* Loads the shared library the way a host that binds by name does, finds
   every name of the export list, and calls a few record manager functions
   through the addresses found: on 32-bit Windows they are stdcall functions
   that must leave the stack as they found it. Exits 0 when all is well. */
#include <stdio.h>
#include <string.h>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "ExportedNames.h"
#include "kavoDVDB.h"

#if defined(_WIN32) && !defined(_WIN64)
#define STDCALL_NAME(name, bytes) "_" name "@" #bytes
#else
#define STDCALL_NAME(name, bytes) name
#endif

typedef int16_t(KAVO_CALL* TNoArguments)(void);
typedef int16_t(KAVO_CALL* TCountFiles)(uint16_t*);
typedef int16_t(KAVO_CALL* TGetNthRefNum)(uint16_t, int16_t*);

static void* gLibrary = 0;

static void* Find(const char* name) {
#if defined(_WIN32)
    FARPROC address = GetProcAddress((HMODULE)gLibrary, name);
    void* result = 0;
    memcpy(&result, &address, sizeof result);
    return result;
#else
    return dlsym(gLibrary, name);
#endif
}

int main(int argc, char** argv) {
    size_t i;
    int failures = 0;
    TNoArguments init;
    TNoArguments kill;
    TCountFiles countFiles;
    TGetNthRefNum getNthRefNum;
    void* address;
    uint16_t count = 99;
    int16_t refNum = 0;

    if (argc < 2) {
        fprintf(stderr, "usage: %s library\n", argv[0]);
        return 2;
    }
#if defined(_WIN32)
    gLibrary = (void*)LoadLibraryA(argv[1]);
#else
    gLibrary = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
#endif
    if (gLibrary == 0) {
        fprintf(stderr, "%s could not be loaded\n", argv[1]);
        return 1;
    }
    for (i = 0; i < sizeof kExportedNames / sizeof kExportedNames[0]; ++i) {
        if (Find(kExportedNames[i]) == 0) {
            fprintf(stderr, "%s is not exported\n", kExportedNames[i]);
            ++failures;
        }
    }

    address = Find(STDCALL_NAME("InitRMRezManager", 0));
    memcpy(&init, &address, sizeof init);
    address = Find(STDCALL_NAME("KillRMRezManager", 0));
    memcpy(&kill, &address, sizeof kill);
    address = Find(STDCALL_NAME("RMCountFiles", 4));
    memcpy(&countFiles, &address, sizeof countFiles);
    address = Find(STDCALL_NAME("RMGetNthRefNum", 8));
    memcpy(&getNthRefNum, &address, sizeof getNthRefNum);
    if (init == 0 || kill == 0 || countFiles == 0 || getNthRefNum == 0) {
        fprintf(stderr, "the record manager's functions are missing\n");
        return 1;
    }
    /* Many calls in a row: a wrong argument count would soon wreck the stack. */
    for (i = 0; i < 1000; ++i) {
        if (init() != kNoError) ++failures;
        if (countFiles(&count) != kNoError || count != 0) ++failures;
        if (getNthRefNum(0, &refNum) != kGeneralError) ++failures;
        if (kill() != kNoError) ++failures;
    }
    if (failures == 0)
        printf("exported names: all %u found and callable\n",
               (unsigned)(sizeof kExportedNames / sizeof kExportedNames[0]));
    return failures == 0 ? 0 : 1;
}
