// The command line, as it was typed.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tsmctl {

struct Options {
    std::string config;
    std::string logDir;
    std::string apiDir;
    std::string node;
    std::string owner;
    std::string filespace = "tsmctl";
    std::string passwordFile;
    bool quiet = false;

    std::vector<std::string> paths;
    std::string oldPath;
    std::string newPath;
    std::string topic;
    std::string to;
    std::string as;
    std::optional<long long> size;
    std::string mgmtClass;
    std::string type = "any";
    std::string at;
    int jobs = 1;
    bool force = false;
    bool allVersions = false;
    bool recursive = false;
    bool literal = false;
    bool json = false;
    bool yes = false;
};

}  // namespace tsmctl
