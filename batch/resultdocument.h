#pragma once

#include <string>
#include <vector>

#include "batch/tasklist.h"

namespace tarvoqc {

// The result document of a command-line run, as tarvoqc-check and the window program's
// command-line mode write it: one rule for where it may go, one way to write it.

// Why the result document of the run over list must not be written to path, or empty when
// it may. A run never destroys a file: the document is written only where nothing is, or
// over an earlier result document (a UTF-16 file that begins with the root "Tarvo_QC"
// without attributes, which job files may carry, and that is not named like a job file) or
// an empty file (made by mktemp, say). Otherwise the reason, for the program to name before
// it checks anything: those of outputRefusal (files/fileio.h) for the paths the run was
// given (job files, folders, clips), "it is one of the clips to check" for a clip of list
// (whatever the name), or "it exists and is not a result document".
std::string resultDocumentRefusal(const std::string& path, const std::vector<std::string>& inputs,
                                  const TaskList& list);

// Writes the result document of the run over list (every item in list order, with its result
// where it has one) to path, through writeResultDocument. False when it could not be written;
// an earlier file then stays as it was.
bool saveResultDocument(const std::string& path, const TaskList& list);

} // namespace tarvoqc
