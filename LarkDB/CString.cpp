#include "LarkDB/CString.h"

#include <cstring>
#include <new>

CString::CString() : fText(nullptr), fLength(0) {}

CString::CString(const char* text) : fText(nullptr), fLength(0) { Assign(text); }

CString::CString(const CString& other) : fText(nullptr), fLength(0) { Assign(other.Text(), other.fLength); }

CString::~CString() { delete[] fText; }

CString& CString::operator=(const CString& other) {
    if (this != &other) Assign(other.Text(), other.fLength);
    return *this;
}

CString& CString::operator=(const char* text) {
    Assign(text);
    return *this;
}

bool CString::Assign(const char* text) {
    return Assign(text, text != nullptr ? static_cast<uint32_t>(std::strlen(text)) : 0);
}

bool CString::Assign(const char* text, uint32_t length) {
    if (length == 0 || text == nullptr) {
        delete[] fText;
        fText = nullptr;
        fLength = 0;
        return true;
    }
    char* copy = new (std::nothrow) char[std::size_t{length} + 1];
    if (copy == nullptr) return false;
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    delete[] fText;
    fText = copy;
    fLength = length;
    return true;
}

void CString::CopyOut(unsigned char* out) const {
    const uint32_t count = fLength < 255 ? fLength : 255;
    out[0] = static_cast<unsigned char>(count);
    if (count != 0) std::memcpy(out + 1, Text(), count);
}
