#include "ZV_CliSettings.h"

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <toml++/toml.h>

namespace {

struct Key
{
    const char* szKey;  // in the TOML file and as an option's name
    const char* szEnv;
};
constexpr Key kKeys[] = {
    {"server", "ROOMCRATE_SERVER"},   {"conference", "ROOMCRATE_CONFERENCE"}, {"user", "ROOMCRATE_USER"},
    {"name", "ROOMCRATE_NAME"},       {"secret_file", "ROOMCRATE_SECRET_FILE"}, {"trust", "ROOMCRATE_TRUST"},
    {"home", "ROOMCRATE_CLIENT_HOME"},
};

bool Number(const std::string& sText, uint64_t ullMax, uint64_t& ullOut)
{
    if (sText.empty() || sText.size() > 10 || sText.find_first_not_of("0123456789") != std::string::npos)
        return false;
    ullOut = std::stoull(sText);
    return ullOut <= ullMax;
}

// "HOST:PORT", "HOST" (the default port) or "[V6]:PORT".
bool ServerAddress(const std::string& sText, ZV_CliSettings& settings)
{
    std::string sHost = sText;
    std::string sPort;
    const size_t nColon = sText.rfind(':');
    const size_t nBracket = sText.rfind(']');
    if (nColon != std::string::npos && (nBracket == std::string::npos || nColon > nBracket) &&
        sText.find(':') == nColon)
        sHost = sText.substr(0, nColon), sPort = sText.substr(nColon + 1);
    else if (nBracket != std::string::npos && nColon == nBracket + 1)
        sHost = sText.substr(0, nBracket + 1), sPort = sText.substr(nColon + 1);
    if (sHost.size() > 2 && sHost.front() == '[' && sHost.back() == ']')
        sHost = sHost.substr(1, sHost.size() - 2);
    uint64_t ullPort = settings.usPort;
    if (sHost.empty() || (nColon != std::string::npos && sPort.empty() && nBracket == std::string::npos) ||
        (!sPort.empty() && (!Number(sPort, 65535, ullPort) || ullPort == 0)))
        return false;
    settings.sServer = sHost;
    settings.usPort = (uint16_t)ullPort;
    return true;
}

bool Apply(const std::string& sKey, const std::string& sValue, ZV_CliSettings& settings)
{
    uint64_t ull = 0;
    if (sKey == "server")
        return ServerAddress(sValue, settings);
    if (sKey == "conference")
        return Number(sValue, 0xFFFF, ull) && ull != 0 && (settings.ulConference = (uint32_t)ull, true);
    if (sKey == "user")
        return Number(sValue, 0xFFFFFFFF, ull) && ull != 0 && (settings.ulUser = (uint32_t)ull, true);
    std::string* lpsText = sKey == "name" ? &settings.sName : sKey == "secret_file" ? &settings.sSecretFile
                                                           : sKey == "trust"       ? &settings.sTrust
                                                                                   : &settings.sHome;
    *lpsText = sValue;
    return !sValue.empty();
}

// The TOML file's values as text; paths in it are taken from its folder.
bool ReadToml(const std::string& sToml, const std::string& sTomlName, ZV_CliValues& mapValues, std::string& sError)
{
    toml::table table;
    try
    {
        table = toml::parse(sToml, sTomlName);
    }
    catch (const toml::parse_error& err)
    {
        sError = sTomlName + ":" + std::to_string(err.source().begin.line) + ": " + std::string(err.description());
        return false;
    }
    const std::filesystem::path folder = std::filesystem::path(sTomlName).parent_path();
    for (const auto& [key, node] : table)
    {
        const std::string sKey(key.str());
        const std::string sWhere = sTomlName + ":" + std::to_string(node.source().begin.line) + ": ";
        const bool bKnown = std::any_of(std::begin(kKeys), std::end(kKeys), [&](const Key& k) { return sKey == k.szKey; });
        if (!bKnown)
        {
            sError = sWhere + "no setting is called \"" + sKey + "\"";
            return false;
        }
        if (auto oText = node.value<std::string>(); node.is_string())
        {
            const bool bPath = sKey == "secret_file" || sKey == "trust" || sKey == "home";
            mapValues[sKey] = bPath && !oText->empty() && (*oText)[0] != '/' ? (folder / *oText).string() : *oText;
        }
        else if (node.is_integer())
            mapValues[sKey] = std::to_string(*node.value<int64_t>());
        else
        {
            sError = sWhere + "\"" + sKey + "\" takes a string or a number";
            return false;
        }
    }
    return true;
}

}  // namespace

