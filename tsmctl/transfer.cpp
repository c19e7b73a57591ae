#include "transfer.h"

#include <fmt/format.h>

#include "errors.h"
#include "tsmconnector.h"

Upload::Upload(Session& signedOn, const StoredName& name, long long announced, const Info& info,
               const std::string& mgmtClass)
    : session(signedOn) {
    const int handle = session.Handle();
    session.Check("cannot begin the backup", TsmBeginBackupEx(handle, Text(name.path), Text(name.name), announced,
                                                              Text(FormatInfo(info)), TextOrNull(mgmtClass)));
}

Upload::~Upload() {
    if (open) session.Drop();
}

void Upload::Send(unsigned char* data, size_t length) {
    session.Check("cannot send", TsmSendData(session.Handle(), data, static_cast<int>(length)));
}

void Upload::Commit() {
    session.Check("cannot commit", TsmEndBackup(session.Handle()));
    open = false;
}

Download::Download(Session& signedOn, const StoredObject& object, const std::string& at)
    : session(signedOn), expected(object.info ? object.info->size : std::nullopt) {
    RequireReadable(session, object, at);
    const int handle = session.Handle();
    session.Check("cannot begin the restore",
                  TsmBeginRestore(handle, Text(object.path), Text(object.name), TextOrNull(at)));
}

Download::~Download() {
    if (open) session.Drop();
}

size_t Download::Next(Buffer& buffer) {
    CheckInterrupt();
    unsigned char* const memory = buffer.data();
    unsigned char* place = memory;
    long long count = 0;
    for (int asked = 0; count == 0 && asked < 2;
         ++asked) {  // a piece without bytes is not the end, which is told again
        count = session.Check("cannot receive", TsmGetData(session.Handle(), &place, pieceSize));
    }
    received += count;
    return static_cast<size_t>(count);
}

void Download::Finish() {
    session.Check("cannot end the restore", TsmEndRestore(session.Handle()));
    open = false;
    if (expected && received != *expected) {
        throw Failure(fmt::format("{} bytes received, the object has {}", received, *expected));
    }
}
