// One object on its way to the server, or back.
#pragma once

#include <string>

#include "connection.h"
#include "info.h"
#include "listing.h"
#include "local.h"
#include "names.h"

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
    Session& session;
    bool open = true;
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
    Session& session;
    std::optional<long long> expected;
    long long received = 0;
    bool open = true;
};
