#include "batch/resultdocument.h"

#include <string_view>

#include "files/fileio.h"
#include "results/jobfile.h"
#include "results/resultfile.h"

namespace tarvoqc {

namespace {

// Only the first bytes are read, so a document of any size is recognised at once.
bool replaceableDocument(const std::string& path)
{
    const FileHandle file = openForReading(path);
    std::string head(32, '\0');
    const ssize_t got = file.valid() ? readFull(file.get(), head.data(), head.size()) : -1;
    if (got == 0) {
        return true;
    }
    if (got < 0 || isJobFile(path)) {
        return false;
    }
    head.resize(static_cast<std::size_t>(got));
    const auto utf16 = [](std::string_view ascii) {
        std::string bytes = "\xFF\xFE";
        for (const char c : ascii) {
            bytes += c;
            bytes += '\0';
        }
        return bytes;
    };
    const std::string root(kResultRoot);
    return head.starts_with(utf16("<" + root + ">")) || head.starts_with(utf16("<" + root + "/>"));
}

} // namespace

std::string resultDocumentRefusal(const std::string& path, const std::vector<std::string>& inputs,
                                  const TaskList& list)
{
    const std::optional<FileId> target = fileIdOf(path);
    if (!target) {
        return {}; // a new file (or a link to one)
    }
    if (std::string why = outputRefusal(path, inputs); !why.empty()) {
        return why;
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (fileIdOf(list.item(i).path()) == target) {
            return "it is one of the clips to check";
        }
    }
    if (!replaceableDocument(path)) {
        return "it exists and is not a result document";
    }
    return {};
}

bool saveResultDocument(const std::string& path, const TaskList& list)
{
    return writeResultDocument(path, list.size(), [&list](std::size_t i) {
        return ResultDocumentEntry{list.item(i).path(), list.item(i).result()};
    });
}

} // namespace tarvoqc
