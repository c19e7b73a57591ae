// SQLite files whose every page is checked when it is read.
//
// A page ends in a checksum of its bytes and its number, set when it is written and compared when it is read from the
// main file. A page in the log is compared with the checksum of its frame, which SQLite has there. Where they differ
// SQLite gets SQLITE_IOERR_DATA, and the statement fails. A log that was damaged after it was flushed makes opening
// fail, but with the parameter ends=1 in the URI, for a repair, it ends there. With first=PATH, a first page that is
// damaged, or tells of more pages than there are, is taken from the file at that path. An immutable file that was
// changed nevertheless gives SQLITE_IOERR_VNODE.
#pragma once

namespace standin {

constexpr int pageSize = 4096;
constexpr int pageReserve = 8;  // bytes at the end of a page that SQLite leaves to the checksum

// The name of the VFS, which is there from the first call on.
const char* CheckedVfs();

}  // namespace standin
