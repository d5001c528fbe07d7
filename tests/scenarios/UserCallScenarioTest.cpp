// How the user side's look-up describes a file.
#include "ZV_SceneFixture.h"
#include "add/ZV_AddPdu.h"
#include "wire/ZV_PduFrame.h"

#include <cstring>
#include <string>

namespace {

std::u16string FieldText(const char16_t* szField, size_t nSize)
{
    const char16_t* pEnd = std::char_traits<char16_t>::find(szField, nSize, u'\0');
    return pEnd == nullptr ? std::u16string(szField, nSize) + u"<no NUL>" : std::u16string(szField, pEnd);
}

} // namespace

using LookupScene = ZV_Scene;

// A shared file is described as its creator shared it; an unknown one
// leaves the record alone. A server may announce texts of up to 1024 bytes,
// while the fields hold 256 and 260 units with their NUL.
TEST_F(LookupScene, DescribesAKnownFileAndCutsATextLongerThanItsFieldAtAWholeCharacterInsideIt)
{
    Build(false);
    const uint16_t usShared = Share("report.pdf", ZV_RandomBytes(4321, 31));
    ZV_FsFileInfo info;
    std::memset(&info, 0xEE, sizeof info);
    ASSERT_EQ(0u, Fs(Bob())->FsGetFileInfoByFileID(usShared, &info));
    EXPECT_EQ(Alice()->GetUserID(), QB_UserID(info.ulCreatorMain, info.ulCreatorSub));
    EXPECT_TRUE(FieldText(info.szFileOldName, 260) == u"report.pdf");
    EXPECT_TRUE(FieldText(info.szFileType, 260) == u"pdf");
    EXPECT_TRUE(FieldText(info.szFilePath, 260) == ZV_Wide(tmp.Sub("alice")) + u"\\");
    EXPECT_EQ(4321u, info.ulFileLenth);
    ZV_FsFileInfo other = info;
    EXPECT_EQ(82u, Fs(Bob())->FsGetFileInfoByFileID(999, &other));
    EXPECT_EQ(0, std::memcmp(&info, &other, sizeof other));

    const std::u16string sPair = u"\U0001F600";
    const struct { const char* szName; std::u16string sCreator; std::u16string sExpected; } aCases[] = {
        {"fills the field", std::u16string(255, u'n'), std::u16string(255, u'n')},
        {"one unit over", std::u16string(256, u'n'), std::u16string(255, u'n')},
        {"a pair across the end", std::u16string(254, u'n') + sPair, std::u16string(254, u'n')},
        {"a pair that just fits", std::u16string(253, u'n') + sPair, std::u16string(253, u'n') + sPair},
        {"far over", std::u16string(500, u'n'), std::u16string(255, u'n')},
    };
    uint16_t usFileID = 800;
    for (const auto& c : aCases)
    {
        ZV_AddResponse answer;
        answer.usRouteID = answer.usFileID = ++usFileID;
        answer.user = Alice()->GetUserID();
        answer.brief.SetCreatorID(answer.user);
        answer.brief.SetCreatorName(QB_StringU8(QB_StringW(c.sCreator.c_str())));
        answer.brief.SetFilePath(QB_StringU8("C:\\after\\"));
        answer.brief.SetPublic(true);
        ZV_PduBuffer pdu;
        answer.Save(pdu.Stream());
        SendFromServer(Bob(), PDU_CONF_FS_ADD_RESPONSE, pdu);

        std::memset(&info, 0xEE, sizeof info);
        ASSERT_EQ(0u, Fs(Bob())->FsGetFileInfoByFileID(usFileID, &info)) << c.szName;
        EXPECT_TRUE(FieldText(info.szCreatorName, 256) == c.sExpected) << c.szName;
        EXPECT_TRUE(FieldText(info.szFilePath, 260) == u"C:\\after\\") << c.szName;
    }
}
