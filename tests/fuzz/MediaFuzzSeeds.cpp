// Writes the seed corpus of the media fuzz target into a directory: the
// images of media of every kind (plain, movie, picture, clip from tape) with
// short, long and empty texts, packed by their classes; tape headers written
// by TapeSaveInfo and read back from the database; and a few of each cut
// short or with a count that runs past the end. Each is written for every
// way the target reads it.
//
//   media_fuzz_seeds DIRECTORY
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LarkDB/TAnalogMedium.h"
#include "LarkDB/TMooVMedium.h"
#include "LarkDB/TPictureMedium.h"
#include "LarkDB/Tmedium.h"
#include "tests/fuzz/MediaFuzzDatabase.h"

namespace {

using kavofuzz::Bytes;
using kavofuzz::TMediaFuzzInput;

struct TTexts {
    const char* fLabel;
    std::string fName;  // at most 31 characters
    std::string fTitle;
    std::string fDescription;
    std::string fAuthor;
};

const TTexts kMediumTexts[] = {
    {"short", "A", "A", "", ""},
    {"empty", "", "", "", ""},
    {"long", std::string(31, 'n'), std::string(300, 't'), std::string(2000, 'd'), std::string(500, 'a')},
};

struct TTapeTexts {
    const char* fLabel;
    std::string fName;
    std::string fDescription;
    std::string fEnteredBy;
    std::string fShooter;
};

const TTapeTexts kTapeTexts[] = {
    {"short", "Tape 1", "", "", ""},
    {"empty", "", "", "", ""},
    {"long", std::string(255, 'n'), std::string(2000, 'd'), std::string(40, 'e'), std::string(300, 's')},
};

std::unique_ptr<TMedium> MakeMedium(int kind, const char* name) {
    switch (kind) {
        case 0:
            return std::make_unique<TMedium>(name, 0);
        case 1:
            return std::make_unique<TMooVMedium>(name, 0);
        case 2:
            return std::make_unique<TPictureMedium>(name, 0);
        default: {
            auto clip = std::make_unique<TAnalogMedium>(name, 0);
            PlugKind plug;
            std::memcpy(plug.code, kTapeRecordType, 4);
            clip->ChangePlugType(&plug);
            return clip;
        }
    }
}

const char* const kKindLabels[] = {"plain", "movie", "picture", "analog"};

Bytes PackedImage(TMedium* medium) {
    MSHandle stream = nullptr;
    if (MSNewHandle(&stream, 0) != kNoError) return {};
    std::uint32_t length = 0;
    stream = medium->PackGuts(stream, length);
    if (stream == nullptr) return {};
    Bytes bytes = kavofuzz::HandleBytes(stream);
    MSDisposeHandle(stream);
    return bytes;
}

// A medium of the kind with the texts, and fields that are not zero, so
// that every part of the image carries something.
Bytes MediumImage(int kind, const TTexts& texts) {
    std::unique_ptr<TMedium> medium = MakeMedium(kind, texts.fName.c_str());
    medium->ChangeRezID(4711);
    medium->ChangeCreator(0x4B41564F);
    medium->ChangeTitle(texts.fTitle.c_str());
    medium->ChangeDescription(texts.fDescription.c_str());
    const CString author(texts.fAuthor.c_str());
    medium->ChangeAuthor(&author);
    DateTimeRecord date{2001, 2, 3, 4, 5, 6};
    medium->ChangeCreateDate(&date);
    TimeCodeRecord timeCode{0, 1, 2, 3};
    medium->ChangeTrimStart(&timeCode);
    medium->ChangeClipEnd(&timeCode);
    return PackedImage(medium.get());
}

// The tape header that TapeSaveInfo writes, as the database holds it.
Bytes TapeHeader(std::int16_t refNum, const TTapeTexts& texts) {
    PlugKind plug;
    std::memcpy(plug.code, kTapeRecordType, 4);
    if (TapeSaveInfo(refNum, texts.fName.c_str(), 0x0000BEEF, 0x5A5A0001, texts.fDescription.c_str(),
                     texts.fEnteredBy.c_str(), texts.fShooter.c_str(), &plug) != kNoError)
        return {};
    Bytes bytes = kavofuzz::RecordBytes(refNum, kTapeRecordType, kTapeHeaderName);
    RMRemoveNamedRecord(refNum, kTapeHeaderName, kTapeRecordType);
    return bytes;
}

void SetLong(Bytes* bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) (*bytes)[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

// The image and its damaged forms: cut short at a few places, and with the
// string count at stringAt raised past the end.
std::vector<std::pair<std::string, Bytes>> WithDamage(const std::string& label, const Bytes& image,
                                                      std::size_t stringAt) {
    std::vector<std::pair<std::string, Bytes>> forms{{label, image}};
    for (std::size_t cut : {image.size() - 1, image.size() / 2, std::size_t{20}, std::size_t{3}}) {
        if (cut < image.size())
            forms.emplace_back(label + "-cut" + std::to_string(cut),
                               Bytes(image.begin(), image.begin() + cut));
    }
    if (stringAt + 4 <= image.size()) {
        Bytes overrun = image;
        SetLong(&overrun, stringAt, static_cast<std::uint32_t>(image.size()));
        forms.emplace_back(label + "-count-past-end", overrun);
    }
    return forms;
}

bool Write(const std::string& directory, const std::string& name, std::uint8_t flags, const Bytes& bytes) {
    TMediaFuzzInput input;
    input.fFlags = flags;
    input.fBytes = bytes;
    const std::string encoded = kavofuzz::EncodeMediaFuzzInput(input);
    std::ofstream out(directory + "/" + name, std::ios::binary);
    return static_cast<bool>(out.write(encoded.data(), static_cast<std::streamsize>(encoded.size())));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: media_fuzz_seeds DIRECTORY\n");
        return 2;
    }
    const std::string directory = argv[1];
    const std::int16_t refNum = kavofuzz::MediaFuzzDatabase();
    if (refNum == 0) {
        std::fprintf(stderr, "media_fuzz_seeds: the database could not be made\n");
        return 1;
    }
    bool written = true;
    int count = 0;
    auto write = [&](const std::string& name, std::uint8_t flags, const Bytes& bytes) {
        written = Write(directory, name, flags, bytes) && written;
        ++count;
    };

    // The record name's count follows the kind and four numbers.
    constexpr std::size_t kMediumNameCount = 20;
    for (int kind = 0; kind < 4; ++kind) {
        for (const TTexts& texts : kMediumTexts) {
            const std::string label = std::string("medium-") + kKindLabels[kind] + "-" + texts.fLabel;
            for (const auto& [name, bytes] : WithDamage(label, MediumImage(kind, texts), kMediumNameCount)) {
                write(name, 0, bytes);
                write(name + "-loaded", kavofuzz::kMediaThroughDatabase, bytes);
            }
        }
    }
    Bytes unknown = MediumImage(0, kMediumTexts[0]);
    std::memcpy(unknown.data(), "xMED", 4);
    write("medium-unknown-kind", 0, unknown);

    // The tape name's count follows four numbers.
    constexpr std::size_t kTapeNameCount = 16;
    for (const TTapeTexts& texts : kTapeTexts) {
        const Bytes header = TapeHeader(refNum, texts);
        if (header.empty()) {
            std::fprintf(stderr, "media_fuzz_seeds: TapeSaveInfo failed\n");
            return 1;
        }
        for (const auto& [name, bytes] :
             WithDamage(std::string("tape-") + texts.fLabel, header, kTapeNameCount)) {
            write(name, kavofuzz::kMediaTapeInfo, bytes);
            write(name + "-clip", kavofuzz::kMediaTapeInfo | kavofuzz::kMediaThroughDatabase, bytes);
            write(name + "-changed", kavofuzz::kMediaTapeInfo | kavofuzz::kMediaChangeTape, bytes);
        }
    }
    if (!written) {
        std::fprintf(stderr, "media_fuzz_seeds: could not write into %s\n", directory.c_str());
        return 1;
    }
    std::printf("%d seeds in %s\n", count, directory.c_str());
    return 0;
}
