// One object on its way to the server or back.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Connection.h"
#include "Files.h"
#include "Inventory.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"

namespace tsmctl {

// An object that is not committed before its Upload ends is discarded, with the session.
class Upload {
public:
    Upload(Session& session, const StoredName& name, long long announced, const Info& info,
           const std::string& mgmtClass);
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
    Download(Session& session, const StoredObject& object, const std::string& at);
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    // The number of bytes that were received, 0 after the last one. The buffer has pieceSize bytes.
    size_t Next(Buffer& buffer);
    // Ends the reading. Throws Failure when fewer or more bytes came than the object has.
    void Finish();

private:
    Session& session_;
    std::optional<long long> expected_;
    long long received_ = 0;
    bool open_ = true;
};

// Receives everything; take gets each piece, which is in the buffer, and its length.
void Receive(Download& download, Buffer& buffer, const std::function<void(size_t)>& take);
// The target of a link object. Throws Failure for what cannot be one.
std::string ReceiveLinkTarget(Session& session, Buffer& buffer, const StoredObject& object, const std::string& at);

}  // namespace tsmctl
