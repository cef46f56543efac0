// The set of live memory blocks, so that the memory system can tell a live
// handle or pointer from a wild, freed or made-up value without touching the
// memory it names.
//
// An open-addressing hash table (linear probing, deletion by backward shift),
// kept at most half full, so a lookup is a multiply and a probe or two. It has
// a constant-initialised state and no destructor, so it works before and
// after the static constructors and destructors of a host.
#ifndef KAVO_MEMSYS_BLOCKREGISTRY_H
#define KAVO_MEMSYS_BLOCKREGISTRY_H

#include <cstddef>
#include <cstdint>

namespace memsys {

enum class BlockKind : std::uint8_t { kNone = 0, kHandle = 1, kPointer = 2 };

class TBlockRegistry {
public:
    constexpr TBlockRegistry() = default;
    TBlockRegistry(const TBlockRegistry&) = delete;
    TBlockRegistry& operator=(const TBlockRegistry&) = delete;

    // kNone when the block is not registered. The last two blocks found are
    // remembered: calls come in runs on one handle (new, lock, unlock, size).
    BlockKind Find(const void* block) const {
        const auto key = reinterpret_cast<std::uintptr_t>(block);
        if (key != 0) {
            if (key == fRecent[0].fKey) return fRecent[0].fKind;
            if (key == fRecent[1].fKey) return fRecent[1].fKind;
        }
        return FindAndRemember(block);
    }
    // False when the table could not grow; the block is then not registered.
    bool Insert(const void* block, BlockKind kind);
    void Erase(const void* block);
    std::size_t Count() const { return fCount; }

private:
    struct Slot {
        std::uintptr_t fKey;  // 0: free
        BlockKind fKind;
    };

    std::size_t Home(std::uintptr_t key) const;
    bool Rehash(std::size_t newCapacity);
    BlockKind FindAndRemember(const void* block) const;
    void Forget(std::uintptr_t key) const {
        for (Slot& recent : fRecent) {
            if (recent.fKey == key) recent = Slot{0, BlockKind::kNone};
        }
    }

    mutable Slot fRecent[2] = {{0, BlockKind::kNone}, {0, BlockKind::kNone}};
    Slot* fSlots = nullptr;
    std::size_t fCapacity = 0;  // a power of two, or 0
    std::size_t fCount = 0;
};

}  // namespace memsys

#endif  // KAVO_MEMSYS_BLOCKREGISTRY_H
