#include "settings/profilestore.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "files/fileio.h"

namespace tarvoqc {

namespace {

// ---- Text helpers ---------------------------------------------------------------------

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

std::string_view trim(std::string_view text)
{
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

char lowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameName(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lowerAscii(a[i]) != lowerAscii(b[i])) {
            return false;
        }
    }
    return true;
}

// The first maxChars characters of text; a character starts at every byte that is not a
// UTF-8 continuation byte, so a cut never splits a sequence.
std::string_view leadingChars(std::string_view text, std::size_t maxChars)
{
    std::size_t chars = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (chars == maxChars) {
                return text.substr(0, i);
            }
            ++chars;
        }
    }
    return text;
}

std::string withSlash(std::string folder)
{
    if (!folder.empty() && folder.back() != '/') {
        folder += '/';
    }
    return folder;
}

// ---- Lines ----------------------------------------------------------------------------

enum class LineKind { Blank, Ignored, Section, Key };

struct Line
{
    std::size_t begin = 0; // first byte
    std::size_t end = 0;   // past the content (before CR LF or LF)
    std::size_t next = 0;  // first byte of the next line
    LineKind kind = LineKind::Blank;
    std::string_view name;  // section or key name, trimmed
    std::string_view value; // key value, trimmed and unquoted
};

// Walks the lines of a settings text and says what each one is.
class LineReader
{
public:
    explicit LineReader(std::string_view text) : m_text(text)
    {
        if (m_text.substr(0, 3) == "\xEF\xBB\xBF") {
            m_pos = 3;
        }
    }

