// Where a host file image keeps its log, and how to make the checksums of a
// damaged image valid again: damage that checksums cannot see (a write that
// went to the wrong place, or was garbled before it was sealed), so that
// tests and the fuzz target reach the structure checks behind the checksums.
//
// The layout is read as engine/FileFormat.md describes it, leniently: from
// the header slot of the highest sequence number that has the magic and the
// version (whatever its checksum), through every frame whose length fits its
// extent (whatever its salt, number and checksums), following next-extent
// frames that name extents inside the image.
#ifndef KAVO_TESTS_ENGINE_RESEAL_H
#define KAVO_TESTS_ENGINE_RESEAL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "engine/Bytes.h"
#include "engine/Checksum.h"
#include "engine/Pager.h"

namespace kavotest {

struct TLogLayout {
    bool fFound = false;  // a header slot names a log
    std::uint32_t fSalt = 0;
    std::vector<engine::TLogExtent> fExtents;                 // the first, then the chained ones
    std::vector<std::pair<std::size_t, std::size_t>> fFrames;  // each frame's bytes [first, end)
};

namespace reseal {

constexpr std::size_t kFrameHead = 24;
constexpr std::size_t kFrameTail = 4;
constexpr std::size_t kNextFrame = kFrameHead + 4 + kFrameTail;

inline const std::uint8_t* ImageBytes(const std::string& image) {
    return reinterpret_cast<const std::uint8_t*>(image.data());
}

}  // namespace reseal

// The log as the image's best header and its frames lay it out. With
// strict, a frame must also be one of this log (salt, number, checksums).
inline TLogLayout FindLog(const std::string& image, bool strict = false) {
    using namespace reseal;
    TLogLayout layout;
    const std::uint8_t* bytes = ImageBytes(image);
    const std::size_t pages = image.size() / engine::kPageSize;
    std::uint64_t best = 0;
    const std::uint8_t* header = nullptr;
    for (std::size_t slot = 0; slot < 2 && slot < pages; ++slot) {
        const std::uint8_t* page = bytes + slot * engine::kPageSize;
        if (std::string(reinterpret_cast<const char*>(page), 8) != "kavoDVDB" ||
            engine::Get32(page + 8) != engine::kFormatVersion)
            continue;
        if (strict && !engine::PageSealIsValid(static_cast<std::uint32_t>(slot), page)) continue;
        const std::uint64_t sequence = engine::Get64(page + 16);
        if (header == nullptr || sequence > best) {
            header = page;
            best = sequence;
        }
    }
    if (header == nullptr) return layout;
    const engine::TLogExtent first{engine::Get32(header + 40), engine::Get32(header + 44)};
    if (first.fStart < engine::kFirstDataPage || first.fPages == 0 || first.fStart >= pages ||
        first.fPages > pages - first.fStart)
        return layout;
    layout.fFound = true;
    layout.fSalt = engine::Get32(header + 48);
    layout.fExtents.push_back(first);
    std::size_t at = std::size_t{first.fStart} * engine::kPageSize;
    std::size_t limit = std::size_t{first.End()} * engine::kPageSize - kNextFrame;
    for (std::uint32_t number = 0;; ++number) {
        if (at + kFrameHead > limit + kNextFrame) break;
        const std::uint8_t* head = bytes + at;
        const std::uint32_t length = engine::Get32(head + 8);
        const std::uint8_t kind = head[12];
        const std::uint64_t allowed = kind == 4 ? limit + kNextFrame : limit;
        if (std::uint64_t{at} + kFrameHead + length + kFrameTail > allowed) break;
        if (strict) {
            if (engine::Get32(head) != layout.fSalt || engine::Get32(head + 4) != number ||
                engine::Get32(head + 20) != engine::Crc32c(0, head, 20) ||
                engine::Get32(head + kFrameHead + length) !=
                    engine::Crc32c(engine::Get32(head + 20), head + kFrameHead, length))
                break;
        }
        layout.fFrames.emplace_back(at, at + kFrameHead + length + kFrameTail);
        if (kind != 4) {
            at += kFrameHead + length + kFrameTail;
            continue;
        }
        if (length != 4) break;
        const engine::TLogExtent next{engine::Get32(head + 16), engine::Get32(head + kFrameHead)};
        if (next.fStart < engine::kFirstDataPage || next.fPages == 0 || next.fStart >= pages ||
            next.fPages > pages - next.fStart)
            break;
        bool overlaps = false;
        for (const engine::TLogExtent& other : layout.fExtents)
            overlaps = overlaps || (next.fStart < other.End() && other.fStart < next.End());
        if (overlaps) break;
        layout.fExtents.push_back(next);
        at = std::size_t{next.fStart} * engine::kPageSize;
        limit = std::size_t{next.End()} * engine::kPageSize - kNextFrame;
    }
    return layout;
}

inline bool InLog(const TLogLayout& layout, std::size_t page) {
    for (const engine::TLogExtent& extent : layout.fExtents) {
        if (page >= extent.fStart && page < extent.End()) return true;
    }
    return false;
}

// Every whole page that is not the log's.
inline void ResealPages(std::string* image) {
    const TLogLayout layout = FindLog(*image);
    auto* bytes = reinterpret_cast<std::uint8_t*>(&(*image)[0]);
    for (std::size_t page = 0; (page + 1) * engine::kPageSize <= image->size(); ++page) {
        if (!InLog(layout, page))
            engine::SealPage(static_cast<std::uint32_t>(page), bytes + page * engine::kPageSize);
    }
}

// Every frame the log reaches made one of this log: its salt, its number
// and both checksums.
inline void ResealLog(std::string* image) {
    const TLogLayout layout = FindLog(*image);
    auto* bytes = reinterpret_cast<std::uint8_t*>(&(*image)[0]);
    std::uint32_t number = 0;
    for (const auto& [first, end] : layout.fFrames) {
        std::uint8_t* head = bytes + first;
        const std::uint32_t length = static_cast<std::uint32_t>(end - first - reseal::kFrameHead - reseal::kFrameTail);
        engine::Put32(head, layout.fSalt);
        engine::Put32(head + 4, number++);
        engine::Put32(head + 8, length);
        engine::Put32(head + 20, engine::Crc32c(0, head, 20));
        engine::Put32(head + reseal::kFrameHead + length,
                      engine::Crc32c(engine::Get32(head + 20), head + reseal::kFrameHead, length));
    }
}

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_RESEAL_H
