// The client API's error log, which has the reasons behind many a failure.
#pragma once

#include <sys/types.h>

#include <string>

namespace tsmctl {

// The folder for the log: the one that was asked for, else tsmctl's own in the user's state folder; empty where that
// cannot be made. Throws Failure where the log could not be written to the folder that was asked for.
std::string LogFolder(const std::string& wanted);

// Tells whether something was logged since it was made.
class LogWatch {
public:
    explicit LogWatch(const std::string& folder);

    const std::string& Path() const { return path_; }
    bool Changed() const { return Size() != before_; }

private:
    off_t Size() const;

    const std::string path_;
    const off_t before_;
};

}  // namespace tsmctl
