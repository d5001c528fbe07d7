// ZV_CliSettings: where the roomcrate client connects and as whom. Each
// setting comes from the first of: an option, the environment
// (ROOMCRATE_SERVER, ROOMCRATE_CONFERENCE, ROOMCRATE_USER, ROOMCRATE_NAME,
// ROOMCRATE_SECRET_FILE, ROOMCRATE_TRUST, ROOMCRATE_CLIENT_HOME), the
// client's TOML file, a default. The secret never comes from an option:
// from a file, from ROOMCRATE_SECRET, or typed at a prompt.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

struct ZV_CliSettings
{
    std::string sServer = "127.0.0.1";
    uint16_t usPort = 7100;
    uint32_t ulConference = 0;
    uint32_t ulUser = 0;
    std::string sName;
    std::string sSecretFile;
    std::string sTrust;
    // The client's own folder: its share record and its log.
    std::string sHome;
};

// What options gave; an unset one leaves the setting to the next source.
using ZV_CliValues = std::map<std::string, std::string>;

// Fills settings from the options, then the environment (fnEnv), then the
// TOML text sToml (its file named sTomlName in messages); false with the
// reason in sError when something does not read right or is missing.
bool ZV_LoadCliSettings(const ZV_CliValues& mapOptions, const std::function<const char*(const char*)>& fnEnv,
                        const std::string& sToml, const std::string& sTomlName, ZV_CliSettings& settings,
                        std::string& sError);

// The client's TOML file: $XDG_CONFIG_HOME/roomcrate/client.toml, or
// ~/.config/roomcrate/client.toml.
std::string ZV_DefaultCliConfig(const std::function<const char*(const char*)>& fnEnv);

// The secret: the first line of the secret file ("-": standard input),
// else ROOMCRATE_SECRET, else a prompt without echo when standard input is a
// terminal. Empty when there is none (no login then).
std::optional<std::string> ZV_ReadCliSecret(const ZV_CliSettings& settings,
                                            const std::function<const char*(const char*)>& fnEnv,
                                            std::string& sError);
