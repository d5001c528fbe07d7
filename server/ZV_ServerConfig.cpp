#include "ZV_ServerConfig.h"

#include <asio.hpp>
#include <toml++/toml.h>

#include <filesystem>
#include <fstream>
#include <set>

namespace fs = std::filesystem;

// The checks, each of which notes what is wrong and where, so that one run
// names every problem of the file.
class ZV_ConfigReader
{
public:
    ZV_ConfigReader(ZV_ServerConfig& config, const fs::path& pathBase) : m_config(config), m_pathBase(pathBase) {}

    void Fail(const toml::source_region& where, const std::string& sWhy)
    {
        m_config.m_vecErrors.push_back(m_config.m_sFile + ":" + std::to_string(where.begin.line) + ": " + sWhy);
    }

    // Keys a table may hold; any other is a typo that would pass unseen.
    void OnlyKeys(const toml::table& table, std::initializer_list<const char*> listKeys, const std::string& sWhere)
    {
        for (const auto& [key, node] : table)
        {
            bool bKnown = false;
            for (const char* pszKey : listKeys)
                bKnown = bKnown || key.str() == pszKey;
            if (!bKnown)
                Fail(node.source(), sWhere + ": unknown setting \"" + std::string(key.str()) + "\"");
        }
    }

    // An integer in [llMin, llMax]; missing gives llDefault, or fails when
    // there is none.
    int64_t Integer(const toml::table& table, const char* pszKey, const std::string& sWhere, int64_t llMin,
                    int64_t llMax, std::optional<int64_t> llDefault = {})
    {
        const toml::node* lpNode = table.get(pszKey);
        if (!lpNode)
        {
            if (!llDefault)
                Fail(table.source(), sWhere + ": \"" + pszKey + "\" is missing");
            return llDefault.value_or(llMin);
        }
        const auto llValue = lpNode->value<int64_t>();
        if (!lpNode->is_integer() || !llValue || *llValue < llMin || *llValue > llMax)
        {
            Fail(lpNode->source(), sWhere + ": \"" + pszKey + "\" must be a whole number from " +
                                       std::to_string(llMin) + " to " + std::to_string(llMax));
            return llMin;
        }
        return *llValue;
    }

    std::string Text(const toml::table& table, const char* pszKey, const std::string& sWhere,
                     std::optional<std::string> sDefault = {})
    {
        const toml::node* lpNode = table.get(pszKey);
        if (!lpNode)
        {
            if (!sDefault)
                Fail(table.source(), sWhere + ": \"" + pszKey + "\" is missing");
            return sDefault.value_or("");
        }
        if (!lpNode->is_string() || lpNode->value<std::string>()->empty())
        {
            Fail(lpNode->source(), sWhere + ": \"" + pszKey + "\" must be a text that is not empty");
            return {};
        }
        return *lpNode->value<std::string>();
    }

    bool Flag(const toml::table& table, const char* pszKey, const std::string& sWhere, bool bDefault)
    {
        const toml::node* lpNode = table.get(pszKey);
        if (!lpNode)
            return bDefault;
        if (!lpNode->is_boolean())
        {
            Fail(lpNode->source(), sWhere + ": \"" + pszKey + "\" must be true or false");
            return bDefault;
        }
        return *lpNode->value<bool>();
    }

    // The tables of an array of tables; a missing key gives none.
    std::vector<const toml::table*> Tables(const toml::table& table, const char* pszKey)
    {
        std::vector<const toml::table*> vecTables;
        const toml::node* lpNode = table.get(pszKey);
        if (!lpNode)
            return vecTables;
        const toml::array* lpArray = lpNode->as_array();
        if (!lpArray || !lpArray->is_array_of_tables())
        {
            Fail(lpNode->source(), std::string("\"") + pszKey + "\" must be written as [[" + pszKey + "]] tables");
            return vecTables;
        }
        for (const toml::node& item : *lpArray)
            vecTables.push_back(item.as_table());
        return vecTables;
    }

    fs::path Path(const std::string& sPath) const
    {
        fs::path path(sPath);
        return (path.is_absolute() ? path : m_pathBase / path).lexically_normal();
    }

