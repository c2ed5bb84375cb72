#include <atomic>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "settings/profilestore.h"
#include "tests/fuzz/settingsfuzzchecks.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::readFile;
using test::TempDir;
using test::writeFile;

std::string iniIn(const TempDir& dir)
{
    return (dir / "TarvoQC.ini").string();
}

TEST(ProfileStore, ValuesComeBackAsWrittenAndReadsCountCharacters)
{
    TempDir dir;
    const std::string values[] = {"Müller/日本語/😀", "  spaced both ends  ", "\"quoted\"", "\"",
                                  "C:\\Clips\\",     std::string(3000, 'v')};
    {
        ProfileStore store(iniIn(dir));
        for (std::size_t i = 0; i < std::size(values); ++i) {
            ASSERT_TRUE(store.WriteString("Section", "Key" + std::to_string(i), values[i]));
        }
    }
    // A second store sees the file as the first one left it.
    ProfileStore store(iniIn(dir));
    for (std::size_t i = 0; i < std::size(values); ++i) {
        SCOPED_TRACE(values[i].substr(0, 40));
        std::string out;
        EXPECT_TRUE(store.ReadString("Section", "Key" + std::to_string(i), out, 4096, ""));
        EXPECT_EQ(out, values[i]);
    }
    // The short read keeps 511 characters.
    std::string out;
    EXPECT_TRUE(store.ReadString("Section", "Key5", out));
    EXPECT_EQ(out, std::string(511, 'v'));

    // An empty value counts as absent; buffer sizes count characters.
    writeFile(iniIn(dir), "[S]\nEmpty=\nText=abcdef\nUmlauts=äöü\n");
    // key, buffer size, default, result, value read
    const std::tuple<const char*, std::size_t, const char*, bool, const char*> cases[] = {
        {"Empty", 512, "dflt", false, ""}, // present but empty: the default is not used
        {"Missing", 512, "dflt", true, "dflt"},
        {"Missing", 512, "", false, ""},
        {"Missing", 3, "dflt", true, "df"}, // the default is cut as well
        {"Text", 4, "", true, "abc"},       // size counts the terminator
        {"Text", 1, "", false, ""},
        {"Text", 0, "", false, ""},
        {"Umlauts", 3, "", true, "äö"},
        {"Umlauts", 512, "", true, "äöü"}};
    for (const auto& [key, size, fallback, result, value] : cases) {
        SCOPED_TRACE(std::string(key) + " size " + std::to_string(size));
        out = "stale";
        EXPECT_EQ(store.ReadString("S", key, out, size, fallback), result);
        EXPECT_EQ(out, value);
    }
}

TEST(ProfileStore, ReadsHandEditedFilesForgivingly)
{
    // file, key of "Job00", value read (nullptr: the default)
    const std::tuple<std::string, const char*, const char*> cases[] = {
        {"[job00]\r\n  ENABLED  =  1  \r\n", "Enabled", "1"},
        {"[ Job00 ]\nEnabled=1", "Enabled", "1"},
        {"\xEF\xBB\xBF[Job00]\nEnabled=1\n", "Enabled", "1"},
        {"[Job00]\nEnabled=1\nEnabled=2\n", "Enabled", "1"},
        {"[Job00]\nX=1\n[Other]\nEnabled=5\n[Job00]\nEnabled=2\n", "Enabled", "2"},
        {"Enabled=1\n[Job00]\n", "Enabled", nullptr},
        {"[Job00]\nEnabled\nEnabled=3\n", "Enabled", "3"},
        {"[Job00]\n;Enabled=1\n", "Enabled", nullptr},
        {"[Job00]\nSource.Folder=\"/in/\"\n", "Source.Folder", "/in/"},
        {"[Job00]\nSource.Folder='/in/'\n", "Source.Folder", "'/in/'"},
        {"[Job00]\nSource.Folder=a=b;c\n", "Source.Folder", "a=b;c"},
        {"[Job00]\nEnabled = 1 ; not a comment\n", "Enabled", "1 ; not a comment"},
        {"[Job00]\n=5\nEnabled=7", "Enabled", "7"},
        {"[Job00]\nEnabled=1\0junk\nGood.QCTsh=4\n"s, "Enabled", nullptr},
        {"[Job00]\nEnabled=1\0junk\nGood.QCTsh=4\n"s, "Good.QCTsh", "4"},
        {"[Job00\nEnabled=1\n", "Enabled", nullptr},
        {"[Job00]\nEnabled=1\n[Job00\nGood.QCTsh=2\n", "Good.QCTsh", nullptr}};
    TempDir dir;
    for (const auto& [text, key, expected] : cases) {
        SCOPED_TRACE(text.substr(0, 60));
        writeFile(iniIn(dir), text);
        EXPECT_EQ(readProfileString(iniIn(dir), "Job00", key, "<def>"),
                  expected ? expected : "<def>");
    }
}

