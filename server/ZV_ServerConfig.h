// ZV_ServerConfig: roomcrate-server's TOML configuration, read whole and
// checked whole before anything starts. A wrong or missing setting is
// reported with the file, the line and the reason; a server never starts
// half-configured. README.md ("Run a server") shows a configuration.
#pragma once

#include "ZV_NetServer.h"

#include <string>
#include <vector>

struct ZV_ServerSettings
{
    ZV_NetServerConfig net;
    // Host form, absolute, with a trailing slash.
    std::string sHome;
    // Where the chosen port is written; empty: nowhere.
    std::string sPortFile;
    // The credentials file: beside the configuration, named as it is with
    // ".credentials" for its extension, unless set.
    std::string sCredentials;
    std::string sLogLevel = "info";
};

class ZV_ServerConfig
{
public:
    // Reads and checks sPath; false with every problem in GetErrors, each as
    // "FILE:LINE: reason".
    bool Load(const std::string& sPath);
    const ZV_ServerSettings& GetSettings() const { return m_settings; }
    const std::vector<std::string>& GetErrors() const { return m_vecErrors; }

    // Each conference's folder below the home folder, and its "confsrv.ini",
    // which asks the module to take its catalogue back at start; false with
    // the reason in GetErrors.
    bool PrepareHomes();
    // The credentials file into the settings when logins are on; false with
    // its problems in GetErrors.
    bool LoadCredentials();

private:
    ZV_ServerSettings m_settings;
    std::string m_sFile;
    std::vector<std::string> m_vecErrors;

    friend class ZV_ConfigReader;
};