    bool next(Line& line)
    {
        if (m_pos >= m_text.size()) {
            return false;
        }
        line = Line{};
        line.begin = m_pos;
        const void* lf = std::memchr(m_text.data() + m_pos, '\n', m_text.size() - m_pos);
        std::size_t stop =
            lf ? static_cast<std::size_t>(static_cast<const char*>(lf) - m_text.data())
               : m_text.size();
        line.next = lf ? stop + 1 : stop;
        line.end = (stop > m_pos && m_text[stop - 1] == '\r') ? stop - 1 : stop;
        m_pos = line.next;
        classify(line);
        return true;
    }

private:
    void classify(Line& line) const
    {
        std::string_view content = m_text.substr(line.begin, line.end - line.begin);
        std::string_view text = trim(content);
        if (text.empty()) {
            line.kind = LineKind::Blank;
            return;
        }
        if (content.size() > kMaxProfileLineBytes || content.find('\0') != std::string_view::npos ||
            text.front() == ';') {
            line.kind = LineKind::Ignored;
            return;
        }
        if (text.front() == '[') {
            // A header without "]" still ends the section before it, but opens none that
            // can be asked for (its name stays empty, and empty names are never looked up).
            line.kind = LineKind::Section;
            std::size_t close = text.find(']');
            if (close != std::string_view::npos) {
                line.name = trim(text.substr(1, close - 1));
            }
            return;
        }
        std::size_t eq = text.find('=');
        if (eq == std::string_view::npos || trim(text.substr(0, eq)).empty()) {
            line.kind = LineKind::Ignored;
            return;
        }
        line.kind = LineKind::Key;
        line.name = trim(text.substr(0, eq));
        std::string_view value = trim(text.substr(eq + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            value = value.substr(1, value.size() - 2);
        }
        line.value = value;
    }

    std::string_view m_text;
    std::size_t m_pos = 0;
};

bool hasLineBreakOrNul(std::string_view text)
{
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

bool validSection(std::string_view section)
{
    return !section.empty() && section.find(']') == std::string_view::npos &&
           !hasLineBreakOrNul(section);
}

bool validKey(std::string_view key)
{
    return !key.empty() && key.find('=') == std::string_view::npos && key.front() != '[' &&
           key.front() != ';' && !hasLineBreakOrNul(key);
}

std::string_view lineEndOf(std::string_view text)
{
    std::size_t lf = text.find('\n');
    return (lf != std::string_view::npos && lf > 0 && text[lf - 1] == '\r') ? "\r\n" : "\n";
}

// ---- Files ----------------------------------------------------------------------------

// Every settings file of the process is read and written under this one lock: a write is
// a read-change-rename cycle, and two of them interleaved would lose one update.
std::mutex& fileMutex()
{
    static std::mutex mutex;
    return mutex;
}

// The settings file as read for a change: the read limit is kMaxProfileBytes.
FileBytes loadFile(const std::string& path)
{
    return readWholeFile(path, kMaxProfileBytes);
}

// The text that reads see: a missing or unreadable file is empty, a cut-off last line of a
// too long file is dropped rather than read as a shorter value.
ProfileDocument documentForReading(const std::string& path)
{
    FileBytes loaded = loadFile(path);
    if (loaded.status == FileBytes::Status::TooLong) {
        std::size_t lastLf = loaded.bytes.rfind('\n');
        loaded.bytes.resize(lastLf == std::string::npos ? 0 : lastLf + 1);
    } else if (loaded.status != FileBytes::Status::Ok) {
        return {};
    }
    return ProfileDocument(std::move(loaded.bytes));
}

template <typename Change> bool changeFile(const std::string& path, Change change)
{
    std::lock_guard lock(fileMutex());
    // A link is written through, so that a settings file kept elsewhere stays there.
    const std::string target = followLinks(path);
    FileBytes loaded = loadFile(target);
    if (loaded.status == FileBytes::Status::Failed || loaded.status == FileBytes::Status::TooLong) {
        return false;
    }
    std::string before = loaded.bytes;
    ProfileDocument document(std::move(loaded.bytes));
    if (!change(document)) {
        return false;
    }
    if (loaded.status == FileBytes::Status::Ok && document.bytes() == before) {
        return true;
    }
    return replaceFile(target, document.bytes(), true);
}

// ---- Numbers --------------------------------------------------------------------------

// Parses blanks, an optional sign and decimal digits from the front of text, saturating.
// Returns the number of bytes used (0: no digit).
std::size_t parseDecimal(std::string_view text, std::int64_t& value)
{
    std::size_t i = 0;
    while (i < text.size() && isBlank(text[i])) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    std::size_t digitsStart = i;
    // Accumulate towards the negative side: it holds one more value than the positive one.
    std::int64_t acc = 0;
    bool saturated = false;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        int digit = text[i] - '0';
        if (acc < (INT64_MIN + digit) / 10) {
            saturated = true;
        } else if (!saturated) {
            acc = acc * 10 - digit;
        }
    }
    if (i == digitsStart) {
        value = 0;
        return 0;
    }
    if (saturated) {
        value = negative ? INT64_MIN : INT64_MAX;
    } else {
        value = negative ? acc : (acc == INT64_MIN ? INT64_MAX : -acc);
    }
    return i;
}

int clampToInt(std::int64_t value)
{
    return value < INT_MIN ? INT_MIN : value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

std::size_t slotIndex(int slot)
{
    return (slot < 0 || static_cast<std::size_t>(slot) >= kFolderSlotCount)
               ? 0
               : static_cast<std::size_t>(slot);
}

} // namespace

// ---- Locations ------------------------------------------------------------------------

bool underSystemPrefix(std::string_view folder)
{
    for (const std::string_view prefix :
         {"/usr/", "/bin/", "/sbin/", "/lib/", "/lib64/", "/opt/", "/etc/", "/snap/"}) {
        if (folder.substr(0, prefix.size()) == prefix) {
            return true;
        }
    }
    return false;
}

std::string programFolder()
{
    std::vector<char> buffer(4096);
    for (;;) {
        ssize_t got = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (got < 0) {
            return {};
        }
        if (static_cast<std::size_t>(got) < buffer.size()) {
            std::string exe(buffer.data(), static_cast<std::size_t>(got));
            std::size_t slash = exe.rfind('/');
            return slash == std::string::npos ? std::string{} : exe.substr(0, slash + 1);
        }
        if (buffer.size() >= (1u << 20)) {
            return {};
        }
        buffer.resize(buffer.size() * 2);
    }
}

std::string settingsFolderFor(const char* home, const std::string& programFolder,
                              const char* xdgConfigHome, const char* userHome)
{
    if (home != nullptr && *home != '\0') {
        return withSlash(home);
    }
    if (!programFolder.empty()) {
        // A program installed under a system prefix (by a package, by `make install`) is
        // shared by every user of the machine: a service started by root, which may write
        // into /usr/bin, would otherwise leave its settings and logs there and point every
        // other user at them. Only a copy that already carries its settings file there is
        // portable.
        std::string ini = programFolder + std::string(kSettingsFileName);
        if (::access(ini.c_str(), F_OK) == 0 ||
            (!underSystemPrefix(programFolder) && ::access(programFolder.c_str(), W_OK) == 0)) {
            return programFolder;
        }
    }
    // A relative XDG_CONFIG_HOME is invalid and ignored, as the base-directory rules say.
    if (xdgConfigHome != nullptr && xdgConfigHome[0] == '/') {
        return withSlash(xdgConfigHome) + "TarvoQC/";
    }
    if (userHome != nullptr && *userHome != '\0') {
        return withSlash(userHome) + ".config/TarvoQC/";
    }
    return programFolder;
}

std::string settingsFolder()
{
    // The environment is read, never changed, once threads run.
    const char* userHome = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe)
    std::string passwdHome;
    if (userHome == nullptr || *userHome == '\0') {
        struct passwd entry
        {};
        struct passwd* found = nullptr;
        std::vector<char> buffer(16384);
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
            found != nullptr && found->pw_dir != nullptr) {
            passwdHome = found->pw_dir;
        }
        userHome = passwdHome.c_str();
    }
    return settingsFolderFor(std::getenv(kHomeVariable), // NOLINT(concurrency-mt-unsafe)
                             programFolder(),
                             std::getenv("XDG_CONFIG_HOME"), // NOLINT(concurrency-mt-unsafe)
                             userHome);
}

