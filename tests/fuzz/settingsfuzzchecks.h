#pragma once

// Invariants of the settings file reader and writer on arbitrary bytes, shared by the fuzz
// target and by the unit test that replays the seeds and the kept regression inputs. Each
// check returns an empty string when every invariant holds, else what failed.

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/profilestore.h"

namespace tarvoqc::fuzz {

struct SettingName
{
    std::string section;
    std::string key;
};

// Whether two lookups ask for the same key, as the file compares names (blanks around them
// do not count, ASCII case does not count).
inline bool sameSettingName(std::string_view a, std::string_view b)
{
    auto trim = [](std::string_view s) {
        constexpr std::string_view blanks = " \t\r\v\f";
        const std::size_t first = s.find_first_not_of(blanks);
        return first == std::string_view::npos
                   ? std::string_view{}
                   : s.substr(first, s.find_last_not_of(blanks) - first + 1);
    };
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; };
    a = trim(a);
    b = trim(b);
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [&](char x, char y) { return lower(x) == lower(y); });
}

// Names to look up: the fixed keys, plus sections and keys taken from the input's own lines
// so that the lookups meet whatever the fuzzer has built.
inline std::vector<SettingName> settingNamesOf(std::string_view bytes)
{
    std::vector<SettingName> names;
    for (const SettingKey& row : kSettingKeys) {
        names.push_back({std::string(row.section), std::string(row.key)});
    }
    std::string section = "Job00";
    std::size_t pos = 0;
    for (int line = 0; line < 16 && pos < bytes.size(); ++line) {
        const std::size_t end = bytes.find('\n', pos);
        const std::string_view text =
            bytes.substr(pos, end == std::string_view::npos ? end : end - pos);
        pos = end == std::string_view::npos ? bytes.size() : end + 1;
        if (!text.empty() && text.front() == '[') {
            section = std::string(text.substr(1, text.find(']') - 1));
        } else if (const std::size_t eq = text.find('='); eq != std::string_view::npos) {
            names.push_back({section, std::string(text.substr(0, eq))});
        }
    }
    return names;
}

inline std::string checkSettingValue(const std::string& value)
{
    (void)profileTextToInt64(value);
    (void)profileTextToInt(value);
    int numbers[4] = {0, 0, 0, 0};
    return scanProfileInts(value, numbers, 4) <= 4 ? "" : "scan read too many numbers";
}

// Sets target to value and removes it again: each change must do what it says, and every
// other lookup must give what it gave before.
inline std::string checkSettingChange(const std::string& bytes, const SettingName& target,
                                      const std::string& value)
{
    const ProfileDocument document(bytes);
    const std::vector<SettingName> names = settingNamesOf(bytes);
    std::vector<std::optional<std::string>> before;
    for (const SettingName& name : names) {
        before.push_back(document.find(name.section, name.key));
        if (before.back()) {
            if (std::string failure = checkSettingValue(*before.back()); !failure.empty()) {
                return failure;
            }
        }
    }
    auto othersUnchanged = [&](const ProfileDocument& changed) {
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (!(sameSettingName(names[i].section, target.section) &&
                  sameSettingName(names[i].key, target.key)) &&
                changed.find(names[i].section, names[i].key) != before[i]) {
                return false;
            }
        }
        return true;
    };
    ProfileDocument changed = document;
    if (changed.set(target.section, target.key, value)) {
        if (changed.find(target.section, target.key) != value) {
            return "value not read back";
        }
        if (!othersUnchanged(changed)) {
            return "a change touched another key";
        }
        // Reading the changed text and writing the same value again changes nothing.
        ProfileDocument again(changed.bytes());
        if (!again.set(target.section, target.key, value) || again.bytes() != changed.bytes()) {
            return "rewriting the same value changed the text";
        }
    } else if (changed.bytes() != bytes) {
        return "a refused change altered the text";
    }
    if (changed.remove(target.section, target.key)) {
        if (changed.find(target.section, target.key)) {
            return "removed key still found";
        }
        if (!othersUnchanged(changed)) {
            return "a removal touched another key";
        }
    }
    return {};
}

// The fuzz target's check: one of the names, chosen by the input's size, set to a value cut
// from the input's end.
inline std::string checkSettings(const std::string& bytes)
{
    if (std::string failure = checkSettingValue(bytes); !failure.empty()) {
        return failure;
    }
    const std::vector<SettingName> names = settingNamesOf(bytes);
    return checkSettingChange(bytes, names[bytes.size() % names.size()],
                              bytes.substr(bytes.size() - std::min<std::size_t>(bytes.size(), 24)));
}

} // namespace tarvoqc::fuzz
