#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "results/xmlnode.h"

namespace tarvoqc {

// One clip of a job.
struct JobClip
{
    std::string clipPath;
    // Two values that start at 0; their use belongs to the task list.
    std::int32_t reserved0 = 0;
    std::int32_t reserved1 = 0;

    bool operator==(const JobClip&) const = default;
};

// A job: the clips of a ".qcin" file, its hide flag and where its results go.
struct Job
{
    std::string resultPath;
    std::int32_t hide = 0; // not 0: run hidden
    std::vector<JobClip> clips;
};

// True when path ends with ".qcin", compared without regard to ASCII case.
bool isJobFile(std::string_view path);

// Reads a parsed job document into job: the root element "Tarvo_QC" (found ignoring
// case) gives hide from its "Hide" attribute (0 when missing); each child named "Clip"
// (ignoring case) with a non-empty "File" attribute appends that path, unless a clip of
// exactly that path (case-sensitive) is already in job.clips. Returns 1 when the root was
// found (also when no clip was added), else 0 with job untouched. resultPath is not
// touched.
int loadJob(const XmlNode& document, Job& job);

// The job file's folder and base name without its last extension, then ".qcout":
// "/in/a.b/job.qcin" gives "/in/a.b/job.qcout", "/in/job" gives "/in/job.qcout". "/" and
// "\" both end a folder; a dot in a folder name is not an extension.
std::string jobResultPath(std::string_view jobFilePath);

// The command-line handling of one job file: sets job.resultPath, loads the file and, when
// it parses (every element closed), reads it with loadJob. False when the file could not
// be read or parsed, or has no "Tarvo_QC" root; the clips are then untouched and why (when
// given) says which, as the programs name it: "could not be read" or "has no \"Tarvo_QC\"
// root element".
bool readJobFile(const std::string& jobFilePath, Job& job, std::string* why = nullptr);

} // namespace tarvoqc
