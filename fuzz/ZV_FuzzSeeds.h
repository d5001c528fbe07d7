// A harness's seed folder, written afresh by the seed maker.
#pragma once

#include "ZV_FuzzInput.h"

#include <filesystem>
#include <fstream>
#include <string>

class ZV_SeedFolder
{
public:
    explicit ZV_SeedFolder(std::filesystem::path folder) : m_folder(std::move(folder))
    {
        std::filesystem::remove_all(m_folder);
        std::filesystem::create_directories(m_folder);
    }
    void Add(const std::string& sName, const std::vector<uint8_t>& vb) const
    {
        std::ofstream(m_folder / sName, std::ios::binary).write((const char*)vb.data(), (std::streamsize)vb.size());
    }
    void Add(const std::string& sName, const ZV_FuzzWriter& w) const { Add(sName, w.Data()); }

private:
    std::filesystem::path m_folder;
};
