#include "MemSys/Win32/BlockRegistry.h"

#include <cstdlib>

namespace memsys {

std::size_t TBlockRegistry::Home(std::uintptr_t key) const {
    // Fibonacci hashing spreads the aligned addresses over the table.
    const std::uint64_t mixed = static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ull;
    return static_cast<std::size_t>(mixed >> 32) & (fCapacity - 1);
}

BlockKind TBlockRegistry::FindAndRemember(const void* block) const {
    const auto key = reinterpret_cast<std::uintptr_t>(block);
    if (key == 0 || fCount == 0) return BlockKind::kNone;
    for (std::size_t i = Home(key);; i = (i + 1) & (fCapacity - 1)) {
        if (fSlots[i].fKey == key) {
            fRecent[1] = fRecent[0];
            fRecent[0] = fSlots[i];
            return fSlots[i].fKind;
        }
        if (fSlots[i].fKey == 0) return BlockKind::kNone;
    }
}

bool TBlockRegistry::Rehash(std::size_t newCapacity) {
    auto* slots = static_cast<Slot*>(std::calloc(newCapacity, sizeof(Slot)));
    if (slots == nullptr) return false;
    Slot* old = fSlots;
    const std::size_t oldCapacity = fCapacity;
    fSlots = slots;
    fCapacity = newCapacity;
    for (std::size_t i = 0; i < oldCapacity; ++i) {
        if (old[i].fKey == 0) continue;
        std::size_t j = Home(old[i].fKey);
        while (fSlots[j].fKey != 0) j = (j + 1) & (fCapacity - 1);
        fSlots[j] = old[i];
    }
    std::free(old);
    return true;
}

bool TBlockRegistry::Insert(const void* block, BlockKind kind) {
    const auto key = reinterpret_cast<std::uintptr_t>(block);
    if (key == 0) return false;
    if ((fCount + 1) * 2 > fCapacity && !Rehash(fCapacity == 0 ? 64 : fCapacity * 2)) return false;
    Forget(key);
    std::size_t i = Home(key);
    while (fSlots[i].fKey != 0 && fSlots[i].fKey != key) i = (i + 1) & (fCapacity - 1);
    if (fSlots[i].fKey == 0) ++fCount;
    fSlots[i] = Slot{key, kind};
    return true;
}

void TBlockRegistry::Erase(const void* block) {
    const auto key = reinterpret_cast<std::uintptr_t>(block);
    if (key == 0 || fCount == 0) return;
    Forget(key);
    std::size_t hole = Home(key);
    while (fSlots[hole].fKey != key) {
        if (fSlots[hole].fKey == 0) return;
        hole = (hole + 1) & (fCapacity - 1);
    }
    // Shift later members of the probe run back so that no lookup stops early.
    for (std::size_t next = (hole + 1) & (fCapacity - 1); fSlots[next].fKey != 0;
         next = (next + 1) & (fCapacity - 1)) {
        const std::size_t home = Home(fSlots[next].fKey);
        const bool homeOutsideGap = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
        if (homeOutsideGap) {
            fSlots[hole] = fSlots[next];
            hole = next;
        }
    }
    fSlots[hole] = Slot{0, BlockKind::kNone};
    --fCount;
}

}  // namespace memsys
