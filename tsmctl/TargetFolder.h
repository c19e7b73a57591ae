// The folder that a restore writes into. Nothing is written outside of it: every step goes through an open directory,
// and no symbolic link on the way is followed.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

#include "Attributes.h"
#include "Files.h"
#include "ObjectInfo.h"

namespace tsmctl {

class TargetFolder {
public:
    // Creates the folder if it is missing. Links may lead to the folder itself.
    explicit TargetFolder(const std::string& path);

    // Opens a directory below, and creates what is missing.
    UniqueFd Open(const Parts& parts) const;
    // Creates a directory below with this mode. One that exists is made writable for its owner; then this is the mode
    // that it had.
    std::optional<mode_t> Make(Parts parts, mode_t mode) const;

private:
    UniqueFd root_;
};

// Throws Failure for a part that cannot be the name of a file, or that leads elsewhere.
void RequireSafe(const Parts& parts);

// A file, link or special file that is being restored. It has a temporary name until Publish, and is removed without
// it.
class NewEntry {
public:
    static constexpr const char* differs = "exists already, and differs (--overwrite changed replaces it)";

    // directory outlives the entry. Throws Failure where a directory has the name. What else has it and may not be
    // replaced makes Publish fail.
    NewEntry(const UniqueFd& directory, std::string name, bool replace);
    ~NewEntry();
    NewEntry(const NewEntry&) = delete;
    NewEntry& operator=(const NewEntry&) = delete;

    int CreateFile();
    void CreateLink(const std::string& target);
    // False where this user may not.
    bool CreateSpecial(const Info& info);
    // Becomes a link to a file that was restored before, instead of a file of its own. False where that is impossible.
    bool BecomeLinkTo(const UniqueFd& directory, const std::string& name, const struct stat& file);
    struct stat Status() const;
    // Gives it what is stored besides its content, flushes, and gives the entry its name. Without an info, a file gets
    // the other mode.
    void Publish(const std::optional<Info>& info, mode_t otherMode, std::string_view attributes, Report& report);

private:
    const UniqueFd& directory_;
    const std::string name_;
    const std::string temporary_;
    const bool replace_;
    UniqueFd file_;
    bool exists_ = false;
};

}  // namespace tsmctl
