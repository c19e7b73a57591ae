// Where a restore writes: a local folder, or an archive on standard output.
#pragma once

#include <memory>
#include <string>

#include "Chosen.h"
#include "Transfer.h"

namespace tsmctl {

// Each object has its path below the target, no part of which leads elsewhere. All throw Failure.
class RestoreTarget {
public:
    RestoreTarget() = default;
    virtual ~RestoreTarget() = default;
    RestoreTarget(const RestoreTarget&) = delete;
    RestoreTarget& operator=(const RestoreTarget&) = delete;

    // A directory begins before anything in it comes. It ends after everything that it holds, since that changes its
    // time and its mode may forbid it.
    virtual void Begin(const ChosenObject&) {}
    virtual void End(const ChosenObject& directory) = 0;
    // A file, stream, link or special file. Several threads may write into a folder.
    virtual void Write(Session& session, Buffer& buffer, const ChosenObject& object) = 0;
    virtual void Finish() {}
};

// The folder is created if it is missing; links may lead to it. overwrite says what happens to files that exist: never,
// changed, always, or nothing, by which one that differs is a failure. A file has a temporary name until it is whole.
std::unique_ptr<RestoreTarget> FolderTarget(const std::string& path, const std::string& overwrite,
                                            const std::string& at, Report& report);

// In the pax format, with what tar keeps of a file. An object that fails is filled up with zeros where some of its
// content was written. Does nothing after standard output has failed.
std::unique_ptr<RestoreTarget> ArchiveTarget(const std::string& at, Report& report);

// What names of one file have to have in common to be linked again, after its last piece was received; empty for a file
// with one name. The names were stored one after the other, each with the content of its own.
inline std::string TwinKey(const ChosenObject& file, const Download& download) {
    const std::string key = LinkKey(file.object.info);
    return key.empty() ? key : key + " " + download.Digest() + " " + download.Header();
}

}  // namespace tsmctl
