// The client API's error log, which has the reasons for many failures.
#pragma once

#include <sys/types.h>

#include <string>

namespace tsmctl {

// The folder for the log: the wanted one, else tsmctl's own in the user's state folder, which is created; empty where
// that fails. Throws Failure where the log could not be written to the wanted folder.
std::string LogFolder(const std::string& wanted);

// Knows whether something was logged since it was created.
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
