// ZV_FileCatalog: the server's durable list of the files it stores, one
// section of "fsinfo.ini" (beside the executable) per stored file.
//
// It remembers what lies on disk across restarts; it is not the live list
// that requests are served from. A row is found by its conference and file
// number; the section's name is a fresh GUID and means nothing else.
//
// Every operation holds m_Lock from its first lookup to the end of its
// Flush, and every change ends in a Flush, so the file and its journal
// ("fsinfo.ini.journal", see docs/storage.md) always show the last
// operation that was saved whole (a read-only file or a failed save keeps
// the changes in memory and the earlier catalogue on disk).
#pragma once

#include "QB_Array.h"
#include "QB_IniJournal.h"
#include "QB_Locker.h"
#include "QB_String.h"
#include "records/ZV_FileUploadInfo.h"

#include <cstdint>
#include <unordered_map>

// Results of ZV_FileCatalog::Open.
enum : int
{
    zvCatalogOpened = 0,
    zvCatalogNotOpened = 1,
    zvCatalogException = 97,
};

class ZV_FileCatalog
{
public:
    ZV_FileCatalog();
    // Folds the journal in, so that a clean stop leaves "fsinfo.ini" current.
    virtual ~ZV_FileCatalog();
    ZV_FileCatalog(const ZV_FileCatalog&) = delete;
    ZV_FileCatalog& operator=(const ZV_FileCatalog&) = delete;

    // Loads "fsinfo.ini" from the executable's folder, creating it as UTF-16
    // when missing. One of the results above.
    int Open();
    // Folds the journal into "fsinfo.ini" once changes have stopped for a while.
    void OnTimer();
    // Folder under which each conference's files lie; a missing trailing
    // backslash is added.
    void SetRootPath(const QB_StringA& sRootPath);

    // The changing operations give false, and log, when the file on disk
    // could not be replaced; it then still holds the catalogue before them.

    // Writes the record into the row of its pair, or a new row.
    bool SaveFile(uint32_t ulConfID, const ZV_FileUploadInfo& fileInfo);
    // One Flush for the whole batch. arrSection[i] names the section of
    // arrFileInfo[i] as LoadFile gave it, or is empty for a new row; a named
    // section is written as it is, without a lookup by its pair.
    bool SaveFiles(uint32_t ulConfID, const QB_Array<ZV_FileUploadInfo>& arrFileInfo,
                   const QB_Array<QB_StringW>& arrSection);
    // Fills fileInfo from the row of the pair; the creator's name, the rights
    // and the public flag stay as the caller had them. False, and nothing
    // changed, when there is no such row.
    bool LoadFile(uint16_t usConfID, uint16_t usFileID, ZV_FileUploadInfo& fileInfo, QB_StringW& sSection);
    // Whether the pair has a row.
    bool HasFile(uint16_t usConfID, uint16_t usFileID);
    // Drops the row; the stored file is the caller's to delete.
    bool DeleteFile(uint16_t usConfID, uint16_t usFileID);
    // Drops every row of the conference and deletes their stored files.
    bool DeleteConf(uint32_t ulConfID);

    // Rows that also keep who may have the file (the public flag, the list
    // of users and the creator's name), for a server that takes its rows
    // back as live files when it starts: without them every file it shows
    // again would be its creator's alone. Off unless the server asks for it,
    // so that a catalogue keeps its usual keys.
    void SetKeepRights(bool bKeep) { m_bKeepRights = bKeep; }
    bool KeepsRights() const { return m_bKeepRights; }
    // Every row of the conference with its section, in the order of a walk
    // of the sections, the kept rights included.
    void LoadConf(uint16_t usConfID, QB_Array<ZV_FileUploadInfo>& arrFileInfo, QB_Array<QB_StringW>& arrSection);

    // A stored name that stays inside its conference's folder.
    static bool IsPlainFileName(const QB_StringA& sName);

protected:
    QB_StringA m_sRootPath;
    QB_IniJournal m_Journal;
    QB_Locker m_Lock;

private:
    // Rows by their pair, so that a save does not read every row first.
    // A row's pair never changes once written, so only a delete or a new
    // file can make the index stale; then it is built again on demand, in
    // the order a walk of the sections takes, the first row of a pair
    // winning as it would in the walk.
    mutable std::unordered_map<uint32_t, QB_StringW> m_mapRowByPair;
    mutable bool m_bRowIndexValid = false;
    bool m_bOpened = false;
    bool m_bKeepRights = false;
    bool m_bUnread = false;  // the last Open could not read the file

    static uint32_t PairKey(uint16_t usConfID, uint16_t usFileID) { return (uint32_t)usConfID << 16 | usFileID; }
    bool Flush();
    void BuildRowIndex() const;
    QB_StringW FindSection(uint16_t usConfID, uint16_t usFileID) const;
    QB_StringW NewSection(uint32_t ulConfID, uint16_t usFileID);
    void WriteRow(const QB_StringW& sSection, const ZV_FileUploadInfo& fileInfo);
    void ReadBrief(const QB_StringW& sSection, ZV_FileBriefInfo& briefInfo) const;
    void WriteRights(const QB_StringW& sSection, const ZV_FileBriefInfo& briefInfo);
    void ReadRights(const QB_StringW& sSection, ZV_FileBriefInfo& briefInfo) const;
    void DeleteStoredFile(const QB_StringA& sFolder, const QB_StringA& sName) const;
    void SetText(const QB_StringW& sSection, const char16_t* pszKey, const QB_StringU8& sValue);
    QB_StringU8 GetText(const QB_StringW& sSection, const char16_t* pszKey) const;
    QB_DateTimeEx GetDateTime(const QB_StringW& sSection, const char16_t* pszKey) const;
    uint16_t GetLow16(const QB_StringW& sSection, const char16_t* pszKey) const;
};
