// An index from keys to record-map slots, kept beside the slot table: open
// addressing with linear probing over one flat array, several slots per key
// allowed. Lookups and changes cost a hash and a probe or two and allocate
// nothing until the array has to grow.
#ifndef KAVO_RM_SLOTINDEX_H
#define KAVO_RM_SLOTINDEX_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

// Keys are plain bytes (copied, compared and hashed as such).
template <typename TKey>
class TSlotIndex {
public:
    // False when the array could not grow; the index is then unchanged.
    bool Insert(const TKey& key, std::uint16_t slot) {
        if ((fCount + 1) * 2 > fEntries.size() && !Grow()) return false;
        std::size_t i = Home(key);
        while (fEntries[i].fUsed) i = (i + 1) & fMask;
        fEntries[i] = TEntry{key, slot, true};
        ++fCount;
        return true;
    }

    void Erase(const TKey& key, std::uint16_t slot) {
        if (fCount == 0) return;
        std::size_t hole = Home(key);
        for (;; hole = (hole + 1) & fMask) {
            if (!fEntries[hole].fUsed) return;
            if (fEntries[hole].fSlot == slot && Same(fEntries[hole].fKey, key)) break;
        }
        // Later members of the probe run move back, so that no lookup stops early.
        for (std::size_t next = (hole + 1) & fMask; fEntries[next].fUsed; next = (next + 1) & fMask) {
            const std::size_t home = Home(fEntries[next].fKey);
            const bool movable = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
            if (movable) {
                fEntries[hole] = fEntries[next];
                hole = next;
            }
        }
        fEntries[hole].fUsed = false;
        --fCount;
    }

    // The lowest slot filed under the key.
    bool Lowest(const TKey& key, std::uint16_t* slot) const {
        if (fCount == 0) return false;
        bool found = false;
        for (std::size_t i = Home(key); fEntries[i].fUsed; i = (i + 1) & fMask) {
            if (Same(fEntries[i].fKey, key) && (!found || fEntries[i].fSlot < *slot)) {
                *slot = fEntries[i].fSlot;
                found = true;
            }
        }
        return found;
    }

private:
    struct TEntry {
        TKey fKey;
        std::uint16_t fSlot;
        bool fUsed;
    };

    static bool Same(const TKey& a, const TKey& b) { return std::memcmp(&a, &b, sizeof(TKey)) == 0; }

    std::size_t Home(const TKey& key) const {
        // Eight bytes at a time, each word folded in with a multiply.
        const auto* bytes = reinterpret_cast<const unsigned char*>(&key);
        std::uint64_t hash = 0x9E3779B97F4A7C15ull;
        std::size_t i = 0;
        for (; i + 8 <= sizeof(TKey); i += 8) {
            std::uint64_t word;
            std::memcpy(&word, bytes + i, 8);
            hash = (hash ^ word) * 0xBF58476D1CE4E5B9ull;
        }
        for (; i < sizeof(TKey); ++i) hash = (hash ^ bytes[i]) * 0x94D049BB133111EBull;
        hash ^= hash >> 31;
        return static_cast<std::size_t>(hash) & fMask;
    }

    bool Grow() {
        std::vector<TEntry> old;
        old.swap(fEntries);
        try {
            fEntries.assign(old.empty() ? 256 : old.size() * 2, TEntry{TKey{}, 0, false});
        } catch (...) {
            fEntries.swap(old);
            return false;
        }
        fMask = fEntries.size() - 1;
        for (const TEntry& entry : old) {
            if (!entry.fUsed) continue;
            std::size_t i = Home(entry.fKey);
            while (fEntries[i].fUsed) i = (i + 1) & fMask;
            fEntries[i] = entry;
        }
        return true;
    }

    std::vector<TEntry> fEntries;
    std::size_t fMask = 0;
    std::size_t fCount = 0;
};

#endif  // KAVO_RM_SLOTINDEX_H
