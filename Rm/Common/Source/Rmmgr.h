// The record manager's flat functions (the RM family, declared in
// kavoDVDB.h) work on the one global manager, gRezManager, which
// InitRMRezManager makes and KillRMRezManager destroys. Every RM function
// reports "gRezManager != 0" and answers kGeneralError while there is none.
//
// The module also keeps one text per database, the about-file text: an
// ordinary record ("BOUT", "About Media File", ID 1) whose data is the text
// with its terminating NUL.
#ifndef KAVO_RM_RMMGR_H
#define KAVO_RM_RMMGR_H

#include <cstdint>

#include "Rm/Common/Source/Crezmgr.h"

extern CRezManager* gRezManager;

constexpr char kAboutType[] = "BOUT";
constexpr char kAboutName[] = "About Media File";
constexpr std::int32_t kAboutID = 1;

#endif  // KAVO_RM_RMMGR_H
