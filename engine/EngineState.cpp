#include "engine/EngineState.h"

#include "engine/Engine.h"

namespace engine {
TErrorState gErrorState = {0, 0, 0};
}

std::int16_t EngineError() { return engine::gErrorState.fError; }
std::int16_t EngineErrorFile() { return engine::gErrorState.fFile; }
std::int16_t EngineLowError() { return engine::gErrorState.fLow; }
const std::int16_t* EngineErrorWord() { return &engine::gErrorState.fError; }
