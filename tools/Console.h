// The few things kavodvdb asks of the system about its standard streams.
#ifndef KAVO_TOOLS_CONSOLE_H
#define KAVO_TOOLS_CONSOLE_H

#include <cstdio>
#include <vector>

// Whether the stream is a terminal (a progress line is only for people).
bool StreamIsTerminal(std::FILE* stream);

// Binary mode, so that record bytes pass through unchanged where the system
// would otherwise translate line ends.
void SetStreamBinary(std::FILE* stream);

// Reads the stream to its end; false when reading failed.
bool ReadWholeStream(std::FILE* stream, std::vector<unsigned char>* bytes);

#endif  // KAVO_TOOLS_CONSOLE_H