std::string settingsPath()
{
    return settingsFolder() + std::string(kSettingsFileName);
}

std::string logsFolder()
{
    return settingsFolder() + std::string(kLogsFolderName) + "/";
}

const SettingKey* findSettingKey(std::string_view section, std::string_view key)
{
    for (const SettingKey& row : kSettingKeys) {
        if (sameName(row.section, trim(section)) && sameName(row.key, trim(key))) {
            return &row;
        }
    }
    return nullptr;
}

// ---- ProfileDocument ------------------------------------------------------------------

std::optional<std::string> ProfileDocument::find(std::string_view section,
                                                 std::string_view key) const
{
    section = trim(section);
    key = trim(key);
    if (section.empty() || key.empty()) {
        return std::nullopt;
    }
    LineReader reader(m_bytes);
    Line line;
    bool inSection = false;
    while (reader.next(line)) {
        if (line.kind == LineKind::Section) {
            inSection = sameName(line.name, section);
        } else if (inSection && line.kind == LineKind::Key && sameName(line.name, key)) {
            return std::string(line.value);
        }
    }
    return std::nullopt;
}

bool ProfileDocument::set(std::string_view section, std::string_view key, std::string_view value)
{
    section = trim(section);
    key = trim(key);
    if (!validSection(section) || !validKey(key) || hasLineBreakOrNul(value) ||
        section.size() + 2 > kMaxProfileLineBytes) {
        return false;
    }
    std::string text(key);
    text += '=';
    bool quote =
        !value.empty() && (isBlank(value.front()) || isBlank(value.back()) ||
                           (value.size() >= 2 && value.front() == '"' && value.back() == '"'));
    if (quote) {
        text += '"';
    }
    text += value;
    if (quote) {
        text += '"';
    }
    if (text.size() > kMaxProfileLineBytes) {
        return false;
    }

    // The key's line where it is, else the end of the last non-blank line of the section's
    // first occurrence.
    LineReader reader(m_bytes);
    Line line;
    bool inSection = false;
    bool seenSection = false;
    bool inFirstOccurrence = false;
    std::size_t insertAt = 0;
    std::optional<Line> found;
    while (reader.next(line)) {
        if (line.kind == LineKind::Section) {
            inSection = sameName(line.name, section);
            inFirstOccurrence = inSection && !seenSection;
            seenSection = seenSection || inSection;
            if (inFirstOccurrence) {
                insertAt = line.next;
            }
            continue;
        }
        if (inSection && line.kind == LineKind::Key && sameName(line.name, key)) {
            found = line;
            break;
        }
        if (inFirstOccurrence && line.kind != LineKind::Blank) {
            insertAt = line.next;
        }
    }

    std::string eol(lineEndOf(m_bytes));
    std::string updated;
    if (found) {
        updated = m_bytes.substr(0, found->begin) + text + m_bytes.substr(found->end);
    } else {
        std::string insert;
        std::size_t at = seenSection ? insertAt : m_bytes.size();
        // The line before the insertion point may be the file's last, without a line end.
        bool needBreak = at > 0 && m_bytes[at - 1] != '\n';
        if (needBreak) {
            insert += eol;
        }
        if (!seenSection) {
            if (!m_bytes.empty()) {
                insert += eol;
            }
            insert += "[" + std::string(section) + "]" + eol;
        }
        insert += text + eol;
        updated = m_bytes.substr(0, at) + insert + m_bytes.substr(at);
    }
    if (updated.size() > kMaxProfileBytes) {
        return false;
    }
    m_bytes = std::move(updated);
    return true;
}

