// ZV_UserView: what one user side of a random conference was told, built
// from its events, and checked as each event and block comes:
// - an event about a file goes only to a user who may have it then, by the
//   client's record: who may see it for the news of a file (3000, 3003,
//   3013, an upload's progress, state and errors, a stop's answer), whom
//   the rights name for a download's (3002, 3007, 3009); a file leaves
//   (3004, 3005) only a view that held it; refusals are not news of a file;
// - a block (8013) reaches a client only for a file its user's rights name.
// Announcements and lists go to every client; what a client makes of them
// for its user counts.
#pragma once

#include "ZV_SimHost.h"
#include "ZV_SimJournal.h"

#include "records/ZV_FileBriefInfo.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

inline std::string Narrow(const QB_StringU8& s)
{
    return std::string(s.GetString(), (size_t)s.GetLength());
}

struct ZV_ToldFile
{
    std::string sName;
    uint32_t ulLength = 0;
    uint16_t usState = 0;
    uint16_t usByEvent = 0;  // the event that told the state last
    std::string sHistory;    // the events that made this, for a problem's line
};

class ZV_UserView
{
public:
    using ProblemFn = std::function<void(const std::string&)>;

    // Listens to the client's events and PDUs from now on; the journal
    // names each block the client is given.
    ZV_UserView(ZV_SimHost* lpClient, const ZV_SimJournal& journal, std::string sUser, ProblemFn fnProblem);

    // A user side that starts afresh with its client knows nothing.
    void Forget() { m_mapFiles.clear(); }
    const std::map<uint16_t, ZV_ToldFile>& Files() const { return m_mapFiles; }

private:
    void OnEvent(uint16_t usEvent, const std::vector<uint8_t>& vbData);
    void OnPdu(uint16_t usPdu);
    // Whether the event's description, or else the client's record, lets the
    // user see the file (or have it, bRight); if not, a problem is noted.
    bool MayHave(uint16_t usFileID, bool bRight, const std::string& sWhat, const ZV_FileBriefInfo* lpBrief = nullptr);
    // The news of a file the user may see: the view takes its description.
    void Show(uint16_t usFileID, const ZV_FileBriefInfo& brief, const std::string& sWhat);
    // The state told by the event being taken, and the description if it brings one.
    void Learn(uint16_t usFileID, uint16_t usState, const ZV_FileBriefInfo* lpBrief = nullptr);

    ZV_SimHost* m_lpClient;
    const ZV_SimJournal& m_journal;
    std::string m_sUser;
    ProblemFn m_fnProblem;
    std::map<uint16_t, ZV_ToldFile> m_mapFiles;
    uint16_t m_usEvent = 0;  // the one being taken
};
