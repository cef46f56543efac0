// The file system the engine uses. PlatformFileSystem() lives with the
// platform's implementation (PosixFileIO.cpp or Win32FileIO.cpp).
#include "engine/FileIO.h"

namespace engine {

namespace {
TFileSystem* gInstalledFileSystem = nullptr;
}

TFileSystem* CurrentFileSystem() {
    return gInstalledFileSystem != nullptr ? gInstalledFileSystem : PlatformFileSystem();
}

void InstallFileSystem(TFileSystem* fileSystem) {
    gInstalledFileSystem = fileSystem;
}

}  // namespace engine