bool ProfileDocument::remove(std::string_view section, std::string_view key)
{
    section = trim(section);
    key = trim(key);
    if (!validSection(section) || !validKey(key)) {
        return false;
    }
    std::string kept;
    kept.reserve(m_bytes.size());
    LineReader reader(m_bytes);
    Line line;
    bool inSection = false;
    std::size_t copiedTo = 0;
    while (reader.next(line)) {
        if (line.kind == LineKind::Section) {
            inSection = sameName(line.name, section);
        } else if (inSection && line.kind == LineKind::Key && sameName(line.name, key)) {
            kept.append(m_bytes, copiedTo, line.begin - copiedTo);
            copiedTo = line.next;
        }
    }
    kept.append(m_bytes, copiedTo, std::string::npos);
    m_bytes = std::move(kept);
    return true;
}

// ---- Numbers --------------------------------------------------------------------------

std::int64_t profileTextToInt64(std::string_view text)
{
    std::int64_t value = 0;
    parseDecimal(text, value);
    return value;
}

int profileTextToInt(std::string_view text)
{
    return clampToInt(profileTextToInt64(text));
}

std::size_t scanProfileInts(std::string_view text, int* values, std::size_t count)
{
    std::size_t read = 0;
    while (read < count) {
        std::int64_t value = 0;
        std::size_t used = parseDecimal(text, value);
        if (used == 0) {
            break;
        }
        values[read++] = clampToInt(value);
        text.remove_prefix(used);
        if (read == count || text.empty() || text.front() != ',') {
            break;
        }
        text.remove_prefix(1);
    }
    return read;
}

// ---- FileProfileBackend ---------------------------------------------------------------

bool FileProfileBackend::ReadString(std::string_view section, std::string_view key,
                                    std::string& out, std::size_t size, std::string_view def) const
{
    std::optional<std::string> value;
    {
        std::lock_guard lock(fileMutex());
        value = documentForReading(m_path).find(section, key);
    }
    std::string_view text = value ? std::string_view(*value) : def;
    out = size == 0 ? std::string{} : std::string(leadingChars(text, size - 1));
    return !out.empty();
}

