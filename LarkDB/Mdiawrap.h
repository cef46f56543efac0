// The flat interface of media and of the tape header (declared in
// kavoDVDB.h), and the medium factory that turns a packed "MDUM" record into
// an object of the right class, for the loads here and for scenes.
#ifndef KAVO_LARKDB_MDIAWRAP_H
#define KAVO_LARKDB_MDIAWRAP_H

#include "LarkDB/Tmedium.h"
#include "kavoDVDB.h"

// A new medium of the class its kind names ("pMED", "aMED", "mMED", "?MED"),
// unpacked from the image in packedData, or null: for a null handle
// ("packedData != 0"), an unknown kind ("false"), or an image that is cut
// short or whose counts run past its end (no report: the bytes came from a
// file). The whole image is checked before any field is read. The handle is
// left locked; the caller disposes of it.
TMedium* MediumFromPackedData(MSHandle packedData);

#endif  // KAVO_LARKDB_MDIAWRAP_H
