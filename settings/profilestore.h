#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "results/checkdefaults.h"

namespace tarvoqc {

// ---------------------------------------------------------------------------------------
// Where the settings live
// ---------------------------------------------------------------------------------------

inline constexpr std::string_view kSettingsFileName = "TarvoQC.ini";
inline constexpr std::string_view kLogsFolderName = "LogsQC";
// Names the settings folder outright (tests and packaged installs).
inline constexpr const char* kHomeVariable = "TARVOQC_HOME";

// The folder of the running executable with a trailing "/"; empty when the executable
// cannot be found (no /proc).
std::string programFolder();

// The settings folder, always with a trailing "/" (empty only when nothing at all is
// known): $TARVOQC_HOME when set and not empty; else the program folder when it already
// holds TarvoQC.ini, or when it is writable and not under a system prefix (a portable copy);
// else $XDG_CONFIG_HOME/TarvoQC/ when that variable is an absolute path; else
// ~/.config/TarvoQC/. The folder is not created here; the first settings write creates it.
std::string settingsFolder();
// Whether a folder lies where installed programs live (/usr/, /opt/ and the like), shared
// by every user of the machine.
bool underSystemPrefix(std::string_view folder);

// settingsFolder() + "TarvoQC.ini".
std::string settingsPath();
// settingsFolder() + "LogsQC/" (the daily log's folder; not created here).
std::string logsFolder();

// The rule of settingsFolder() with its inputs given (null or empty: not set), so that a
// caller or a test can apply it to other surroundings. programFolder ends in "/".
std::string settingsFolderFor(const char* home, const std::string& programFolder,
                              const char* xdgConfigHome, const char* userHome);

// ---------------------------------------------------------------------------------------
// Sections and keys: the one table of every fixed key with its default
// ---------------------------------------------------------------------------------------

inline constexpr std::string_view kSectionOptions = "Options";
inline constexpr std::string_view kSectionJob = "Job00";
// One key per window placement name ("MAIN" for the main window), no defaults; the
// values ("640, 480", "-1, 100, 80, 640, 480") are plain strings to this store.
inline constexpr std::string_view kSectionWindowsSize = "WindowsSize";

enum class SettingType { Folder, Flag, Integer, Text, Decimal };

struct SettingKey
{
    std::string_view section;
    std::string_view key;
    SettingType type;
    // Text: the default text. Folder: the default sub-folder below the program folder
    // (empty: the program folder itself).
    std::string_view defaultText;
    // Flag and Integer: the default number.
    int defaultNumber;
    // Decimal: the default number.
    double defaultDecimal;
};

inline constexpr std::size_t kFolderSlotCount = 6;

inline constexpr std::array<SettingKey, 22> kSettingKeys = {{
    // Folder memory of the open dialogs; row i is slot i.
    {kSectionOptions, "Default Folder", SettingType::Folder, "", 0, 0},
    {kSectionOptions, "Folder Clips", SettingType::Folder, "", 0, 0},
    {kSectionOptions, "Folder Playlist", SettingType::Folder, "", 0, 0},
    {kSectionOptions, "Folder Program", SettingType::Folder, "", 0, 0},
    {kSectionOptions, "Folder Jingle", SettingType::Folder, "", 0, 0},
    {kSectionOptions, "Folder Vly", SettingType::Folder, "", 0, 0},
    // The watch job, in the order its keys are written.
    {kSectionJob, "Enabled", SettingType::Flag, "", 0, 0},
    {kSectionJob, "Source.Folder", SettingType::Text, "", 0, 0},
    {kSectionJob, "Good.QCTsh", SettingType::Integer, "", kDefaultGoodThreshold, 0},
    {kSectionJob, "Good.Move.Enable", SettingType::Flag, "", 0, 0},
    {kSectionJob, "Good.Move.Folder", SettingType::Text, "", 0, 0},
    {kSectionJob, "Bad.Move.Enable", SettingType::Flag, "", 0, 0},
    {kSectionJob, "Bad.Move.Folder", SettingType::Text, "", 0, 0},
    // How the window and the watch job check: the check level, and the limits of level 4
    // (LUFS, LU, dBTP).
    {kSectionOptions, "Check.Level", SettingType::Integer, "", kDefaultCheckLevel, 0},
    {kSectionOptions, "Loudness.Target", SettingType::Decimal, "", 0, kDefaultLoudnessTarget},
    {kSectionOptions, "Loudness.Tolerance", SettingType::Decimal, "", 0, kDefaultLoudnessTolerance},
    {kSectionOptions, "TruePeak.Limit", SettingType::Decimal, "", 0, kDefaultTruePeakLimit},
    // The limits of each check's process: memory (MiB, 0 none) and the time without
    // activity after which a check counts as hung (s, 0 never).
    {kSectionOptions, "Check.MaxMemory", SettingType::Integer, "", kDefaultWorkerMemoryMiB, 0},
    {kSectionOptions, "Check.HangTimeout", SettingType::Integer, "", kDefaultHangTimeoutSeconds, 0},
    // The seconds a clip must stand unchanged in the watched folder before it is checked.
    {kSectionJob, "Settle.Time", SettingType::Integer, "", kDefaultSettleSeconds, 0},
    // The delivery profile the window and the watch job grade clips by (a name or a file;
    // empty: none). "Job00" has its own, which holds over this one for the watch job.
    {kSectionOptions, "Check.Profile", SettingType::Text, "", 0, 0},
    {kSectionJob, "Check.Profile", SettingType::Text, "", 0, 0},
}};

inline constexpr std::size_t kFolderClipsSlot = 1; // the main window's "Open Clips"
inline constexpr const SettingKey& kJobEnabled = kSettingKeys[6];
inline constexpr const SettingKey& kJobSourceFolder = kSettingKeys[7];
inline constexpr const SettingKey& kJobGoodThreshold = kSettingKeys[8];
inline constexpr const SettingKey& kJobGoodMoveEnable = kSettingKeys[9];
inline constexpr const SettingKey& kJobGoodMoveFolder = kSettingKeys[10];
inline constexpr const SettingKey& kJobBadMoveEnable = kSettingKeys[11];
inline constexpr const SettingKey& kJobBadMoveFolder = kSettingKeys[12];
inline constexpr const SettingKey& kCheckLevel = kSettingKeys[13];
inline constexpr const SettingKey& kLoudnessTarget = kSettingKeys[14];
inline constexpr const SettingKey& kLoudnessTolerance = kSettingKeys[15];
inline constexpr const SettingKey& kTruePeakLimit = kSettingKeys[16];
inline constexpr const SettingKey& kCheckMaxMemory = kSettingKeys[17];
inline constexpr const SettingKey& kCheckHangTimeout = kSettingKeys[18];
inline constexpr const SettingKey& kJobSettleTime = kSettingKeys[19];
inline constexpr const SettingKey& kCheckProfile = kSettingKeys[20];
inline constexpr const SettingKey& kJobProfile = kSettingKeys[21];

// The row of a fixed key (names compared as the file compares them), or null.
const SettingKey* findSettingKey(std::string_view section, std::string_view key);

// ---------------------------------------------------------------------------------------
// The file format
// ---------------------------------------------------------------------------------------

// Caps that keep a broken or hostile file from costing more than a little memory: only the
// first kMaxProfileBytes of a file are read (a cut-off last line is dropped), and lines
// longer than kMaxProfileLineBytes are skipped as if they were not there. A write that
// would need more than either is refused, and a file longer than kMaxProfileBytes is never
// rewritten (the write fails and the file stays as it is).
inline constexpr std::size_t kMaxProfileBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxProfileLineBytes = std::size_t{64} << 10;

// The text of a settings file in memory: "[Section]" lines and "key=value" lines, UTF-8,
// LF or CR LF line ends, an optional UTF-8 byte-order mark.
//
// Reading is forgiving, so that hand-edited files read as meant: section and key names are
// compared without regard to ASCII case and to blanks around them; the first of duplicate
// keys wins, and a section name that appears twice is one section whose keys are searched
// in file order; lines without "=", keys before the first section, lines starting with ";"
// and lines holding a NUL byte are ignored. A value loses the blanks around it and then one
// pair of enclosing double quotes. The value bytes are handed out as they stand (no UTF-8
// check, so a path in any byte encoding survives a round trip); nothing after "=" is a
// comment, so ";" and "=" inside values are kept.
//
// Changing keeps every other byte of the text: a present key's line is replaced in place
// (its line end kept), a new key goes after the last line of its section's first
// occurrence, a new section is appended at the end after an empty line; new line ends
// follow the text's first line end (LF when it has none).
//
// Thread-safety: none; one owner at a time.
class ProfileDocument
{
public:
    ProfileDocument() = default;
    explicit ProfileDocument(std::string bytes) : m_bytes(std::move(bytes)) {}