bool FileProfileBackend::WriteString(std::string_view section, std::string_view key,
                                     std::string_view value)
{
    return changeFile(m_path,
                      [&](ProfileDocument& document) { return document.set(section, key, value); });
}

bool FileProfileBackend::WriteInt(std::string_view section, std::string_view key,
                                  std::int64_t value)
{
    return WriteString(section, key, std::to_string(value));
}

bool FileProfileBackend::DeleteValue(std::string_view section, std::string_view key)
{
    return changeFile(m_path,
                      [&](ProfileDocument& document) { return document.remove(section, key); });
}

// ---- ProfileStore ---------------------------------------------------------------------

ProfileStore::ProfileStore(std::string path, std::string programFolder)
    : m_name(path), m_backend(std::make_unique<FileProfileBackend>(std::move(path))),
      m_programFolder(std::move(programFolder))
{}

ProfileStore::ProfileStore(std::string name, std::unique_ptr<ProfileBackend> backend,
                           std::string programFolder)
    : m_name(std::move(name)), m_backend(std::move(backend)),
      m_programFolder(std::move(programFolder))
{}

ProfileStore::~ProfileStore() = default;

bool ProfileStore::ReadString(std::string_view section, std::string_view key,
                              std::string& out) const
{
    return ReadString(section, key, out, kReadBufferChars, {});
}

bool ProfileStore::ReadString(std::string_view section, std::string_view key, std::string& out,
                              std::size_t size, std::string_view def) const
{
    if (!m_backend) {
        out.clear();
        return false;
    }
    return m_backend->ReadString(section, key, out, size, def);
}

bool ProfileStore::WriteString(std::string_view section, std::string_view key,
                               std::string_view value)
{
    return m_backend && m_backend->WriteString(section, key, value);
}

bool ProfileStore::WriteInt(std::string_view section, std::string_view key, std::int64_t value)
{
    return m_backend && m_backend->WriteInt(section, key, value);
}

bool ProfileStore::DeleteValue(std::string_view section, std::string_view key)
{
    return m_backend && m_backend->DeleteValue(section, key);
}

static_assert(kSettingKeys[0].type == SettingType::Folder &&
                  kSettingKeys[kFolderSlotCount - 1].type == SettingType::Folder &&
                  kSettingKeys[kFolderSlotCount].type != SettingType::Folder,
              "the first rows of the key table are the folder slots");

void ProfileStore::loadFolders()
{
    for (std::size_t slot = 0; slot < kFolderSlotCount; ++slot) {
        const SettingKey& row = kSettingKeys[slot];
        std::string value;
        if (ReadString(row.section, row.key, value, kFolderBufferChars, {})) {
            m_folders[slot] = std::move(value);
        } else {
            m_folders[slot] = m_programFolder;
            if (!row.defaultText.empty()) {
                m_folders[slot] += std::string(row.defaultText) + "/";
            }
        }
    }
    m_foldersLoaded = true;
}

std::string& ProfileStore::GetFolder(int slot)
{
    if (!m_foldersLoaded) {
        loadFolders();
    }
    return m_folders[slotIndex(slot)];
}

bool ProfileStore::SaveFolder(int slot)
{
    if (!m_foldersLoaded) {
        return false;
    }
    std::size_t index = slotIndex(slot);
    return WriteString(kSettingKeys[index].section, kSettingKeys[index].key, m_folders[index]);
}

// ---- Typed values ---------------------------------------------------------------------