TEST(ProfileStore, WritingKeepsEveryOtherByteAndRefusesWhatTheFileCannotHold)
{
    TempDir dir;
    const std::string path = iniIn(dir);
    // The lines around the job's keys, which no write may touch.
    const std::string head = "; TarvoQC settings\r\n[Options]\r\nFolder Clips=/media/in/\r\n\r\n";
    const std::string sizes = "\r\n[WindowsSize]\r\nMAIN=-1, 100, 80, 640, 480 G:1\r\n";
    writeFile(path, head + "[Job00]\r\nEnabled=0\r\nCustom.Key = keep me \r\n" +
                        "junk line without equals\r\n" + sizes);
    ProfileStore store(path);
    ASSERT_TRUE(store.WriteString("job00", "enabled", "1"));
    ASSERT_TRUE(store.WriteInt("Job00", "Good.QCTsh", 4));
    ASSERT_TRUE(store.WriteString("Extra", "K", "v"));
    ASSERT_TRUE(store.DeleteValue("Job00", "Custom.Key"));
    EXPECT_EQ(readFile(path), head + "[Job00]\r\nenabled=1\r\njunk line without equals\r\n" +
                                  "Good.QCTsh=4\r\n" + sizes + "\r\n[Extra]\r\nK=v\r\n");

    // A file without a final line end, and a new file, with LF.
    writeFile(path, "[Job00]\nEnabled=0");
    ASSERT_TRUE(store.WriteString("Job00", "Source.Folder", " /in/ "));
    EXPECT_EQ(readFile(path), "[Job00]\nEnabled=0\nSource.Folder=\" /in/ \"\n");
    fs::remove(path);
    ASSERT_TRUE(store.WriteString("Job00", "Enabled", "1"));
    const std::string original = "[Job00]\nEnabled=1\n";
    EXPECT_EQ(readFile(path), original);

    // What the file cannot hold is refused, and the file stays as it was.
    // section, key, value
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"", "k", "v"},
        {"a]b", "k", "v"},
        {"S", "", "v"},
        {"S", "a=b", "v"},
        {"S", "[k", "v"},
        {"S", ";k", "v"},
        {"S", "k", "two\nlines"},
        {"S", "k", "cr\rx"},
        {"S", "k", "nul\0x"s},
        {"S\n", "k", "v"},
        {"S", "k", std::string(70000, 'v')},
        // The header of this section would be a line too long to read.
        {std::string(70000, 's'), "k", "v"}};
    for (const auto& [section, key, value] : cases) {
        SCOPED_TRACE(section.substr(0, 20) + "/" + key);
        EXPECT_FALSE(store.WriteString(section, key, value));
        EXPECT_EQ(readFile(path), original);
    }
}

