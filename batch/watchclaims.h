#pragma once

#include <optional>
#include <string>
#include <vector>

#include "files/fileio.h"
#include "results/qcresult.h"

namespace tarvoqc {

// A watch job's share of its watched folder, so that several jobs (on one machine, or on
// several machines that share the storage) can watch one folder and each clip is checked
// and moved by exactly one of them, and so that a job that dies in the middle of a move
// (killed, a power cut) leaves nothing that the next start cannot finish or undo.
//
// Each job has a claim folder of its own, "<watched>/.tarvoqc/<host>.<pid>.<random>/", and
// holds a lock on its "owner" file for as long as it runs (an open file description lock,
// which NFS and SMB carry to the server; the kernel or the server drops it when the job
// dies). A clip is claimed by renaming it into the claim folder: a rename within one file
// system is atomic, so of several jobs exactly one gets it (the pattern of mail delivery
// folders). Beside a claimed clip the folder keeps the clip's journal: its check result
// ("<name>.result") and, while it is being moved, the move's plan ("<name>.move": the temp
// name and the final name of the copy, written before either file is made). Every change
// to the folder is flushed to the disk before the next step.
//
// A claim folder whose owner lock can be taken belongs to a job that has ended; the
// recovery (WatchJob) finishes or undoes what it holds and then removes it.
//
// Thread-safety: one thread (the watch job's worker) uses an object.
class WatchClaims
{
public:
    // The plan of one move, written before its temp and final files are made.
    struct MovePlan
    {
        std::string temp;  // the copy's temp file
        std::string final; // the name the copy takes when it is complete
        bool operator==(const MovePlan&) const = default;
    };

    WatchClaims() = default;
    // Gives the claim folder up: removes it when it holds nothing (a clip or a journal left
    // by a failure stays for the recovery).
    ~WatchClaims();
    WatchClaims(const WatchClaims&) = delete;
    WatchClaims& operator=(const WatchClaims&) = delete;

    // Makes the claim folder in folder (the watched folder, with "/") and takes its lock.
    // False, with the reason, when the watched folder takes no new folder (read-only, say).
    bool open(const std::string& folder, std::string& error);
    bool isOpen() const { return !m_own.empty(); }
    // The watched folder and the claim folder, each with "/".
    const std::string& watched() const { return m_watched; }
    const std::string& own() const { return m_own; }

    // Claims the clip watched()/name. Its path in the claim folder, or empty when the name
    // is gone (another job claimed it first, it was removed) or cannot be renamed.
    std::string claim(const std::string& name);
    // Puts the claimed clip back into the watched folder under its name, or under the first
    // free "name (n).ext" when the name was taken meanwhile. The path it has there, or empty
    // when it could not be put back (it then stays claimed, for the recovery).
    std::string giveBack(const std::string& name);

    // The journal of a claimed clip.
    bool writeResult(const std::string& name, const QcResult& result);
    std::optional<QcResult> readResult(const std::string& name) const;
    bool writePlan(const std::string& name, const MovePlan& plan);
    std::optional<MovePlan> readPlan(const std::string& name) const;
    // Removes the clip's journal (after the clip has left the claim folder).
    void forget(const std::string& name);

    // The claim folders of this watched folder whose jobs have ended (their lock could be
    // taken; it is held until release), with "/".
    std::vector<std::string> abandoned();
    // The clips in a claim folder (names without the journal's).
    static std::vector<std::string> clipsIn(const std::string& claimFolder);
    // Reads the journal of a clip in another (abandoned) claim folder.
    static std::optional<QcResult> readResultIn(const std::string& claimFolder,
                                                const std::string& name);
    static std::optional<MovePlan> readPlanIn(const std::string& claimFolder,
                                              const std::string& name);
    // Puts a clip of an abandoned claim folder back into the watched folder (as giveBack).
    std::string giveBackFrom(const std::string& claimFolder, const std::string& name);
    // Removes an abandoned claim folder once it holds no clip; gives up its lock.
    void release(const std::string& claimFolder);

private:
    std::string m_watched;
    std::string m_own;
    // The two folders, open, so that a rename of the watched folder does not lose a clip.
    FileHandle m_watchedFolder;
    FileHandle m_ownFolder;
    FileHandle m_lock;
    // The locks held on abandoned folders until release.
    std::vector<std::pair<std::string, FileHandle>> m_held;
};

// The name of a file that belongs to the file name: name + suffix, or, where that would pass
// the 255 bytes a file name may have, the name cut (between characters) and marked with a
// hash of the whole name before the suffix, so that every name still gets a file of its own.
std::string fitFileName(const std::string& name, std::string_view suffix);

// The name of the folder that holds the claim folders of a watched folder.
inline constexpr const char* kClaimsFolderName = ".tarvoqc";

} // namespace tarvoqc
