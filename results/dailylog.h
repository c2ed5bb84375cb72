#pragma once

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

namespace tarvoqc {

inline constexpr std::string_view kProductTitle = "Tarvo Quality Check";

// "Tarvo Quality Check v1.0.0 build 007": the product name with the program's version and
// build number, as the title texts and the daily log's start and exit lines show it.
std::string titleText();

// A log of text lines with one file per calendar day: folder + prefix + "YYYY-MM-DD.log",
// named by the local date of each entry's own time.
//
// The file is UTF-16LE without a byte-order mark; every UTF-16 unit takes two bytes
// (characters beyond the Basic Multilingual Plane become surrogate pairs; bytes that are not
// UTF-8 become U+FFFD). A stamped entry is CR LF, "DD-MM-YYYY HH:MM:SS", a tab and the text,
// so a file begins with an empty line and its last line has no line end.
//
// The file is opened (created when missing, appended to, never truncated), written and
// closed for every entry; nothing stays open, so other programs may read or delete it at any
// time. An entry whose file cannot be opened is dropped without a word.
//
// Thread-safety: every member may be called from any thread; one lock guards the fields and
// covers each entry's naming and writing, so entries of different threads never interleave.
class DailyLog
{
public:
    DailyLog() = default;
    virtual ~DailyLog() = default;
    DailyLog(const DailyLog&) = delete;
    DailyLog& operator=(const DailyLog&) = delete;

    // Stores the folder, adding "/" when it is not empty and ends in neither "/" nor "\",
    // and the prefix put before the date in the file name. Creates nothing.
    void setFolder(std::string_view folder, std::string_view prefix);
    // While 0 nothing is written.
    void setEnabled(std::int32_t flag);

    // Names the file by time (seconds since the epoch, taken as local time) and appends the
    // text alone (stamped false) or the stamped line. Returns 0 when the log is disabled,
    // the text is empty or the time has no calendar date; else 1, also when the file could
    // not be opened and the entry was lost.
    int write(std::string_view text, std::time_t time, bool stamped);
    // write() with the current time.
    int writeNow(std::string_view text, bool stamped = true);
    // Appends the text as it stands to the file last named, without naming a new one.
    // 0 when disabled, no file has been named yet or the text is empty; else 1.
    int appendRaw(std::string_view text);

    std::int32_t enabled() const;
    std::string folder() const;
    std::string prefix() const;
    // The file last named (empty before the first write).
    std::string path() const;

private:
    int appendLocked(std::string_view text);

    mutable std::mutex m_mutex;
    std::int32_t m_enabled = 0;
    std::string m_folder;
    std::string m_prefix;
    std::string m_path;
};

} // namespace tarvoqc
