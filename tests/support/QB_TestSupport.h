// Helpers shared by the test suites: a throw-away folder per test, whole-file
// reading and writing, and byte vectors as text for failure messages.
#pragma once

#include "QB_String.h"

#include <cstdint>
#include <string>
#include <vector>

// A fresh, empty folder below the system's temporary folder, named so that
// parallel runs of the same suite don't meet; it goes with all it holds.
class QB_TempFolder
{
public:
    QB_TempFolder();
    ~QB_TempFolder();
    QB_TempFolder(const QB_TempFolder&) = delete;
    QB_TempFolder& operator=(const QB_TempFolder&) = delete;

    const std::string& Path() const { return m_sPath; }  // host form, no trailing slash
    QB_StringW PathW() const;                             // Windows form, with its trailing backslash
    // A name below the folder, in either form; `sRelative` may use "/".
    std::string Sub(const std::string& sRelative) const;
    QB_StringW SubW(const std::string& sRelative) const;

private:
    std::string m_sPath;
};

// Host path in Windows form, without adding or removing a trailing backslash.
QB_StringW QB_ToWindowsPath(const std::string& sPath);
// The whole file; empty when it can't be read.
std::vector<uint8_t> QB_ReadWholeFile(const std::string& sPath);
// Replaces the file's content; false when it can't be written.
bool QB_WriteWholeFile(const std::string& sPath, const std::vector<uint8_t>& vbData);
bool QB_WriteWholeFile(const std::string& sPath, const std::string& sText);
// How often the text occurs in the file, or in all files of the folder.
size_t QB_CountInFiles(const std::string& sPath, const std::string& sWhat);
// Descriptors of this process open on the file: a file left open is one
// its user could neither move nor delete on Windows.
size_t QB_OpenHandlesTo(const std::string& sPath);
// "01 ab ff" for messages of byte comparisons.
std::string QB_ToHex(const std::vector<uint8_t>& vbData);