    const std::string& bytes() const { return m_bytes; }

    // The value of key in section; nullopt when the key is not there. A present key with
    // an empty value gives an empty string.
    std::optional<std::string> find(std::string_view section, std::string_view key) const;

    // Sets key in section to value. Values with blanks at either end or that start and end
    // with a double quote are written in double quotes, so that find() gives back exactly
    // value. False, with the text unchanged, when the file cannot hold it: an empty
    // section or key name, a section name holding "]", a key name holding "=" or starting
    // with "[" or ";", a CR, LF or NUL anywhere, or a result over the caps above.
    bool set(std::string_view section, std::string_view key, std::string_view value);

    // Removes every line of key in section. False only for names set() would refuse.
    bool remove(std::string_view section, std::string_view key);

private:
    std::string m_bytes;
};

// The integer conversions of a value text, forgiving as reading is. Leading blanks, an
// optional sign, then decimal digits up to the first other character; no digit gives 0.
// Values beyond the type's range saturate at its limits.
std::int64_t profileTextToInt64(std::string_view text);
int profileTextToInt(std::string_view text);

// Reads up to count decimals separated by commas, as "%d,%d,..." would: each number may
// have blanks and a sign before it, the comma must follow the number at once, and reading
// stops at the first mismatch. Numbers saturate at the int limits. Returns how many were
// read; values past that are left as they were.
std::size_t scanProfileInts(std::string_view text, int* values, std::size_t count);

// ---------------------------------------------------------------------------------------
// The store
// ---------------------------------------------------------------------------------------

// One place settings are kept. The program uses the file backend; a registry-like backend
// (a key path with one sub-key per section) has no implementation on this platform.
//
// Thread-safety: every operation may be called from any thread.
class ProfileBackend
{
public:
    virtual ~ProfileBackend() = default;

