#include "tools/RecordText.h"

#include <cstdio>
#include <limits>

namespace {

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string HexEscape(unsigned char byte) {
    char text[5];
    std::snprintf(text, sizeof text, "\\x%02x", byte);
    return text;
}

bool IsControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F;
}

// The length of the UTF-8 sequence that starts at text[at], or 0 when none
// does (overlong forms, surrogates and values past U+10FFFF included).
std::size_t Utf8SequenceLength(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(at);
    std::size_t length;
    std::uint32_t value;
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
        value = first & 0x1F;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        value = first & 0x0F;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        value = first & 0x07;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        value = (value << 6) | (byte(at + i) & 0x3F);
    }
    if ((length == 3 && value < 0x800) || (length == 4 && (value < 0x10000 || value > 0x10FFFF))) return 0;
    if (value >= 0xD800 && value <= 0xDFFF) return 0;
    return length;
}

bool IsUtf8(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = Utf8SequenceLength(text, at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

void AppendJsonCharacter(std::string* out, std::uint32_t value) {
    switch (value) {
        case '"':
            *out += "\\\"";
            return;
        case '\\':
            *out += "\\\\";
            return;
        case '\b':
            *out += "\\b";
            return;
        case '\f':
            *out += "\\f";
            return;
        case '\n':
            *out += "\\n";
            return;
        case '\r':
            *out += "\\r";
            return;
        case '\t':
            *out += "\\t";
            return;
        default:
            break;
    }
    if (value < 0x20 || value == 0x7F) {
        char text[7];
        std::snprintf(text, sizeof text, "\\u%04x", static_cast<unsigned>(value));
        *out += text;
    } else if (value < 0x80) {
        *out += static_cast<char>(value);
    } else {
        // A Latin-1 character, two bytes of UTF-8.
        *out += static_cast<char>(0xC0 | (value >> 6));
        *out += static_cast<char>(0x80 | (value & 0x3F));
    }
}

}  // namespace

bool ParseRecordType(const std::string& text, TRecordType* type, std::string* problem) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            bytes += text[at];
            continue;
        }
        if (at + 1 >= text.size()) {
            *problem = "a backslash ends it (write \\\\ for a backslash)";
            return false;
        }
        const char kind = text[++at];
        if (kind == '\\') {
            bytes += '\\';
        } else if (kind == '0') {
            bytes += '\0';
        } else if (kind == 'x') {
            const int high = at + 1 < text.size() ? HexDigitValue(text[at + 1]) : -1;
            const int low = at + 2 < text.size() ? HexDigitValue(text[at + 2]) : -1;
            if (high < 0 || low < 0) {
                *problem = "\\x needs two hexadecimal digits";
                return false;
            }
            bytes += static_cast<char>(high * 16 + low);
            at += 2;
        } else {
            *problem = std::string("unknown escape \\") + kind + " (use \\xHH, \\0 or \\\\)";
            return false;
        }
    }
    if (bytes.empty()) {
        *problem = "it is empty";
        return false;
    }
    if (bytes.size() > kRecordTypeLength) {
        *problem = "it has more than four characters";
        return false;
    }
    type->fill(' ');
    for (std::size_t i = 0; i < bytes.size(); ++i) (*type)[i] = bytes[i];
    return true;
}

std::string QuoteRecordType(const TRecordType& type) {
    std::string quoted = "'";
    for (char c : type) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '\\' || byte == '\'' || IsControl(byte) || byte >= 0x80) {
            quoted += HexEscape(byte);
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

bool ParseRecordID(const std::string& text, std::int32_t* id) {
    std::size_t at = 0;
    bool negative = false;
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) negative = text[at++] == '-';
    if (at == text.size()) return false;
    std::int64_t value = 0;
    for (; at < text.size(); ++at) {
        if (text[at] < '0' || text[at] > '9') return false;
        value = value * 10 + (text[at] - '0');
        if (value > std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1) return false;
    }
    if (negative) value = -value;
    if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max())
        return false;
    *id = static_cast<std::int32_t>(value);
    return true;
}

std::string EscapeForTerminal(const std::string& text) {
    std::string escaped;
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        escaped += IsControl(byte) ? HexEscape(byte) : std::string(1, c);
    }
    return escaped;
}

std::string QuoteJson(const std::string& text) {
    std::string quoted = "\"";
    if (IsUtf8(text)) {
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t length = Utf8SequenceLength(text, at);
            if (length == 1) {
                AppendJsonCharacter(&quoted, static_cast<unsigned char>(text[at]));
            } else {
                quoted.append(text, at, length);
            }
            at += length;
        }
    } else {
        for (char c : text) AppendJsonCharacter(&quoted, static_cast<unsigned char>(c));
    }
    return quoted + "\"";
}
