#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvoqc {

// Standard output of the command-line programs, every write checked: a result that could
// not be written whole (a full disk, a closed pipe, /dev/full) must not end as a pass.

// Writes text to standard output. False once any write has failed; later writes are then
// skipped.
bool writeStandardOutput(std::string_view text);

// Hands what was written so far on (a pipe's reader sees each result as it comes). False
// once any write has failed.
bool flushStandardOutput();

// Whether every write so far went through.
bool standardOutputWritten();

// Flushes and closes standard output (a file system may report a failed write only at the
// close). False, with "<program>: cannot write standard output: <reason>" on standard
// error, when this or an earlier write failed. Nothing may be written to standard output
// after it.
bool closeStandardOutput(std::string_view program);

// Reads a list of paths for --files-from: one a line, or, with nulSeparated, each ended by
// a zero byte (what `find -print0` writes), so that names holding line feeds pass whole.
// "-" reads standard input. Empty entries are skipped. False with why set when the list
// cannot be read or is larger than 256 MiB.
bool readPathList(const std::string& name, bool nulSeparated, std::vector<std::string>& paths,
                  std::string& why);

} // namespace tarvoqc