TEST(ProfileStore, TypedValuesAndSettingKeysWithTheirTableDefaults)
{
    TempDir dir;
    const std::string path = iniIn(dir);
    writeFile(path, "[T]\nEmpty=\nBig=123456789012345\nHuge=99999999999999999999\nTail=12abc\n"
                    "Word=abc\nPlus= +7 \nRgb=255,128,0\nCut=256,-1,7\nTwo=1,2\n"
                    "Spaced=1, 2, 3, 4\nBadComma=1 ,2\nJunk=red\n[Options]\nEnabled=1\n"
                    "Good.QCTsh=5\nTruePeak.Limit=-3dB\nLoudness.Tolerance=nan\n");
    // key, read as 64-bit integer and as integer flag, default -5
    const std::tuple<const char*, std::int64_t, int> ints[] = {
        {"Missing", -5, -5}, {"Empty", -5, -5}, {"Big", 123456789012345, INT32_MAX},
        {"Tail", 12, 12},    {"Word", 0, 0},    {"Huge", INT64_MAX, INT32_MAX},
        {"Plus", 7, 7}};
    for (const auto& [key, int64, flag] : ints) {
        SCOPED_TRACE(key);
        EXPECT_EQ(readProfileInt64(path, "T", key, -5), int64);
        EXPECT_EQ(readProfileInt(path, "T", key, -5), flag);
    }

    // key, colour before, whether it was read, colour after
    const std::tuple<const char*, std::uint32_t, bool, std::uint32_t> colours[] = {
        {"Rgb", 0x123456, true, 0x0080FF},    {"Rgb", 0, false, 0}, // black by default: never read
        {"Cut", 1, true, 0x07FF00},           {"Two", 1, true, 0x000201},
        {"Empty", 0x123456, false, 0x123456}, {"Junk", 0x123456, false, 0x123456}};
    for (const auto& [key, before, read, after] : colours) {
        SCOPED_TRACE(key);
        std::uint32_t colour = before;
        EXPECT_EQ(readProfileColour(path, "T", key, colour), read);
        EXPECT_EQ(colour, after);
    }

    const ProfileRect untouched{9, 9, 9, 9};
    const std::tuple<const char*, bool, ProfileRect> rects[] = {{"Two", true, {1, 2, 0, 0}},
                                                                {"Spaced", true, {1, 2, 3, 4}},
                                                                {"BadComma", true, {1, 0, 0, 0}},
                                                                {"Empty", false, untouched},
                                                                {"Junk", false, untouched}};
    for (const auto& [key, read, expected] : rects) {
        SCOPED_TRACE(key);
        ProfileRect rect = untouched;
        EXPECT_EQ(readProfileRect(path, "T", key, &rect), read);
        EXPECT_EQ(rect, expected);
    }
    EXPECT_FALSE(readProfileRect(path, "T", "Two", nullptr));

    ASSERT_TRUE(writeProfileColour(path, "W", "Colour", 0x0080FF));
    ASSERT_TRUE(writeProfileRect(path, "W", "Rect", {-10, 20, 640, 480}));
    ASSERT_TRUE(writeProfileInt64(path, "W", "Min", INT64_MIN));
    EXPECT_EQ(readProfileString(path, "W", "Colour", ""), "255,128,0");
    EXPECT_EQ(readProfileString(path, "W", "Rect", ""), "-10,20,640,480");
    EXPECT_EQ(readProfileString(path, "W", "Min", ""), "-9223372036854775808");
    EXPECT_EQ(readProfileInt64(path, "W", "Min", 0), INT64_MIN);

    // Job keys outside their own section do not count.
    EXPECT_EQ(readSettingNumber(path, kJobEnabled), 0);
    EXPECT_EQ(readSettingNumber(path, kJobGoodThreshold), 3);
    EXPECT_EQ(readSettingText(path, kJobSourceFolder), "");
    EXPECT_EQ(readSettingDecimal(path, kTruePeakLimit), -1.0);    // not a number: the default
    EXPECT_EQ(readSettingDecimal(path, kLoudnessTolerance), 1.0); // not finite: the default
    EXPECT_EQ(findSettingKey(" job00 ", "GOOD.QCTSH"), &kJobGoodThreshold);
    EXPECT_EQ(findSettingKey("Job00", "Unknown"), nullptr);
}