    // A read into a buffer: out = the value, or def when the key is absent, cut to at
    // most size - 1 characters (never inside a UTF-8 sequence; size 0 gives nothing).
    // True when at least one character came out: a present empty value counts as absent.
    virtual bool ReadString(std::string_view section, std::string_view key, std::string& out,
                            std::size_t size, std::string_view def) const = 0;
    virtual bool WriteString(std::string_view section, std::string_view key,
                             std::string_view value) = 0;
    // The value as signed decimal text.
    virtual bool WriteInt(std::string_view section, std::string_view key, std::int64_t value) = 0;
    // Removes the key; true also when it was not there.
    virtual bool DeleteValue(std::string_view section, std::string_view key) = 0;
};

// The settings file at a path, read and written as a ProfileDocument.
//
// Every read reads the file anew (nothing is cached, so changes by another program show at
// once); a missing, unreadable or non-regular file reads as empty. A write reads the file,
// changes the one key, writes a temporary file in the same folder, flushes it to disk and
// renames it over the old one (then flushes the folder), so a crash never leaves a
// half-written file and the rest of the file is never lost; the folder is created when
// missing, a symbolic link is followed and the file's permission bits are kept. A file that
// exists but cannot be read, or is longer than kMaxProfileBytes, is not rewritten: the
// write returns false.
//
// Reads and writes of every settings file of the process take one process-wide lock, so
// writers in several threads never lose each other's updates. Two processes writing at the
// same moment may still lose one of the two updates.
class FileProfileBackend final : public ProfileBackend
{
public:
    explicit FileProfileBackend(std::string path) : m_path(std::move(path)) {}

    const std::string& path() const { return m_path; }

    bool ReadString(std::string_view section, std::string_view key, std::string& out,
                    std::size_t size, std::string_view def) const override;
    bool WriteString(std::string_view section, std::string_view key,
                     std::string_view value) override;
    bool WriteInt(std::string_view section, std::string_view key, std::int64_t value) override;
    bool DeleteValue(std::string_view section, std::string_view key) override;

private:
    std::string m_path;
};

// The program's settings store with the folder memory of its open dialogs.
//
// Thread-safety: ReadString, WriteString, WriteInt and DeleteValue may be called from any
// thread. The folder memory (GetFolder, SaveFolder) belongs to the window thread.
class ProfileStore
{
public:
    // Buffer of the short ReadString, in characters (the value keeps at most 511).
    static constexpr std::size_t kReadBufferChars = 512;
    // Buffer of a folder slot, in characters: paths are not limited to 260.
    static constexpr std::size_t kFolderBufferChars = 4096;

