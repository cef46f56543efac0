// Reading the packed images of media, tape information, scenes and story
// boards, for their classes and the medium factory: the bounds checks that come before any unpack
// (the unpack primitives do not check the source's length), and a string
// read into a CString.
#ifndef KAVO_LARKDB_MEDIUMIMAGE_H
#define KAVO_LARKDB_MEDIUMIMAGE_H

#include <stdint.h>

#include "LarkDB/CString.h"
#include "kavoDVDB.h"

// Bytes a packed string takes at bytes + at, or 0 when it does not fit in
// length, or holds more than most characters.
uint32_t PackedStringSpan(const unsigned char* bytes, uint32_t length, uint32_t at, uint32_t most = UINT32_MAX);

// The length of a whole packed "MDUM" image at bytes, and its kind (when
// kind is not null and there are 4 bytes), or 0 when the bytes cannot be
// one: shorter than the fixed part, a string count that runs past the end,
// a record name longer than 32 characters, an unknown kind. Nothing past
// length is read.
uint32_t MediumImageLength(const unsigned char* bytes, uint32_t length, MediumKind* kind = nullptr);

// The same for a tape information image.
uint32_t TapeInfoImageLength(const unsigned char* bytes, uint32_t length);

// The same for a scene's "SEEN" image and a story board's "STRY" image: 0
// too when the take or scene count promises more IDs than the bytes hold.
uint32_t SceneImageLength(const unsigned char* bytes, uint32_t length);
uint32_t StoryImageLength(const unsigned char* bytes, uint32_t length);

// The tape ID, the create date and the four strings of a whole tape
// information image (checked with TapeInfoImageLength) into record. The
// version and the plug kind are each reader's own.
void UnpackTapeInfoRest(const unsigned char* image, LocatorRecord* record);

// A packed string into text, through a temporary handle (a failed step is
// reported "error == kNoError" and leaves text empty). Returns the bytes the
// string took. The caller has checked that the string is whole.
uint32_t UnpackCString(const unsigned char* at, CString* text);

#endif  // KAVO_LARKDB_MEDIUMIMAGE_H
