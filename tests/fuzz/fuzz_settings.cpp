// Arbitrary bytes as a settings file: every lookup, conversion and change must work without
// a crash, and a change must do what it says and nothing else.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/profilestore.h"

namespace {

using tarvoqc::ProfileDocument;

void require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "fuzz_settings: %s\n", what);
        std::abort();
    }
}

struct Name
{
    std::string section;
    std::string key;
};

char lower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether two lookups ask for the same key, as the file compares names (blanks around them
// do not count, ASCII case does not count).
bool sameName(std::string_view a, std::string_view b)
{
    auto trim = [](std::string_view s) {
        constexpr std::string_view blanks = " \t\r\v\f";
        std::size_t first = s.find_first_not_of(blanks);
        if (first == std::string_view::npos) {
            return std::string_view{};
        }
        return s.substr(first, s.find_last_not_of(blanks) - first + 1);
    };
    a = trim(a);
    b = trim(b);
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

// Names to look up: the fixed keys, plus sections and keys taken from the input's own lines
// so that the lookups meet whatever the fuzzer has built.
std::vector<Name> namesOf(std::string_view bytes)
{
    std::vector<Name> names;
    for (const tarvoqc::SettingKey& row : tarvoqc::kSettingKeys) {
        names.push_back({std::string(row.section), std::string(row.key)});
    }
    std::string section = "Job00";
    std::size_t pos = 0;
    for (int line = 0; line < 16 && pos < bytes.size(); ++line) {
        std::size_t end = bytes.find('\n', pos);
        std::string_view text = bytes.substr(pos, end == std::string_view::npos ? end : end - pos);
        pos = end == std::string_view::npos ? bytes.size() : end + 1;
        if (!text.empty() && text.front() == '[') {
            section = std::string(text.substr(1, text.find(']') - 1));
        } else if (std::size_t eq = text.find('='); eq != std::string_view::npos) {
            names.push_back({section, std::string(text.substr(0, eq))});
        }
    }
    return names;
}

void exerciseValue(const std::string& value)
{
    (void)tarvoqc::profileTextToInt64(value);
    (void)tarvoqc::profileTextToInt(value);
    int numbers[4] = {0, 0, 0, 0};
    require(tarvoqc::scanProfileInts(value, numbers, 4) <= 4, "scan read too many numbers");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    exerciseValue(bytes);

    ProfileDocument document(bytes);
    const std::vector<Name> names = namesOf(bytes);
    std::vector<std::optional<std::string>> before;
    for (const Name& name : names) {
        before.push_back(document.find(name.section, name.key));
        if (before.back()) {
            exerciseValue(*before.back());
        }
    }

    // Change one of the names to a value cut from the input's end, then remove it again;
    // every other lookup must give what it gave before.
    const Name& target = names[size % names.size()];
    const std::string value = bytes.substr(size - std::min<std::size_t>(size, 24));
    auto othersUnchanged = [&](const ProfileDocument& changed) {
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (sameName(names[i].section, target.section) && sameName(names[i].key, target.key)) {
                continue;
            }
            require(changed.find(names[i].section, names[i].key) == before[i],
                    "a change touched another key");
        }
    };
    ProfileDocument changed = document;
    if (changed.set(target.section, target.key, value)) {
        require(changed.find(target.section, target.key) == value, "value not read back");
        othersUnchanged(changed);
        // Reading the changed text and writing the same value again changes nothing.
        ProfileDocument again(changed.bytes());
        require(again.set(target.section, target.key, value) && again.bytes() == changed.bytes(),
                "rewriting the same value changed the text");
    } else {
        require(changed.bytes() == bytes, "a refused change altered the text");
    }
    if (changed.remove(target.section, target.key)) {
        require(!changed.find(target.section, target.key), "removed key still found");
        othersUnchanged(changed);
    }
    return 0;
}
