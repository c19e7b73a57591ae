// One object on its way to the server, or back.
#pragma once

#include <string>

#include "Connection.h"
#include "Inventory.h"
#include "LocalTree.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"

namespace tsmctl {

// An object that is not committed before its Upload ends is discarded, with the session.
class Upload {
public:
    Upload(Session& open, const StoredName& name, long long announced, const Info& info, const std::string& mgmtClass);
    ~Upload();
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;

    void Send(unsigned char* data, size_t length);
    void Commit();

private:
    Session& session_;
    bool open_ = true;
};

class Download {
public:
    Download(Session& open, const StoredObject& object, const std::string& at);
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    // The number of bytes placed, 0 after the last one. The buffer has pieceSize bytes.
    size_t Next(Buffer& buffer);
    // Ends the reading; throws Failure when fewer or more bytes came than the object has.
    void Finish();

private:
    Session& session_;
    std::optional<long long> expected_;
    long long received_ = 0;
    bool open_ = true;
};

}  // namespace tsmctl
