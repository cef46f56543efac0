// How kavodvdb reads record types, IDs and names from a command line and how
// it writes them back, as text for people and as JSON for programs.
//
// A type on the command line is one to four characters; a shorter one is
// padded with blanks at the end ("DVC" is "DVC "). Any byte can be written as
// \xHH (two hexadecimal digits), a NUL as \0 and a backslash as \\. In text
// output every type is written in single quotes ('DVC ', 'NFO!'), with
// backslashes, quotes and unprintable bytes escaped, so that a type copied
// from the output can be pasted back into a shell command as it is.
#ifndef KAVO_TOOLS_RECORDTEXT_H
#define KAVO_TOOLS_RECORDTEXT_H

#include <array>
#include <cstdint>
#include <string>

constexpr std::size_t kRecordTypeLength = 4;
// Characters of a record name, without its terminating NUL.
constexpr std::size_t kMaxRecordNameLength = 31;

using TRecordType = std::array<char, kRecordTypeLength>;

// Parses a type as given on a command line; on failure says why in problem.
bool ParseRecordType(const std::string& text, TRecordType* type, std::string* problem);

// The type as a command-line argument in single quotes: 'DVC ', '\x00\x00\x00\x01'.
std::string QuoteRecordType(const TRecordType& type);

// A signed 32-bit decimal number with an optional sign and nothing else.
bool ParseRecordID(const std::string& text, std::int32_t* id);

// Text for a terminal: control characters and DEL become \xHH; every other
// byte, UTF-8 included, is written as it is.
std::string EscapeForTerminal(const std::string& text);

// A JSON string literal, quotes included. Text that is valid UTF-8 is kept
// as it is; otherwise each byte stands for the character of the same number
// (Latin-1), so the result is always well-formed.
std::string QuoteJson(const std::string& text);

#endif  // KAVO_TOOLS_RECORDTEXT_H