bool ZV_LoadCliSettings(const ZV_CliValues& mapOptions, const std::function<const char*(const char*)>& fnEnv,
                        const std::string& sToml, const std::string& sTomlName, ZV_CliSettings& settings,
                        std::string& sError)
{
    ZV_CliValues mapToml;
    if (!sToml.empty() && !ReadToml(sToml, sTomlName, mapToml, sError))
        return false;
    for (const Key& key : kKeys)
    {
        std::string sValue;
        std::string sFrom;
        if (auto it = mapOptions.find(key.szKey); it != mapOptions.end())
            sValue = it->second, sFrom = std::string("--") + key.szKey;
        else if (const char* szEnv = fnEnv(key.szEnv); szEnv && *szEnv)
            sValue = szEnv, sFrom = key.szEnv;
        else if (auto itToml = mapToml.find(key.szKey); itToml != mapToml.end())
            sValue = itToml->second, sFrom = sTomlName + " " + key.szKey;
        else
            continue;
        if (!Apply(key.szKey, sValue, settings))
        {
            sError = sFrom + ": \"" + sValue + "\" is not a good " + key.szKey;
            return false;
        }
    }
    if (settings.ulConference == 0 || settings.ulUser == 0)
    {
        sError = std::string("no ") + (settings.ulConference == 0 ? "conference" : "user number") +
                 ": give --" + (settings.ulConference == 0 ? "conference" : "user") + ", set " +
                 (settings.ulConference == 0 ? "ROOMCRATE_CONFERENCE" : "ROOMCRATE_USER") + " or write it in " +
                 sTomlName;
        return false;
    }
    if (settings.sHome.empty())
    {
        const char* szData = fnEnv("XDG_DATA_HOME");
        const char* szHome = fnEnv("HOME");
        settings.sHome = szData && *szData ? std::string(szData) + "/roomcrate"
                                           : std::string(szHome ? szHome : ".") + "/.local/share/roomcrate";
    }
    return true;
}

std::string ZV_DefaultCliConfig(const std::function<const char*(const char*)>& fnEnv)
{
    const char* szConfig = fnEnv("XDG_CONFIG_HOME");
    const char* szHome = fnEnv("HOME");
    return szConfig && *szConfig ? std::string(szConfig) + "/roomcrate/client.toml"
                                 : std::string(szHome ? szHome : ".") + "/.config/roomcrate/client.toml";
}

std::optional<std::string> ZV_ReadCliSecret(const ZV_CliSettings& settings,
                                            const std::function<const char*(const char*)>& fnEnv,
                                            std::string& sError)
{
    std::string sSecret;
    if (!settings.sSecretFile.empty())
    {
        std::ifstream file;
        if (settings.sSecretFile != "-")
            file.open(settings.sSecretFile);
        if (settings.sSecretFile != "-" && !file)
        {
            sError = "cannot read the secret file " + settings.sSecretFile;
            return std::nullopt;
        }
        std::getline(settings.sSecretFile == "-" ? std::cin : file, sSecret);
        if (sSecret.empty())
        {
            sError = "the secret file " + settings.sSecretFile + " has no secret on its first line";
            return std::nullopt;
        }
        return sSecret;
    }
    if (const char* szSecret = fnEnv("ROOMCRATE_SECRET"); szSecret && *szSecret)
        return std::string(szSecret);
    if (settings.sName.empty() || !isatty(STDIN_FILENO))
        return std::string();
    // A prompt, without echo, on the terminal.
    std::cerr << "secret of " << settings.sName << ": " << std::flush;
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios quiet = old;
    quiet.c_lflag &= ~(tcflag_t)ECHO;
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    std::getline(std::cin, sSecret);
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::cerr << "\n";
    return sSecret;
}
