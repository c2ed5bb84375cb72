#include "results/jobfile.h"

#include <unordered_set>

#include "results/textcase.h"

namespace tarvoqc {

namespace {

constexpr std::string_view kJobExtension = ".qcin";

} // namespace

bool isJobFile(std::string_view path)
{
    // The extension is ASCII, so its five characters are its last five bytes.
    return endsWithIgnoreCase(path, kJobExtension);
}

int loadJob(const XmlNode& document, Job& job)
{
    const XmlNode* root = document.FindChild("Tarvo_QC");
    if (root == nullptr) {
        return 0;
    }
    job.hide = root->GetInt("Hide", 0);
    // A set keeps the duplicate test linear for job files of many thousand clips.
    std::unordered_set<std::string> known;
    for (const JobClip& clip : job.clips) {
        known.insert(clip.clipPath);
    }
    for (const auto& child : root->children()) {
        if (!equalsIgnoreCase(child->name(), "Clip")) {
            continue;
        }
        std::string path = child->GetString("File", "");
        if (path.empty() || !known.insert(path).second) {
            continue;
        }
        job.clips.push_back(JobClip{std::move(path)});
    }
    return 1;
}

std::string jobResultPath(std::string_view jobFilePath)
{
    const std::size_t folderEnd = jobFilePath.find_last_of("/\\");
    const std::size_t nameStart = folderEnd == std::string_view::npos ? 0 : folderEnd + 1;
    const std::size_t dot = jobFilePath.rfind('.');
    const std::size_t baseEnd =
        (dot != std::string_view::npos && dot >= nameStart) ? dot : jobFilePath.size();
    std::string path(jobFilePath.substr(0, baseEnd));
    path += ".qcout";
    return path;
}

bool readJobFile(const std::string& jobFilePath, Job& job, std::string* why)
{
    job.resultPath = jobResultPath(jobFilePath);
    XmlNode document;
    const char* problem = nullptr;
    if (!document.Load(jobFilePath)) {
        problem = "could not be read";
    } else if (loadJob(document, job) == 0) {
        problem = "has no \"Tarvo_QC\" root element";
    }
    if (problem != nullptr && why != nullptr) {
        *why = problem;
    }
    return problem == nullptr;
}

} // namespace tarvoqc
