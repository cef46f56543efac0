// TAnalogMedium: a clip captured from tape. It records the plug (connector)
// kind it was captured through and a locator: the tape information, which
// is the database's tape header ("DVC " "DVC Header Info"), or failing that a
// "DVC " record of the clip's own name.
//
// Kept as the contract has them: the constructor replaces the flags with the
// bit that forbids proxies; LocatorUnpack reads the plug kind from the
// image's first four bytes (the version, as a number in the machine's
// order), not from where it was written; SaveAllToDB tests the locator's
// dirty bit after the base save has cleared the word, so it never writes the
// "WHER" record.
//
// Image: the TMedium image, then fAnalogVersion (32-bit) and fPlugType (the
// 4 characters). Unpacking subtracts 32 from the dirty word once more.
#ifndef KAVO_LARKDB_TANALOGMEDIUM_H
#define KAVO_LARKDB_TANALOGMEDIUM_H

#include "LarkDB/Tmedium.h"

// The unpacked tape information.
struct LocatorRecord {
    uint32_t fVersion;
    PlugKind fPlugType;
    unsigned char fTapeID[4];
    uint32_t fCreateDate;
    CString fTapeName;
    CString fDescription;
    CString fShooter;
    CString fEnteredBy;
};

// Records of the tape information.
constexpr const char kTapeRecordType[] = "DVC ";
constexpr const char kTapeHeaderName[] = "DVC Header Info";
constexpr int32_t kTapeHeaderID = 1;
constexpr const char kLocatorRecordType[] = "WHER";
// The dirty bit of the locator record (nothing in these classes sets it).
constexpr uint32_t kDirtyLocator = 0x01000000;

class KAVO_CLASS_API TAnalogMedium : public TMedium {
public:
    TAnalogMedium(const char* name, uint32_t flags);
    TAnalogMedium(const TAnalogMedium& other);
    TAnalogMedium& operator=(const TAnalogMedium& other);

    ~TAnalogMedium() override;
    int16_t GetSample(TimeCodeRecord* timeCode, void** sample) override;
    int16_t GetNextSample(TimeCodeRecord* timeCode, void** sample) override;
    int16_t GetDuration(TimeCodeRecord* timeCode) override;
    int16_t GetFrameRate(float* rate) override;
    int16_t FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) override;
    MSHandle PackGuts(MSHandle stream, uint32_t& length) override;
    uint32_t UnpackGuts(const unsigned char* buffer) override;
    int16_t SaveAllToDB(int16_t refNum) override;
    int16_t CopyToNewDatabase(int16_t fromRefNum, int16_t toRefNum, int32_t* newRezID, char* newRezName) override;
    int16_t RemoveAllFromDB(int16_t refNum) override;
    int16_t Edit() override;
    int16_t Play() override;
    // Two more virtual operations, after Play.
    virtual int32_t HasLocatorLoaded();
    // Reads the tape information of the current database once (the header,
    // else the clip's own "DVC " record); the second read's code when both
    // fail.
    virtual int16_t LoadLocator();

    void GetPlugType(PlugKind* plugType) const;
    int16_t ChangePlugType(const PlugKind* plugType);

    // Loads the locator and unpacks it; the code of LoadLocator when there
    // is none, or kGeneralError when it is damaged.
    int16_t LocatorUnpack(LocatorRecord* record);
    // The text and its NUL into buffer (size it with the size function).
    int16_t LocatorGetTapeName(char* buffer);
    int16_t LocatorGetDescription(char* buffer);
    int16_t LocatorGetShooter(char* buffer);
    int16_t LocatorGetEnteredBy(char* buffer);
    // The length + 1, or 0 when there is no tape information.
    int32_t LocatorTapeNameSize();
    int32_t LocatorDescriptionSize();
    int32_t LocatorShooterSize();
    int32_t LocatorEnteredBySize();
    int16_t LocatorGetTapeID(uint32_t* tapeID);
    int16_t LocatorGetPlugType(PlugKind* plugType);
    int16_t LocatorGetCreateDate(uint32_t* createDate);

protected:
    uint32_t fAnalogVersion;
    PlugKind fPlugType;
    MSHandle fLocator;

private:
    int16_t LocatorText(const CString LocatorRecord::*field, char* buffer);
    int32_t LocatorTextSize(const CString LocatorRecord::*field);
};

#endif  // KAVO_LARKDB_TANALOGMEDIUM_H
