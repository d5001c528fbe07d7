#include "records/ZV_SharePath.h"

namespace {

// The text the catalogue would read back is the text it was given.
bool SurvivesCodePage(const QB_StringW& s)
{
    return QB_StringW(QB_StringA(s)) == s;
}

} // namespace

ZV_SharePathProblem ZV_CheckSharePath(const QB_StringW& sFullPath, bool bFolderThroughAnsi)
{
    if (sFullPath.IsEmpty() || sFullPath.GetLength() > ZV_MAX_SHARE_PATH)
        return ZV_SharePathProblem::TooLong;
    const QB_StringW sName = sFullPath.Mid(sFullPath.ReverseFind(u'\\') + 1);
    if (sName.IsEmpty())
        return ZV_SharePathProblem::EmptyName;
    if (!SurvivesCodePage(bFolderThroughAnsi ? sFullPath : sName))
        return ZV_SharePathProblem::NotInCodePage;
    return ZV_SharePathProblem::None;
}

ZV_SharePathProblem ZV_CheckBatchName(const QB_StringW& sName)
{
    if (sName.IsEmpty())
        return ZV_SharePathProblem::EmptyName;
    if (sName.Find(u'\\') >= 0 || sName.Find(u'/') >= 0)
        return ZV_SharePathProblem::SeparatorInName;
    return ZV_SharePathProblem::None;
}