    // The path of a file the server reads at start, which must be there.
    std::string File(const toml::table& table, const char* pszKey, const std::string& sWhere)
    {
        const std::string sPath = Text(table, pszKey, sWhere, std::string());
        if (sPath.empty())
            return {};
        const fs::path path = Path(sPath);
        std::ifstream file(path);
        if (!file)
            Fail(table[pszKey].node()->source(), sWhere + ": \"" + pszKey + "\": " + path.string() + " cannot be read");
        return path.string();
    }

    ZV_ServerConfig& m_config;
    fs::path m_pathBase;
};

namespace {

constexpr int64_t kU32Max = 0xFFFFFFFFll;

std::string Folder(const fs::path& path)
{
    std::string s = path.string();
    return !s.empty() && s.back() == '/' ? s : s + "/";
}

}  // namespace

bool ZV_ServerConfig::Load(const std::string& sPath)
{
    m_sFile = sPath;
    m_vecErrors.clear();
    toml::table root;
    try
    {
        root = toml::parse_file(sPath);
    }
    catch (const toml::parse_error& error)
    {
        const auto& where = error.source();
        m_vecErrors.push_back(sPath + ":" + std::to_string(where.begin.line) + ": " +
                              std::string(error.description()));
        return false;
    }
    ZV_ConfigReader reader(*this, fs::absolute(fs::path(sPath)).parent_path());
    ZV_NetServerConfig& net = m_settings.net;
    reader.OnlyKeys(root, {"server", "conference", "peer"}, "the file");

    const toml::table* lpServer = root["server"].as_table();
    if (!lpServer)
    {
        reader.Fail(root.source(), "a [server] table is missing");
        return false;
    }
    const std::string sServer = "[server]";
    reader.OnlyKeys(*lpServer,
                    {"number", "listen", "port", "port_file", "home", "grace_seconds", "queue_bound", "log_level",
                     "certificate", "private_key", "trust", "logins", "credentials", "login_delay_ms"},
                    sServer);
    net.ulServerID = (uint32_t)reader.Integer(*lpServer, "number", sServer, 1, kU32Max);
    net.sListen = reader.Text(*lpServer, "listen", sServer, std::string("127.0.0.1"));
    asio::error_code ec;
    asio::ip::make_address(net.sListen, ec);
    if (ec)
        reader.Fail((*lpServer)["listen"].node()->source(), sServer + ": \"listen\" must be an IP address");
    net.usPort = (uint16_t)reader.Integer(*lpServer, "port", sServer, 0, 65535);
    if (lpServer->contains("port_file"))
        m_settings.sPortFile = reader.Path(reader.Text(*lpServer, "port_file", sServer)).string();
    m_settings.sHome = Folder(reader.Path(reader.Text(*lpServer, "home", sServer)));
    net.msGrace = std::chrono::seconds(reader.Integer(*lpServer, "grace_seconds", sServer, 1, 86400 * 7, 600));
    net.limits.nQueueBound =
        (size_t)reader.Integer(*lpServer, "queue_bound", sServer, 65536, 1ll << 30, 1 << 20);
    net.limits.nQueueHardLimit = net.limits.nQueueBound * 16;
    m_settings.sLogLevel = reader.Text(*lpServer, "log_level", sServer, std::string("info"));
    const std::set<std::string> setLevels = {"trace", "debug", "info", "warn", "error", "critical", "off"};
    if (!setLevels.count(m_settings.sLogLevel))
        reader.Fail((*lpServer)["log_level"].node()->source(),
                    sServer + ": \"log_level\" must be trace, debug, info, warn, error, critical or off");
    net.sCertificate = reader.File(*lpServer, "certificate", sServer);
    net.sPrivateKey = reader.File(*lpServer, "private_key", sServer);
    if (net.sCertificate.empty() != net.sPrivateKey.empty())
        reader.Fail(lpServer->source(), sServer + ": \"certificate\" and \"private_key\" go together");
    net.sTrust = reader.File(*lpServer, "trust", sServer);
    net.bLogins = reader.Flag(*lpServer, "logins", sServer, true);
    const fs::path pathConfig = fs::absolute(fs::path(sPath));
    m_settings.sCredentials =
        lpServer->contains("credentials")
            ? reader.Path(reader.Text(*lpServer, "credentials", sServer)).string()
            : (pathConfig.parent_path() / pathConfig.stem()).string() + ".credentials";
    net.msLoginDelay =
        std::chrono::milliseconds(reader.Integer(*lpServer, "login_delay_ms", sServer, 1, 60000, 1000));

    // Peers first: a user's home server must be one of them or this one.
    std::set<uint32_t> setServers = {net.ulServerID};
    std::vector<toml::source_region> vecPeerPlaces;
    for (const toml::table* lpPeer : reader.Tables(root, "peer"))
    {
        vecPeerPlaces.push_back(lpPeer->source());
        ZV_NetPeerConfig peer;
        const std::string sWhere = "[[peer]]";
        reader.OnlyKeys(*lpPeer, {"number", "address", "port", "conferences", "secret_file"}, sWhere);
        peer.ulServerID = (uint32_t)reader.Integer(*lpPeer, "number", sWhere, 1, kU32Max);
        if (!setServers.insert(peer.ulServerID).second)
            reader.Fail(lpPeer->source(), sWhere + ": server " + std::to_string(peer.ulServerID) +
                                              " is this server or another peer already");
        // The lower number dials, so only it needs the other's address.
        const bool bDials = net.ulServerID < peer.ulServerID;
        peer.sAddress = reader.Text(*lpPeer, "address", sWhere, bDials ? std::optional<std::string>() : "");
        peer.usPort = (uint16_t)reader.Integer(*lpPeer, "port", sWhere, 1, 65535,
                                               bDials ? std::optional<int64_t>() : 1);
        // What this server dials, it dials as the servers that dial it are
        // let in: on TLS when it has a certificate, with a login when it
        // asks for them.
        if (bDials && !net.sCertificate.empty() && net.sTrust.empty())
            reader.Fail(lpPeer->source(), sWhere + ": server " + std::to_string(peer.ulServerID) +
                                              " is dialled on TLS, so [server] needs \"trust\"");
        if (bDials && net.bLogins && !lpPeer->contains("secret_file"))
            reader.Fail(lpPeer->source(), sWhere + ": server " + std::to_string(peer.ulServerID) +
                                              " is dialled with a login, so \"secret_file\" is missing");
        if (const std::string sSecretFile = reader.File(*lpPeer, "secret_file", sWhere); !sSecretFile.empty())
        {
            std::ifstream file(sSecretFile);
            std::getline(file, peer.sSecret);
            if (peer.sSecret.empty())
                reader.Fail((*lpPeer)["secret_file"].node()->source(),
                            sWhere + ": \"secret_file\": its first line, the secret, is empty");
        }
        if (const toml::node* lpConfs = lpPeer->get("conferences"))
        {
            const toml::array* lpArray = lpConfs->as_array();
            if (!lpArray)
                reader.Fail(lpConfs->source(), sWhere + ": \"conferences\" must be a list of conference ids");
            else
                for (const toml::node& item : *lpArray)
                {
                    const auto llConf = item.value<int64_t>();
                    if (!item.is_integer() || !llConf || *llConf < 1 || *llConf > kU32Max)
                        reader.Fail(item.source(), sWhere + ": a conference id is a whole number from 1 up");
                    else
                        peer.vecConferences.push_back((uint32_t)*llConf);
                }
        }
        net.vecPeers.push_back(peer);
    }

    std::set<uint32_t> setConfs;
    std::set<uint16_t> setWords;
    const auto vecConfs = reader.Tables(root, "conference");
    if (vecConfs.empty())
        reader.Fail(root.source(), "no [[conference]] is configured");
    for (const toml::table* lpConf : vecConfs)
    {
        ZV_NetConferenceConfig conf;
        reader.OnlyKeys(*lpConf, {"id", "file_ids", "user"}, "[[conference]]");
        conf.ulConfID = (uint32_t)reader.Integer(*lpConf, "id", "[[conference]]", 1, kU32Max);
        const std::string sWhere = "conference " + std::to_string(conf.ulConfID);
        // Linked servers find a conference by the low 16 bits of its id.
        if (!setConfs.insert(conf.ulConfID).second || !setWords.insert((uint16_t)conf.ulConfID).second)
            reader.Fail(lpConf->source(), sWhere + ": another conference has the same id, or the same id modulo 65536");
        const toml::array* lpRange = lpConf->get_as<toml::array>("file_ids");
        const bool bRange = lpRange && lpRange->size() == 2 && lpRange->get(0)->is_integer() &&
                            lpRange->get(1)->is_integer();
        const int64_t llMin = bRange ? *lpRange->get(0)->value<int64_t>() : 0;
        const int64_t llMax = bRange ? *lpRange->get(1)->value<int64_t>() : 0;
        // 0xFFFF means "no FileID yet" on the wire.
        if (!bRange || llMin < 1 || llMax > 0xFFFE || llMin > llMax)
            reader.Fail(lpRange ? lpRange->source() : lpConf->source(),
                        sWhere + ": \"file_ids\" must be [first, last] with 1 <= first <= last <= 65534");
        conf.usFileIDMin = (uint16_t)llMin;
        conf.usFileIDMax = (uint16_t)llMax;
        conf.sHome = m_settings.sHome + "conference-" + std::to_string(conf.ulConfID) + "/";
        std::set<uint32_t> setUsers;
        std::set<std::string> setNames;
        for (const toml::table* lpUser : reader.Tables(*lpConf, "user"))
        {
            ZV_NetUserConfig user;
            const std::string sUser = sWhere + ", [[conference.user]]";
            reader.OnlyKeys(*lpUser, {"number", "name", "home", "role", "may_share"}, sUser);
            user.ulNumber = (uint32_t)reader.Integer(*lpUser, "number", sUser, 1, kU32Max);
            user.sName = reader.Text(*lpUser, "name", sUser);
            user.ulHomeServer = (uint32_t)reader.Integer(*lpUser, "home", sUser, 1, kU32Max, net.ulServerID);
            const std::string sRole = reader.Text(*lpUser, "role", sUser, std::string("member"));
            user.bPrivileged = sRole == "privileged";
            user.bMayShare = reader.Flag(*lpUser, "may_share", sUser, true);
            if (sRole != "member" && sRole != "privileged")
                reader.Fail(lpUser->source(), sUser + ": \"role\" must be \"member\" or \"privileged\"");
            if (!setUsers.insert(user.ulNumber).second)
                reader.Fail(lpUser->source(), sUser + ": user " + std::to_string(user.ulNumber) + " appears twice");
            // A user logs in under the name, so it names one user only.
            else if (!ZV_Credentials::IsGoodName(user.sName) || !setNames.insert(user.sName).second)
                reader.Fail(lpUser->source(), sUser + ": the name \"" + user.sName +
                                                  "\" is another user's, holds a control character or ends in a space");
            // The module tells users and servers apart by number alone.
            if (setServers.count(user.ulNumber))
                reader.Fail(lpUser->source(), sUser + ": user number " + std::to_string(user.ulNumber) +
                                                  " is a server's number");
            if (!setServers.count(user.ulHomeServer))
                reader.Fail(lpUser->source(), sUser + ": home server " + std::to_string(user.ulHomeServer) +
                                                  " is neither this server nor a peer");
            conf.vecUsers.push_back(user);
        }
        net.vecConferences.push_back(conf);
    }
    for (size_t i = 0; i < net.vecPeers.size(); ++i)
    {
        ZV_NetPeerConfig& peer = net.vecPeers[i];
        if (peer.vecConferences.empty())
            peer.vecConferences.assign(setConfs.begin(), setConfs.end());
        for (uint32_t ulConf : peer.vecConferences)
            if (!setConfs.count(ulConf))
                reader.Fail(vecPeerPlaces[i], "[[peer]]: conference " + std::to_string(ulConf) +
                                                  " of server " + std::to_string(peer.ulServerID) +
                                                  " is not hosted here");
    }
    return m_vecErrors.empty();
}

bool ZV_ServerConfig::LoadCredentials()
{
    ZV_NetServerConfig& net = m_settings.net;
    return !net.bLogins || net.credentials.Load(m_settings.sCredentials, m_vecErrors);
}

bool ZV_ServerConfig::PrepareHomes()
{
    for (const ZV_NetConferenceConfig& conf : m_settings.net.vecConferences)
    {
        std::error_code ec;
        const fs::path pathHome(conf.sHome);
        fs::create_directories(pathHome / "store", ec);
        if (!ec)
            fs::create_directories(pathHome / "log", ec);
        std::ofstream ini(pathHome / "confsrv.ini", std::ios::binary | std::ios::trunc);
        ini << "[FileShare]\r\nPath=" << (pathHome / "store").string() << "/\r\nRestoreCatalog=1\r\n";
        ini.close();
        if (ec || !ini)
        {
            m_vecErrors.push_back(conf.sHome + ": the conference's folder cannot be made or written" +
                                  (ec ? ": " + ec.message() : std::string()));
            return false;
        }
    }
    return true;
}
