// The engine's process-wide error state, shared by its modules.
#ifndef KAVO_ENGINE_ENGINESTATE_H
#define KAVO_ENGINE_ENGINESTATE_H

#include <cstdint>

namespace engine {

struct TErrorState {
    std::int16_t fError;  // operation error
    std::int16_t fFile;   // file number it concerns
    std::int16_t fLow;    // low-level error
};

extern TErrorState gErrorState;

// Every operation starts by clearing the operation error.
inline void ClearError() {
    gErrorState.fError = 0;
    gErrorState.fFile = 0;
}

// Records a failure and returns it.
inline std::int16_t Fail(std::int16_t error, std::int16_t fileNumber) {
    gErrorState.fError = error;
    gErrorState.fFile = fileNumber;
    return error;
}

inline void SetLowError(std::int16_t low) { gErrorState.fLow = low; }

}  // namespace engine

#endif  // KAVO_ENGINE_ENGINESTATE_H
