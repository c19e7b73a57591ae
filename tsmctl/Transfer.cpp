#include "Transfer.h"

#include <fmt/format.h>

#include "Errors.h"
#include "tsmconnector.h"

namespace tsmctl {

Upload::Upload(Session& session, const StoredName& name, long long announced, const Info& info,
               const std::string& mgmtClass)
    : session_(session) {
    const int handle = session_.Handle();
    session_.Check("cannot begin the backup", TsmBeginBackupEx(handle, Text(name.path), Text(name.name), announced,
                                                               Text(FormatInfo(info)), TextOrNull(mgmtClass)));
}

Upload::~Upload() {
    if (open_) session_.Drop();
}

void Upload::Send(unsigned char* data, size_t length) {
    session_.Check("cannot send", TsmSendData(session_.Handle(), data, static_cast<int>(length)));
}

void Upload::Commit() {
    session_.Check("cannot commit", TsmEndBackup(session_.Handle()));
    open_ = false;
}

Download::Download(Session& session, const StoredObject& object, const std::string& at)
    : session_(session), expected_(object.info ? object.info->size : std::nullopt) {
    RequireReadable(session_, object, at);
    const int handle = session_.Handle();
    session_.Check("cannot begin the restore",
                   TsmBeginRestore(handle, Text(object.path), Text(object.name), TextOrNull(at)));
}

Download::~Download() {
    if (open_) session_.Drop();
}

size_t Download::Next(Buffer& buffer) {
    CheckInterrupt();
    unsigned char* const memory = buffer.data();
    unsigned char* place = memory;
    long long count = 0;
    // One piece without bytes is not the end: after the end every piece is empty.
    for (int asked = 0; count == 0 && asked < 2; ++asked) {
        count = session_.Check("cannot receive", TsmGetData(session_.Handle(), &place, pieceSize));
    }
    received_ += count;
    return static_cast<size_t>(count);
}

void Download::Finish() {
    session_.Check("cannot end the restore", TsmEndRestore(session_.Handle()));
    open_ = false;
    if (expected_ && received_ != *expected_) {
        throw Failure(fmt::format("{} bytes received, the object has {}", received_, *expected_));
    }
}

void Receive(Download& download, Buffer& buffer, const std::function<void(size_t)>& take) {
    while (const size_t count = download.Next(buffer)) take(count);
    download.Finish();
}

std::string ReceiveLinkTarget(Session& session, Buffer& buffer, const StoredObject& object, const std::string& at) {
    constexpr size_t longest = 4096;
    Download download(session, object, at);
    std::string target;
    Receive(download, buffer, [&](size_t count) {
        target.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
        if (target.size() > longest) throw Failure("the stored target of the link is too long");
    });
    if (target.find('\0') != std::string::npos) throw Failure("the stored target of the link is no path");
    return target;
}

}  // namespace tsmctl