TEST(ProfileStore, FolderMemory)
{
    TempDir dir;
    const std::string path = iniIn(dir);
    writeFile(path, "[Options]\nFolder Clips=/media/clips/\nFolder Jingle=\n");
    ProfileStore store(path);
    EXPECT_FALSE(store.SaveFolder(1)); // nothing loaded yet: nothing written
    EXPECT_EQ(readFile(path), "[Options]\nFolder Clips=/media/clips/\nFolder Jingle=\n");

    const std::string program = programFolder();
    ASSERT_FALSE(program.empty());
    EXPECT_EQ(program.back(), '/');
    EXPECT_EQ(store.GetFolder(1), "/media/clips/");
    EXPECT_EQ(store.GetFolder(0), program);
    EXPECT_EQ(store.GetFolder(4), program); // empty value: absent
    EXPECT_EQ(&store.GetFolder(6), &store.GetFolder(0));
    EXPECT_EQ(&store.GetFolder(-1), &store.GetFolder(0));

    // The slots were read once: a later change of the file does not show.
    writeProfileString(path, "Options", "Folder Vly", "/later/");
    EXPECT_EQ(store.GetFolder(5), program);

    store.GetFolder(1) = "/media/new clips/";
    EXPECT_TRUE(store.SaveFolder(1));
    store.GetFolder(0) = "/zero/";
    EXPECT_TRUE(store.SaveFolder(99));
    EXPECT_EQ(readProfileString(path, "Options", "Folder Clips", ""), "/media/new clips/");
    EXPECT_EQ(readProfileString(path, "Options", "Default Folder", ""), "/zero/");
}

TEST(ProfileStore, SettingsLocationIncludingAPortableInstallWithoutWriteAccess)
{
    TempDir dir;
    const std::string writable = dir.path().string() + "/";
    const std::string missing = writable + "no such folder/";
    // TARVOQC_HOME, program folder, XDG_CONFIG_HOME, home folder, the folder chosen
    const std::tuple<const char*, std::string, const char*, const char*, std::string> cases[] = {
        {"/srv/qc", writable, "/x", "/home/u", "/srv/qc/"},
        {"/srv/qc/", writable, nullptr, nullptr, "/srv/qc/"},
        {"", writable, "/x", "/home/u", writable},
        {nullptr, missing, "/x/cfg", "/home/u", "/x/cfg/TarvoQC/"},
        {nullptr, missing, "relative", "/home/u", "/home/u/.config/TarvoQC/"},
        {nullptr, missing, nullptr, "/home/u/", "/home/u/.config/TarvoQC/"},
        // An installed program keeps no settings beside itself, even where it may write
        // there (as root): every user gets their own.
        {nullptr, "/usr/bin/", "/x", "/root", "/x/TarvoQC/"},
        {nullptr, "/usr/local/bin/", nullptr, "/root", "/root/.config/TarvoQC/"},
        {nullptr, "/opt/tarvoqc/bin/", nullptr, "/home/u", "/home/u/.config/TarvoQC/"},
        {"/srv/qc", "/usr/bin/", nullptr, "/root", "/srv/qc/"}};
    for (const auto& [home, program, xdg, user, expected] : cases) {
        SCOPED_TRACE(expected);
        EXPECT_EQ(settingsFolderFor(home, program, xdg, user), expected);
    }

    // A portable install in a folder without write access.
    const std::string readOnly = dir.path().string() + "/";
    // Root may write anywhere: the choice is made as an unprivileged user then.
    const auto chosenFolder = [&] {
        return test::runUnprivileged(
            [&] { return settingsFolderFor(nullptr, readOnly, "/x", nullptr); });
    };
    ASSERT_EQ(::chmod(readOnly.c_str(), 0555), 0);
    EXPECT_EQ(chosenFolder(), "/x/TarvoQC/");
    ASSERT_EQ(::chmod(readOnly.c_str(), 0755), 0);
    writeFile(dir / "TarvoQC.ini", "");
    ASSERT_EQ(::chmod(readOnly.c_str(), 0555), 0);
    EXPECT_EQ(chosenFolder(), readOnly);
}

