#include "LarkDB/RecordReplace.h"

#include "Common/Kavoassert.h"
#include "Rm/Common/Source/Rmmgr.h"

int16_t ReplaceRecord(int16_t refNum, const char* type, const char* name, int32_t id, MSHandle data,
                      std::initializer_list<int16_t> absent) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    // Without a group (none can be had while another is open) the two
    // steps are made as they are.
    const bool grouped = gRezManager->BeginAtomicChange() == kNoError;
    int16_t error = gRezManager->RemoveNamedRecord(refNum, name, type);
    bool removed = error == kNoError;
    for (int16_t code : absent) removed = removed || error == code;
    if (removed) error = gRezManager->AddNewRecord(refNum, type, name, id, data);
    if (error != kNoError) {
        if (grouped) gRezManager->EndAtomicChange(false);  // the old record is back
        return error;
    }
    if (grouped && (error = gRezManager->EndAtomicChange(true)) != kNoError) {
        // Undone in the file: the handle goes back to the caller.
        const int16_t detached = gRezManager->DetachRecord(data);
        KAVO_ASSERT(detached == kNoError);
        return error;
    }
    return kNoError;
}
