// CString: a small string object that owns a heap copy of its characters.
//
// Only what the media and story classes use: construction and assignment
// from text or from another CString, the text, its length, the text from a
// position (clamped to the end), and a copy-out as a length-prefixed string
// of at most 255 characters. It never throws: when memory runs out, an
// assignment leaves the string as it was and answers false.
#ifndef KAVO_LARKDB_CSTRING_H
#define KAVO_LARKDB_CSTRING_H

#include <stdint.h>

#include "kavoDVDB.h"

class KAVO_CLASS_API CString {
public:
    CString();
    // Null text makes an empty string.
    explicit CString(const char* text);
    CString(const CString& other);
    virtual ~CString();
    CString& operator=(const CString& other);
    CString& operator=(const char* text);

    // False when the copy could not be made (the string is then unchanged).
    bool Assign(const char* text);
    bool Assign(const char* text, uint32_t length);

    // Never null; valid until the string next changes.
    const char* Text() const { return fText != nullptr ? fText : ""; }
    uint32_t Length() const { return fLength; }
    // The text from position on; the empty text when position is past the end.
    const char* TextFrom(uint32_t position) const { return Text() + (position < fLength ? position : fLength); }
    // A count byte and at most 255 characters into out (256 bytes).
    void CopyOut(unsigned char* out) const;

private:
    char* fText;
    uint32_t fLength;
};

#endif  // KAVO_LARKDB_CSTRING_H