TEST(ProfileStore, HostileFilesGiveDefaults)
{
    TempDir dir;
    const std::string path = iniIn(dir);
    std::mt19937 random(7);
    std::string junk(1 << 16, '\0');
    for (char& c : junk) {
        c = static_cast<char>(random());
    }
    const std::string validStart = "[Job00]\nEnabled=1\nGood.QCTsh=5\n";
    // what, file, "Enabled" and "Good.QCTsh" read
    const std::tuple<const char*, std::string, int, int> cases[] = {
        {"binary junk", junk, 0, 3},
        {"NUL bytes", std::string(1 << 16, '\0'), 0, 3},
        {"invalid UTF-8", "[Job00]\n\xC3\x28\xFF=\xFE\nGood.QCTsh=\xE2\x82\n", 0, 0},
        {"10 MB line", "[Job00]\nEnabled=" + std::string(10 << 20, '1'), 0, 3},
        {"10 MB file, valid start", validStart + std::string(10 << 20, 'x'), 1, 5},
        {"cut at the cap", std::string(kMaxProfileBytes - 5, '\n') + "[Job00]\nEnabled=1", 0, 3}};
    for (const auto& [what, bytes, enabled, threshold] : cases) {
        SCOPED_TRACE(what);
        writeFile(path, bytes);
        EXPECT_EQ(readSettingNumber(path, kJobEnabled), enabled);
        EXPECT_EQ(readSettingNumber(path, kJobGoodThreshold), threshold);
        // A file too long to read whole is never rewritten.
        const bool tooLong = bytes.size() > kMaxProfileBytes;
        EXPECT_EQ(writeProfileString(path, "Options", "Folder Vly", "/v/"), !tooLong);
        EXPECT_EQ(readFile(path).substr(0, bytes.size()), bytes);
    }

    // Things that are not files in the file's place: defaults, no hang, no write.
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_EQ(readSettingNumber(path, kJobGoodThreshold), 3);
    EXPECT_FALSE(writeProfileString(path, "Job00", "Enabled", "1"));
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(readSettingNumber(path, kJobGoodThreshold), 3);
    EXPECT_FALSE(writeProfileString(path, "Job00", "Enabled", "1"));
    EXPECT_TRUE(fs::is_fifo(path));
}

TEST(ProfileStore, ConcurrentWritersLoseNoUpdate)
{
    TempDir dir;
    const std::string path = iniIn(dir);
    ProfileStore store(path);
    ASSERT_TRUE(store.WriteString("Job00", "Enabled", "1"));
    constexpr int kThreads = 4;
    constexpr int kKeys = 25;
    const char* const kSections[] = {"S0", "S1", "S2"};
    std::atomic<bool> done{false};
    std::atomic<int> badReads{0};
    std::thread reader([&] {
        while (!done.load()) {
            std::string out;
            if (!store.ReadString("Job00", "Enabled", out) || out != "1") {
                ++badReads;
            }
        }
    });
    std::vector<std::thread> writers;
    writers.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            for (int k = 0; k < kKeys; ++k) {
                const std::string key = std::to_string(t) + "." + std::to_string(k);
                const char* section = kSections[k % 3];
                // Half through the store, half through the path functions: one lock for both.
                if (k % 2 == 0) {
                    store.WriteInt(section, key, t * 1000 + k);
                } else {
                    writeProfileInt64(path, section, key, t * 1000 + k);
                }
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    done = true;
    reader.join();
    EXPECT_EQ(badReads.load(), 0);
    for (int t = 0; t < kThreads; ++t) {
        for (int k = 0; k < kKeys; ++k) {
            const std::string key = std::to_string(t) + "." + std::to_string(k);
            EXPECT_EQ(readProfileInt64(path, kSections[k % 3], key, -1), t * 1000 + k) << key;
        }
    }
}

// Inputs kept from fuzzing, hand-made hostile files and the fuzz seeds: each must parse,
// read and take a change without disturbing any other key.
TEST(ProfileStore, FuzzRegressionsAndSeedsKeepTheInvariants)
{
    std::size_t files = 0;
    for (const fs::path& folder : {fs::path(TARVOQC_SETTINGS_FUZZ_REGRESSIONS),
                                   fs::path(TARVOQC_FUZZ_DIR) / "corpus" / "fuzz_settings"}) {
        for (const auto& entry : fs::directory_iterator(folder)) {
            SCOPED_TRACE(entry.path().string());
            ++files;
            const std::string bytes = readFile(entry.path());
            EXPECT_EQ(fuzz::checkSettings(bytes), "");
            EXPECT_TRUE(ProfileDocument(bytes).set("Job00", "Source.Folder", "/in/"));
            EXPECT_EQ(fuzz::checkSettingChange(bytes, {"Job00", "Source.Folder"}, " /in/ \"x\" "),
                      "");
        }
    }
    EXPECT_GT(files, 6u);
}

} // namespace
} // namespace tarvoqc
