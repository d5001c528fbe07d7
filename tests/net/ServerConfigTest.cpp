// roomcrate-server's configuration: each wrong or missing setting refused
// with the file, the line and the reason, and nothing taken half-read.
#include "ZV_ServerConfig.h"

#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

const std::string kServer = "[server]\nnumber = 1\nport = 0\nhome = \"h\"\n";
const std::string kConference = "\n[[conference]]\nid = 100\nfile_ids = [1, 1000]\n";
const std::string kAlice = "\n[[conference.user]]\nnumber = 10001\nname = \"alice\"\n";
const std::string kPeer = "\n[[peer]]\nnumber = 2\naddress = \"127.0.0.1\"\nport = 7000\n";

}  // namespace

TEST(ServerConfig, RefusesEachWrongOrMissingSettingWithItsLineAndGivesEachConferenceOfASoundOneAFolder)
{
    QB_TempFolder tmp;
    const std::string sPath = tmp.Path() + "/server.toml";
    const struct { const char* szCase; std::string sText, sError; } aRows[] = {  // sError "" for a sound file
        {"a sound file", kServer + kConference + kAlice + "\n[[conference]]\nid = 200\nfile_ids = [1, 5]\n", ""},
        {"no number", "[server]\nport = 0\nhome = \"h\"\n" + kConference, ":1: [server]: \"number\" is missing"},
        {"a port past 65535", "[server]\nnumber = 1\nport = 70000\nhome = \"h\"\n" + kConference,
         ":3: [server]: \"port\" must be a whole number from 0 to 65535"},
        {"a misspelt setting", kServer + "grace_secs = 5\n" + kConference, ":5: [server]: unknown setting \"grace_secs\""},
        {"a listen address that is none", kServer + "listen = \"localhost:1\"\n" + kConference,
         ":5: [server]: \"listen\" must be an IP address"},
        {"no conference", kServer, ":1: no [[conference]] is configured"},
        {"FileIDs that reach 0xFFFF", kServer + "\n[[conference]]\nid = 100\nfile_ids = [1, 65535]\n",
         ":8: conference 100: \"file_ids\" must be [first, last]"},
        {"two conferences of one word", kServer + kConference + "\n[[conference]]\nid = 65636\nfile_ids = [1, 2]\n",
         ":10: conference 65636: another conference has the same id"},
        {"a user twice", kServer + kConference + kAlice + kAlice, ":14: conference 100, [[conference.user]]: user 10001 appears twice"},
        {"a user numbered as the server", kServer + kConference + "\n[[conference.user]]\nnumber = 1\nname = \"x\"\n",
         ":10: conference 100, [[conference.user]]: user number 1 is a server's number"},
        {"a user homed on an unknown server", kServer + kConference + kAlice + "home = 7\n",
         ":10: conference 100, [[conference.user]]: home server 7 is neither this server nor a peer"},
        {"a peer to dial without its address", kServer + "\n[[peer]]\nnumber = 2\nport = 1\n" + kConference,
         ":6: [[peer]]: \"address\" is missing"},
        {"a text where a number goes", "[server]\nnumber = \"one\"\nport = 0\nhome = \"h\"\n" + kConference,
         ":2: [server]: \"number\" must be a whole number"},
        {"a certificate without its key", kServer + "certificate = \"server.toml\"\n" + kConference,
         ":1: [server]: \"certificate\" and \"private_key\" go together"},
        {"a certificate that is not there", kServer + "certificate = \"c.pem\"\nprivate_key = \"server.toml\"\n" + kConference,
         ":5: [server]: \"certificate\": "},
        {"a peer dialled with a login without its secret", kServer + kPeer + kConference,
         ":6: [[peer]]: server 2 is dialled with a login, so \"secret_file\" is missing"},
        {"a peer dialled on TLS without a trust file",
         kServer + "certificate = \"server.toml\"\nprivate_key = \"server.toml\"\nlogins = false\n" + kPeer + kConference,
         ":9: [[peer]]: server 2 is dialled on TLS, so [server] needs \"trust\""},
        {"two users of one name", kServer + kConference + kAlice + "\n[[conference.user]]\nnumber = 10002\nname = \"alice\"\n",
         ":14: conference 100, [[conference.user]]: the name \"alice\" is another user's"},
        {"a name that ends in a space", kServer + kConference + "\n[[conference.user]]\nnumber = 10002\nname = \"bob \"\n",
         ":10: conference 100, [[conference.user]]: the name \"bob \" is another user's, holds"},
        {"no wait after a failed login", kServer + "login_delay_ms = 0\n" + kConference,
         ":5: [server]: \"login_delay_ms\" must be a whole number from 1"},
        {"broken TOML", kServer + "[[conference]\n", ":5: "},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        QB_WriteWholeFile(sPath, row.sText);
        ZV_ServerConfig config;
        EXPECT_EQ(config.Load(sPath), row.sError.empty());
        if (!row.sError.empty())
        {
            ASSERT_FALSE(config.GetErrors().empty());
            EXPECT_EQ(config.GetErrors()[0].rfind(sPath + row.sError, 0), 0u) << config.GetErrors()[0];
            continue;
        }
        // Each conference gets a folder of its own under the home, and the
        // module is told where to store and to take its catalogue back.
        ASSERT_TRUE(config.PrepareHomes());
        for (const char* szConf : {"100", "200"})
        {
            const std::string sHome = tmp.Path() + "/h/conference-" + szConf + "/";
            const std::vector<uint8_t> vbIni = QB_ReadWholeFile(sHome + "confsrv.ini");
            EXPECT_EQ(std::string(vbIni.begin(), vbIni.end()),
                      "[FileShare]\r\nPath=" + sHome + "store/\r\nRestoreCatalog=1\r\n");
            EXPECT_TRUE(std::filesystem::is_directory(sHome + "log"));
        }
    }
}
