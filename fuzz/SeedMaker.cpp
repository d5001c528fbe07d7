// Writes the seed corpora of the harnesses, each input made with the code's
// own encoders, so that fuzzing starts from well-formed input of every
// kind and mutates from there:
//
//     build-fuzz/fuzz/fuzz_seeds fuzz/corpus
//
// One folder per harness, one small file per seed; the repository keeps
// what this writes.
#include "ZV_FuzzInput.h"
#include "ZV_FuzzPayloads.h"
#include "ZV_FuzzSeeds.h"

#include "wire/ZV_PduTable.h"

#include "QB_ByteStream.h"
#include "QB_DatetimeEx.h"
#include "QB_IniFileEx.h"
#include "QB_String.h"
#include "QB_UserID.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string_view>

namespace fs = std::filesystem;

namespace {

// Sections and keys as the catalogue and the configuration write them.
std::vector<uint8_t> IniFile(const fs::path& folder, bool bUnicode)
{
    const fs::path path = folder / "seed.ini";
    fs::remove(path);
    if (!bUnicode)
        std::ofstream(path, std::ios::binary) << "; settings\r\n";
    QB_IniFileEx ini;
    ini.Open(QB_StringA(path.string().c_str()), bUnicode);
    ini.SetString(u"FileShare", u"Path", u"D:\\Share\\");
    for (int i = 1; i <= 2; ++i)
    {
        QB_StringW sSection;
        sSection.Format("0123456789ABCDEF0123456789abcde%d", i);
        ini.SetLong(sSection, u"ConfID", 7);
        ini.SetLong(sSection, u"FileID", i);
        ini.SetString(sSection, u"FileNewName", u"report(1).pdf");
        ini.SetLong(sSection, u"FileWritePos", -1);
        ini.SetString(sSection, u"CreatorID", QB_StringW(QB_StringA(QB_UserID(90001, 15).ToText().c_str())));
        ini.SetString(sSection, u"ShareTime", QB_StringW(QB_DateTimeEx().ToText(0, "-")));
        ini.SetString(sSection, u"FilePath", u"C:\\Users\\\xE9t\xE9\\");
        ini.SetBool(sSection, u"FileValidity", true);
        ini.SetString(sSection, u"", u"a comment");
    }
    ini.Flush();
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
}

void StreamSeeds(ZV_SeedFolder& out)
{
    // A block of every wire form, then a read of each kind over it.
    uint8_t abBlock[80];
    QB_ByteStream s(abBlock, sizeof abBlock, false);
    for (uint32_t ul : {0x7Fu, 0x80u, 0x3FFFu, 0x4000u, 0x1FFFFFu, 0x200000u, 0xFFFFFFFu, 0x10000000u})
        s.WriteCount(ul);
    s.WriteString(QB_StringU8("report.pdf"));
    QB_UserID(90001, 15).Save(s);
    s.WriteU16(8001);
    s.WriteDouble(100.0);
    ZV_FuzzWriter load;
    load.Bool(false);
    load.Range<size_t>((size_t)s.GetPos(), 0, 80);
    load.Raw(abBlock, (size_t)s.GetPos());
    for (int nOp : {6, 6, 6, 6, 6, 6, 6, 6, 7, 9, 1, 4, 8, 0})
        load.Range(nOp, 0, 9);
    out.Add("load", load);

    ZV_FuzzWriter save;
    save.Bool(true);
    save.Range<size_t>(24, 0, 80);
    save.Range(1, 0, 7);
    save.Range(5, 0, 7);
    save.Int<uint32_t>(0x4000);
    save.Range(0, 0, 31);
    save.Range(6, 0, 7);
    save.Text("report.pdf", 40);
    save.Range(2, 0, 7);
    save.Int<uint64_t>(8001);
    out.Add("save", save);
}

void StringSeeds(ZV_SeedFolder& out)
{
    const char16_t kText[] = u"r\xE9sum\xE9 \x4E2D\xD83D\xDE00.pdf";
    const QB_StringU8 sUtf8 = QB_WideToUtf8(kText, (int)std::size(kText) - 1);
    ZV_FuzzWriter conversions;
    conversions.Range(0, 0, 2);
    conversions.Text(std::string(sUtf8.GetString(), (size_t)sUtf8.GetLength()), 256);
    out.Add("conversions", conversions);
    for (int nClass = 1; nClass <= 2; ++nClass)
    {
        ZV_FuzzWriter ops;
        ops.Range(nClass, 0, 2);
        for (int nOp = 0; nOp <= 12; ++nOp)
        {
            ops.Range(nOp % 3, 0, 2);
            ops.Range((nOp + 1) % 3, 0, 2);
            ops.Range(nOp, 0, 12);
            ops.Text(" Report=1; ", 24);
        }
        out.Add(nClass == 1 ? "utf8" : "wide", ops);
    }
}

void UserIDSeeds(ZV_SeedFolder& out)
{
    const QB_UserID kIDs[] = {{12345, 0}, {90001, 15}, {92000, 20000}, {4000000000u, 0}, {90001, 5}};
    for (const QB_UserID& id : kIDs)
    {
        ZV_FuzzWriter w;
        w.Int(id.m_ulMain);
        w.Int(id.m_ulSub);
        w.Raw("  000" + id.ToText() + " ");
        out.Add("id" + std::to_string(&id - kIDs), w);
    }
}

void DateTimeSeeds(ZV_SeedFolder& out)
{
    QB_DateTimeEx dt;
    dt.SetDateTime(2011, 3, 16, 7, 21, 48, 5000);
    for (int nMode = 0; nMode <= 2; ++nMode)
    {
        ZV_FuzzWriter w;
        w.Range(dt.m_Date, QB_DATE_MIN, QB_DATE_MAX);
        w.Range(dt.m_Time, 0, QB_TICKS_PER_DAY - 1);
        w.Bool(false);
        w.Raw(dt.ToText(nMode, nMode == 1 ? "/" : "-").GetString());
        out.Add("text" + std::to_string(nMode), w);
    }
    ZV_FuzzWriter set;
    set.Range(0, QB_DATE_MIN, QB_DATE_MAX);
    set.Range(0, 0, QB_TICKS_PER_DAY - 1);
    set.Bool(true);
    set.Range(QB_DATE_MAX, -2, QB_DATE_MAX + 2);
    set.Range(QB_TICKS_PER_DAY - 1, -2, QB_TICKS_PER_DAY + 2);
    for (int n : {2000, 2, 29, 23, 59, 59, 9999})
        set.Range(n, -1, 10000);
    out.Add("setters", set);
}

void IniSeeds(ZV_SeedFolder& out, const fs::path& scratch)
{
    for (bool bUnicode : {false, true})
    {
        ZV_FuzzWriter w;
        w.Range<size_t>(2, 0, 32);
        w.Byte(1);  // a new section
        w.Byte(0);
        w.Raw(IniFile(scratch, bUnicode));
        out.Add(bUnicode ? "unicode" : "ansi", w);
    }
}

// Each payload of a header as its encoder writes a default one, behind
// the byte that picks it.
void PayloadSeeds(const fs::path& root)
{
    for (const char* pszHeader : {"add", "control", "delete", "download", "lists", "rights", "upload"})
    {
        ZV_SeedFolder out(root / (std::string("payload_") + pszHeader));
        uint8_t bPick = 0;
        for (const ZV_PayloadRow& row : kPayloadRows)
        {
            if (std::string_view(row.pszHeader) != pszHeader)
                continue;
            ZV_FuzzWriter w;
            w.Byte(bPick++);
            w.Raw(row.fnSeed());
            out.Add(row.pszName, w);
        }
    }
}

// Every number of the table once, on a link of each kind: a FileID of the
// three files, Bob, and room for the fields behind.
void PduSeeds(ZV_SeedFolder& out)
{
    const size_t nRows = std::size(kPduTable);
    for (bool bServer : {true, false})
        for (size_t nConn = 0; nConn < 4; ++nConn)
        {
            ZV_FuzzWriter w;
            w.Bool(bServer);
            for (size_t nRow = 0; nRow < nRows; ++nRow)
            {
                w.Range(2, 0, 5);  // a delivery
                w.Range(nRow, (size_t)0, nRows + 1);
                w.Range(nConn, (size_t)0, (size_t)3);
                w.Range((size_t)1, (size_t)0, (size_t)2);
                ZV_FuzzWriter payload;
                payload.Int<uint16_t>((uint16_t)(1 + nRow % 3));
                payload.Int<uint32_t>(10002);
                payload.Int<uint32_t>(0);
                for (int i = 0; i < 6; ++i)
                    payload.Int<uint32_t>(0);
                w.Int<uint16_t>((uint16_t)payload.Data().size());
                w.Raw(payload.Data());
                if (nRow % 8 == 7)
                    w.Range(0, 0, 5), w.Range<uint32_t>(61000, 0, 120000);  // the clock
            }
            out.Add((bServer ? "server" : "client") + std::to_string(nConn), w);
        }
}

// A configuration, a catalogue of two rows as the catalogue writes it, and
// no shares; then the catalogue in UTF-16.
void StartupSeeds(ZV_SeedFolder& out, const fs::path& scratch)
{
    for (bool bUnicode : {false, true})
    {
        const std::string sConfig = "[FileShare]\r\nMaxSize=100\r\n";
        const std::vector<uint8_t> vbCatalog = IniFile(scratch, bUnicode);
        ZV_FuzzWriter w;
        w.Int<uint16_t>((uint16_t)sConfig.size());
        w.Raw(sConfig);
        w.Int<uint16_t>((uint16_t)vbCatalog.size());
        w.Raw(vbCatalog);
        w.Raw(std::string("[7]\r\n1=C:\\Users\\a\\report.pdf\r\n"));
        out.Add(bUnicode ? "unicode" : "ansi", w);
    }
}

// The draws of a few seeded runs: what the random conferences' generator
// gives, byte by byte.
void ConferenceSeeds(ZV_SeedFolder& out)
{
    for (uint32_t ulSeed : {1u, 2u, 3u, 4u})
    {
        std::mt19937 rng(ulSeed);
        std::vector<uint8_t> vb(600);
        for (uint8_t& b : vb)
            b = (uint8_t)rng();
        vb[0] = 39;  // the most steps
        out.Add("run" + std::to_string(ulSeed), vb);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]);
        return 2;
    }
    const fs::path root = argv[1];
    const fs::path scratch = fs::temp_directory_path() / "roomcrate-seeds";
    fs::create_directories(scratch);
    ZV_SeedFolder stream(root / "stream"), strings(root / "strings"), userid(root / "userid"),
        datetime(root / "datetime"), ini(root / "ini");
    StreamSeeds(stream);
    StringSeeds(strings);
    UserIDSeeds(userid);
    DateTimeSeeds(datetime);
    IniSeeds(ini, scratch);
    PayloadSeeds(root);
    ZV_SeedFolder pdu(root / "pdu"), startup(root / "startup"), conference(root / "conference");
    PduSeeds(pdu);
    StartupSeeds(startup, scratch);
    ConferenceSeeds(conference);
    fs::remove_all(scratch);
    return 0;
}
