// Objects as an archive in the pax format on standard output, with what tar keeps of a file.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "Chosen.h"
#include "Transfer.h"

namespace tsmctl {

class TarWriter {
public:
    TarWriter(std::string at, Report& report) : at_(std::move(at)), report_(report) {}

    // Throws Failure. What was written of the content then stands in the archive, filled up with zeros. Does nothing
    // after standard output has failed.
    void Write(Session& session, Buffer& buffer, const ChosenObject& item);
    void WriteDirectory(const ChosenObject& item);
    void Finish();

private:
    struct Twin {
        std::string path;
        std::string content;  // its digest and header
    };

    void Put(const void* memory, size_t length);
    void Pad(long long size);
    void WriteFile(Session& session, Buffer& buffer, const ChosenObject& item);
    void WriteHeader(const ChosenObject& item, char type, long long size, const std::string& link,
                     std::string_view attributes);

    const std::string at_;
    Report& report_;
    bool broken_ = false;                // standard output
    std::map<std::string, Twin> twins_;  // of files with several names
};

}  // namespace tsmctl
