// kavoDVDB - the classes that the library exports to C++ hosts.
//
// Hosts put include/ and the source root on their include path. The flat C
// interface, with the result codes and the types these classes use, is in
// kavoDVDB.h.
#ifndef KAVODVDB_CLASSES_H
#define KAVODVDB_CLASSES_H

#include "LarkDB/CString.h"
#include "LarkDB/TAnalogMedium.h"
#include "LarkDB/TMooVMedium.h"
#include "LarkDB/TPictureMedium.h"
#include "LarkDB/TStoryBoard.h"
#include "LarkDB/Tmedium.h"
#include "LarkDB/Tscene.h"
#include "Rm/Common/Source/Crezmgr.h"
#include "kavoDVDB.h"

#endif  // KAVODVDB_CLASSES_H
