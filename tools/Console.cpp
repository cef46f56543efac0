#include "tools/Console.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#else
#include <unistd.h>
#endif

bool StreamIsTerminal(std::FILE* stream) {
#if defined(_WIN32)
    return _isatty(_fileno(stream)) != 0;
#else
    return isatty(fileno(stream)) != 0;
#endif
}

void SetStreamBinary(std::FILE* stream) {
#if defined(_WIN32)
    _setmode(_fileno(stream), _O_BINARY);
#else
    (void)stream;
#endif
}

bool ReadWholeStream(std::FILE* stream, std::vector<unsigned char>* bytes) {
    bytes->clear();
    unsigned char block[65536];
    std::size_t got;
    while ((got = std::fread(block, 1, sizeof block, stream)) > 0)
        bytes->insert(bytes->end(), block, block + got);
    return std::ferror(stream) == 0;
}
