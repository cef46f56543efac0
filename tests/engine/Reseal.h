// Makes the checksums of a damaged host file's pages, and of a damaged log's
// frames, valid again: damage that checksums cannot see (a write that went
// to the wrong place, or was garbled before it was sealed), so that tests
// and the fuzz target reach the structure checks behind the checksums.
#ifndef KAVO_TESTS_ENGINE_RESEAL_H
#define KAVO_TESTS_ENGINE_RESEAL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/Bytes.h"
#include "engine/Checksum.h"
#include "engine/Pager.h"

namespace kavotest {

// Every whole page.
inline void ResealPages(std::string* host) {
    auto* bytes = reinterpret_cast<std::uint8_t*>(&(*host)[0]);
    for (std::size_t page = 0; (page + 1) * engine::kPageSize <= host->size(); ++page)
        engine::SealPage(static_cast<std::uint32_t>(page), bytes + page * engine::kPageSize);
}

// The log's header, then each whole frame, chained as the engine chains
// them (a 16-byte head: payload length, kind, member, aux; the payload; a
// checksum chained to the one before). A payload of one page is taken for a
// page image, numbered by the aux word, and sealed first.
inline void ResealLog(std::string* log) {
    constexpr std::size_t kHeader = 32;
    constexpr std::size_t kHead = 16;
    if (log->size() < kHeader) return;
    auto* bytes = reinterpret_cast<std::uint8_t*>(&(*log)[0]);
    engine::Put32(bytes + 28, engine::Crc32c(0, bytes, 28));
    std::uint32_t chain = engine::Get32(bytes + 28) ^ engine::Get32(bytes + 16);
    for (std::size_t at = kHeader; at + kHead + 4 <= log->size();) {
        std::uint8_t* frame = bytes + at;
        const std::uint32_t length = engine::Get32(frame);
        if (length > log->size() - at - kHead - 4) return;
        if (length == engine::kPageSize) engine::SealPage(engine::Get32(frame + 8), frame + kHead);
        chain = engine::Crc32c(chain, frame, kHead + length);
        engine::Put32(frame + kHead + length, chain);
        at += kHead + length + 4;
    }
}

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_RESEAL_H