namespace {

constexpr std::size_t kStringBufferChars = 512;
constexpr std::size_t kInt64BufferChars = 256;
constexpr std::size_t kNumbersBufferChars = 254;

std::string readRaw(const std::string& path, std::string_view section, std::string_view key,
                    std::size_t size, std::string_view def = {})
{
    std::string out;
    FileProfileBackend(path).ReadString(section, key, out, size, def);
    return out;
}

} // namespace

std::string readProfileString(const std::string& path, std::string_view section,
                              std::string_view key, std::string_view def)
{
    return readRaw(path, section, key, kStringBufferChars, def);
}

bool writeProfileString(const std::string& path, std::string_view section, std::string_view key,
                        std::string_view value)
{
    return FileProfileBackend(path).WriteString(section, key, value);
}

std::int64_t readProfileInt64(const std::string& path, std::string_view section,
                              std::string_view key, std::int64_t def)
{
    std::string text = readRaw(path, section, key, kInt64BufferChars);
    return text.empty() ? def : profileTextToInt64(text);
}

bool writeProfileInt64(const std::string& path, std::string_view section, std::string_view key,
                       std::int64_t value)
{
    return FileProfileBackend(path).WriteInt(section, key, value);
}

int readProfileInt(const std::string& path, std::string_view section, std::string_view key, int def)
{
    std::string text = readRaw(path, section, key, kInt64BufferChars);
    return text.empty() ? def : profileTextToInt(text);
}

bool readProfileColour(const std::string& path, std::string_view section, std::string_view key,
                       std::uint32_t& colour)
{
    if (colour == 0) {
        return false;
    }
    std::string text = readRaw(path, section, key, kNumbersBufferChars);
    int rgb[3] = {0, 0, 0};
    if (text.empty() || scanProfileInts(text, rgb, 3) == 0) {
        return false;
    }
    colour = (static_cast<std::uint32_t>(rgb[0]) & 0xFF) |
             ((static_cast<std::uint32_t>(rgb[1]) & 0xFF) << 8) |
             ((static_cast<std::uint32_t>(rgb[2]) & 0xFF) << 16);
    return true;
}

bool writeProfileColour(const std::string& path, std::string_view section, std::string_view key,
                        std::uint32_t colour)
{
    std::string text = std::to_string(colour & 0xFF) + "," + std::to_string((colour >> 8) & 0xFF) +
                       "," + std::to_string((colour >> 16) & 0xFF);
    return writeProfileString(path, section, key, text);
}

bool readProfileRect(const std::string& path, std::string_view section, std::string_view key,
                     ProfileRect* rect)
{
    if (rect == nullptr) {
        return false;
    }
    std::string text = readRaw(path, section, key, kNumbersBufferChars);
    int numbers[4] = {0, 0, 0, 0};
    if (text.empty() || scanProfileInts(text, numbers, 4) == 0) {
        return false;
    }
    *rect = ProfileRect{numbers[0], numbers[1], numbers[2], numbers[3]};
    return true;
}

bool writeProfileRect(const std::string& path, std::string_view section, std::string_view key,
                      const ProfileRect& rect)
{
    std::string text = std::to_string(rect.left) + "," + std::to_string(rect.top) + "," +
                       std::to_string(rect.right) + "," + std::to_string(rect.bottom);
    return writeProfileString(path, section, key, text);
}

int readSettingNumber(const std::string& path, const SettingKey& setting)
{
    return readProfileInt(path, setting.section, setting.key, setting.defaultNumber);
}

std::string readSettingText(const std::string& path, const SettingKey& setting)
{
    std::string_view def = setting.type == SettingType::Folder ? "" : setting.defaultText;
    return readProfileString(path, setting.section, setting.key, def);
}

double readSettingDecimal(const std::string& path, const SettingKey& setting)
{
    const auto parse = [](std::string_view text, double& out) {
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
        return ec == std::errc{} && end == text.data() + text.size() && std::isfinite(out);
    };
    double value = 0.0;
    return parse(readSettingText(path, setting), value) ? value : setting.defaultDecimal;
}

} // namespace tarvoqc
