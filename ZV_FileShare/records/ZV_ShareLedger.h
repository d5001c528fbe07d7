// ZV_ShareLedger: a client's own record of the files its user shared and of
// the downloads its user asked for, so that a server's word alone never
// makes the client read a local file, nor write one after a restart.
//
// One row per conference and local path, with the length and last-write
// time the file had when it was shared, and one per conference and FileID
// with the full path the user downloads it to, in "fsshared.ini" beside
// "fsinfo.ini". Each change is appended to "fsshared.ini.journal" and synced,
// and the file is replaced whole now and then, as the catalogue's is (see
// docs/storage.md), so a crash loses no change that was saved. A record that can't
// be read counts as empty (logged): the user then shares again.
//
// Rows are keyed by the whole 32-bit conference number (key "Conference"),
// and a share's row keeps the device and file number of the file too. A
// share leaves the record when its user withdraws it: the user deletes the
// file, a server's delete of it arrives, or the local file is found gone.
#pragma once

#include "QB_IniJournal.h"
#include "QB_Locker.h"
#include "QB_String.h"
#include "records/ZV_FileBriefInfo.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class QB_FileEx;

// What the file system says of a shared file: it is the same file while
// device and file number are, and unchanged while length and last-write
// second are.
struct ZV_LocalFileMark
{
    uint64_t ullDevice = 0;
    uint64_t ullNumber = 0;
};

class ZV_ShareLedger
{
public:
    ZV_ShareLedger();
    // Folds the journal in, so that a clean stop leaves "fsshared.ini" current.
    ~ZV_ShareLedger();
    ZV_ShareLedger(const ZV_ShareLedger&) = delete;
    ZV_ShareLedger& operator=(const ZV_ShareLedger&) = delete;

    // Notes that the user shared the file `brief` describes, whose device
    // and file number are `mark`. The row holds for this run even when the
    // record could not be written (false, logged).
    bool Remember(uint32_t ulConfID, const ZV_FileBriefInfo& brief, const ZV_LocalFileMark& mark);
    // The same for a batch, with one save: each save syncs the whole file.
    bool Remember(uint32_t ulConfID, const QB_Array<ZV_FileBriefInfo>& arrInfo,
                  const std::vector<ZV_LocalFileMark>& vecMark);
    // Reads the record if there is one, as the first look-up would.
    void Preload();
    // Folds the journal into the file once changes have stopped for a while.
    void OnTimer();
    // Whether the user shared this very file: same path, length and
    // last-write second, in this conference.
    bool Holds(uint32_t ulConfID, const ZV_FileBriefInfo& brief);
    // Whether `file`, opened on the path of `brief`, is still the file the
    // user shared: the row holds `brief`, and the open file has the row's
    // device, file number, length and last-write second. Asked of the open
    // file, so that nothing can swap the file between the check and the read.
    bool HoldsOpenFile(uint32_t ulConfID, const ZV_FileBriefInfo& brief, QB_FileEx& file);
    // The user withdrew the share of the file `brief` names.
    bool Forget(uint32_t ulConfID, const ZV_FileBriefInfo& brief);
    // The mark of an open file; false when the file system gives none.
    static bool MarkOf(QB_FileEx& file, ZV_LocalFileMark& mark);

    // Notes that the user downloads usFileID to sTarget, a full path; the
    // last download asked for a FileID wins.
    bool RememberDownload(uint32_t ulConfID, uint16_t usFileID, const QB_StringU8& sTarget);
    // Whether the user's download of usFileID goes to sTarget.
    bool HoldsDownload(uint32_t ulConfID, uint16_t usFileID, const QB_StringU8& sTarget);
    // The user gave the download of usFileID up.
    bool ForgetDownload(uint32_t ulConfID, uint16_t usFileID);

private:
    struct Row
    {
        QB_StringW sSection;
        uint32_t ulLength = 0;
        std::string sModifyTime;
        ZV_LocalFileMark mark;
    };

    QB_Locker m_Lock;
    QB_IniJournal m_Journal;
    bool m_bLoaded = false;
    int m_nLastSection = 0;
    std::map<std::string, Row> m_mapRows;  // by conference and path
    struct Target
    {
        QB_StringW sSection;
        std::string sPath;
    };
    std::map<uint64_t, Target> m_mapTargets;  // by conference and FileID

    static std::string KeyOf(uint32_t ulConfID, const QB_StringU8& sPath);
    void Load(bool bCreate);
    void LoadRow(const QB_StringW& sSection);
    void LoadTarget(const QB_StringW& sSection);
    bool ReadConference(const QB_StringW& sSection, uint32_t& ulConfID);
    void DropOldRows(const QB_Array<QB_StringW>& arrOld);
    QB_StringW NewSection(char16_t chKind);
    bool Note(uint32_t ulConfID, const ZV_FileBriefInfo& brief, const ZV_LocalFileMark& mark);
    bool Save();
};
