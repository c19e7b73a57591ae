// One object on its way to the server or back. Its data are a header, the content and a seal; docs/tsmctl-format.md
// describes them.
#pragma once

#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Attributes.h"
#include "Connection.h"
#include "Files.h"
#include "Inventory.h"
#include "LocalTree.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"

namespace tsmctl {

// An object that is not committed before its Upload ends is discarded, with the session.
class Upload {
public:
    // The estimate is the number of bytes of content that will be sent. A directory has none of the three parts.
    Upload(Session& session, const StoredName& name, long long estimate, const Info& info, const std::string& header,
           const std::string& mgmtClass);
    ~Upload();
    Upload(const Upload&) = delete;

    // The next bytes of the content.
    void Send(unsigned char* data, size_t length);
    // The next bytes of the content are zeros that the header tells of, and are not sent.
    void Skip(long long length);
    const std::string& InfoText() const { return info_; }
    void Commit();

private:
    void Put(unsigned char* data, size_t length);

    Session& session_;
    const bool sealed_;
    const std::string info_;
    const std::string header_;
    std::vector<unsigned char> waiting_;  // small parts, which go together
    Sha256 sha256_;
    long long size_ = 0;
    bool open_ = true;
};

// Some of the content. A hole is as many zeros.
struct Piece {
    const unsigned char* data;
    size_t size;
    bool hole;
};

class Download {
public:
    // Throws Failure also for an object that this program cannot read rightly.
    Download(Session& session, const StoredObject& object, const std::string& at);
    ~Download();
    Download(const Download&) = delete;

    // The next piece of the content, in the buffer of pieceSize bytes; without bytes after the last one.
    Piece Next(Buffer& buffer);
    // Ends the reading. Throws Failure when the content is not what was stored.
    void Finish();
    // After the last piece: what was stored beside the content, and the content's SHA-256.
    const std::string& Header() const { return header_; }
    std::string Digest() const { return sha256_.Hex(); }
    bool Sealed() const { return sealed_; }
    // Of an object with holes: of its content.
    long long Size() const { return expected_.value_or(0); }

private:
    bool Fill(Buffer& buffer);
    Piece Take(const unsigned char* data, long long length, bool hole);

    Session& session_;
    const std::string info_;
    const std::optional<long long> expected_;
    const bool sealed_;
    const size_t headerLength_;
    std::string header_;
    std::vector<Extent> extents_;  // empty unless there are holes
    size_t extent_ = 0;
    std::string held_;  // the last bytes received, which may be the seal
    size_t begin_ = 0;  // of the content in the buffer that was not taken yet
    size_t end_ = 0;
    bool ended_ = false;  // everything was received
    Sha256 sha256_;
    long long received_ = 0;  // content
    bool open_ = true;
};

// Receives everything; take gets each piece.
void Receive(Download& download, Buffer& buffer, const std::function<void(const Piece&)>& take);
// The SHA-256 of the rest of a file, or of so many bytes.
std::string DigestOf(int fd, Buffer& buffer, long long limit = LLONG_MAX);
// The target of a link object. Throws Failure for what cannot be one.
std::string ReceiveLinkTarget(Download& download, Buffer& buffer);

// What tells whether two objects hold the same.
struct Content {
    std::string digest;  // SHA-256
    std::vector<std::string> attributes;
    long long size;
    bool sealed;  // came with a SHA-256, which it has; a directory, with one of its information text
};
// Of an object, by reading it to its end. Throws Failure also for an object that is not whole.
Content ContentOf(Session& session, Buffer& buffer, const StoredObject& object, const std::string& at, Report& report);
// Of what is here, with no more than so many bytes.
Content ContentOf(const LocalItem& item, Buffer& buffer, long long limit, Report& report);

}  // namespace tsmctl