    // The file backend over the settings file at path. programFolder (with its trailing
    // "/") is the folder slots' default.
    explicit ProfileStore(std::string path, std::string programFolder = tarvoqc::programFolder());
    // Any other backend; name is its key path.
    ProfileStore(std::string name, std::unique_ptr<ProfileBackend> backend,
                 std::string programFolder);
    virtual ~ProfileStore();
    ProfileStore(const ProfileStore&) = delete;
    ProfileStore& operator=(const ProfileStore&) = delete;

    // The settings file path (file backend) or key path.
    const std::string& name() const { return m_name; }

    // Reads with an empty default into a buffer of kReadBufferChars characters; true only
    // when the value has at least one character. An empty or missing value leaves out empty.
    bool ReadString(std::string_view section, std::string_view key, std::string& out) const;
    // The same with the caller's buffer size (characters, the terminator counted, as a
    // C buffer holds them) and default: a missing key gives def, and true when out is not
    // empty.
    bool ReadString(std::string_view section, std::string_view key, std::string& out,
                    std::size_t size, std::string_view def) const;
    bool WriteString(std::string_view section, std::string_view key, std::string_view value);
    bool WriteInt(std::string_view section, std::string_view key, std::int64_t value);
    bool DeleteValue(std::string_view section, std::string_view key);

    // The folder text of a slot, changeable in place. A slot outside 0..5 means slot 0. The
    // first call loads all six slots from section "Options"; a slot whose key is missing or
    // empty gets the program folder (plus its default sub-folder and "/" where it has one).
    std::string& GetFolder(int slot);
    // Writes the slot's folder to its key; false, writing nothing, before the slots have
    // been loaded or when the write fails. A slot outside 0..5 means slot 0.
    bool SaveFolder(int slot);

private:
    void loadFolders();

    std::string m_name;
    std::unique_ptr<ProfileBackend> m_backend;
    std::string m_programFolder;
    std::array<std::string, kFolderSlotCount> m_folders;
    bool m_foldersLoaded = false;
};

// ---------------------------------------------------------------------------------------
// Typed values on a settings file given by path
// ---------------------------------------------------------------------------------------
//
// Each call reads or writes the file at once through a FileProfileBackend (same locking and
// safety). Writes return false when the file could not be written; callers may ignore it.

// The value (buffer of 512 characters), or def when the key is missing.
std::string readProfileString(const std::string& path, std::string_view section,
                              std::string_view key, std::string_view def);
bool writeProfileString(const std::string& path, std::string_view section, std::string_view key,
                        std::string_view value);

// An empty or missing value gives def; any other text is converted by profileTextToInt64
// (so a value without digits gives 0). Buffer of 256 characters.
std::int64_t readProfileInt64(const std::string& path, std::string_view section,
                              std::string_view key, std::int64_t def);
bool writeProfileInt64(const std::string& path, std::string_view section, std::string_view key,
                       std::int64_t value);

// The integer read of flags and small numbers: a missing or empty value gives def, any
// other text profileTextToInt.
int readProfileInt(const std::string& path, std::string_view section, std::string_view key,
                   int def);

// A colour is packed 0x00BBGGRR and stored as "red,green,blue" in decimal.
//
// Reads only when colour is not 0 (a colour whose default is black is never read). The
// value's numbers (missing ones 0) are each cut to 8 bits and packed into colour. An empty
// value, or one that does not start with a number, leaves colour as it is. True when colour
// was set from the file.
bool readProfileColour(const std::string& path, std::string_view section, std::string_view key,
                       std::uint32_t& colour);
bool writeProfileColour(const std::string& path, std::string_view section, std::string_view key,
                        std::uint32_t colour);

struct ProfileRect
{
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;

    bool operator==(const ProfileRect&) const = default;
};

// Stored as "left,top,right,bottom" in decimal. Reading fills the numbers present, the
// missing ones 0; false, with *rect untouched, when rect is null or the value is empty or
// does not start with a number.
bool readProfileRect(const std::string& path, std::string_view section, std::string_view key,
                     ProfileRect* rect);
bool writeProfileRect(const std::string& path, std::string_view section, std::string_view key,
                      const ProfileRect& rect);

// A fixed key with the table's default: Flag and Integer rows by readProfileInt, Text rows
// by readProfileString (a Folder row gives its stored text or "").
int readSettingNumber(const std::string& path, const SettingKey& setting);
std::string readSettingText(const std::string& path, const SettingKey& setting);
// A Decimal row: the value when the whole of it is a finite decimal number ("-23", "0.5",
// "-1e0"; "." is the decimal point whatever the locale), otherwise the table's default.
double readSettingDecimal(const std::string& path, const SettingKey& setting);

} // namespace tarvoqc
