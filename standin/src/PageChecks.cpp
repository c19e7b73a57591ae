#include "PageChecks.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <string>

namespace standin {
namespace {

constexpr const char* vfsName = "tsm-standin";

// The log as SQLite documents it: a header, then frames of a header and a page each. A frame's checksum goes on from
// that of the frame before, and covers the first 8 bytes of its own header and its page.
constexpr int logHeader = 32, frameHeader = 24, frameSize = frameHeader + pageSize;
using Sums = std::array<std::uint32_t, 2>;

std::uint32_t Number(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

Sums SumsAt(const unsigned char* bytes) {
    return {Number(bytes), Number(bytes + 4)};
}

void Put(unsigned char* bytes, const Sums& sums) {
    for (unsigned i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(sums[i / 4] >> (24 - i % 4 * 8));
}

// In words of this machine's order, as SQLite writes its logs.
void Add(Sums& sums, const unsigned char* bytes, int size) {
    for (int at = 0; at < size; at += 8) {
        std::uint32_t words[2];
        std::memcpy(words, bytes + at, sizeof words);
        sums[0] += words[0] + sums[1];
        sums[1] += words[1] + sums[0];
    }
}

// The shared memory that goes with a log tells how many frames have been flushed, and whose salts they carry. It
// outlives a process that is killed, until SQLite opens it anew.
struct Flushed {
    std::uint32_t frames = 0;
    bool copied = false;  // all of them are in the main file, too
    unsigned char salts[8] = {};
};

struct File {
    sqlite3_file base;  // the first member, which is what SQLite knows
    bool isLog, writable;
    bool ends;               // a log that is taken to end with its first bad frame, whatever follows
    Flushed flushed;         // of the main file
    unsigned char salts[8];  // of the main file's log, as they stood there in this transaction
    bool saltsKnown;
    File* main;             // of the log
    std::string first;      // the page that stands for a damaged first one
    const char* immutable;  // path of a main file that nobody should change, and how it was found
    struct stat found;
    // Written to the log one piece after the other, and not passed on yet. Nobody reads them before the flush.
    std::string pending;
    sqlite3_int64 pendingAt;

    // Lies behind this one, in the room that SQLite gave for both.
    sqlite3_file* Real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
    const sqlite3_io_methods& Does() { return *Real()->pMethods; }
    int PassOn() {
        if (pending.empty()) return SQLITE_OK;
        const int rc = Does().xWrite(Real(), pending.data(), static_cast<int>(pending.size()), pendingAt);
        pending.clear();
        return rc;
    }
    bool Get(unsigned char* buffer, int size, sqlite3_int64 offset) {
        if (!pending.empty() && offset >= pendingAt) {
            return pending.copy(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(size),
                                static_cast<std::size_t>(offset - pendingAt)) == static_cast<std::size_t>(size);
        }
        return Does().xRead(Real(), buffer, size, offset) == SQLITE_OK;
    }
};

File& Of(sqlite3_file* file) {
    return *reinterpret_cast<File*>(file);
}

std::uint64_t PageSum(const void* page, sqlite3_int64 offset) {
    return XXH3_64bits_withSeed(page, pageSize - pageReserve, static_cast<std::uint64_t>(offset / pageSize) + 1);
}

void SetPageSum(unsigned char* page, sqlite3_int64 offset) {
    const std::uint64_t sum = PageSum(page, offset);
    std::memcpy(page + pageSize - pageReserve, &sum, sizeof sum);
}

bool PageIsGood(const unsigned char* page, sqlite3_int64 offset) {
    const std::uint64_t sum = PageSum(page, offset);
    return std::memcmp(page + pageSize - pageReserve, &sum, sizeof sum) == 0;
}

sqlite3_int64 FrameAt(sqlite3_int64 frame) {
    return logHeader + frame * frameSize;
}

// The checksum of a frame's header and page, which goes on from that of the frame before.
bool FrameSums(File& file, sqlite3_int64 frame, const unsigned char* header, const unsigned char* page, Sums& sums) {
    unsigned char before[8];
    if (!file.Get(before, sizeof before, frame == 0 ? logHeader - 8 : FrameAt(frame - 1) + frameHeader - 8))
        return false;
    sums = SumsAt(before);
    Add(sums, header, 8);
    Add(sums, page, pageSize);
    return true;
}

bool FrameIsGood(File& file, sqlite3_int64 frame, const unsigned char* header, const unsigned char* page) {
    Sums sums{};
    return FrameSums(file, frame, header, page, sums) && sums == SumsAt(header + 16);
}

Flushed FlushedFrames(const std::string& sharedMemory) {
    Flushed flushed;
    unsigned char bytes[100];
    const int file = open(sharedMemory.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0) return flushed;
    const bool read = pread(file, bytes, sizeof bytes, 0) == static_cast<ssize_t>(sizeof bytes);
    close(file);
    if (!read) return flushed;
    Sums sums{}, written;
    Add(sums, bytes, 40);
    std::memcpy(written.data(), bytes + 40, sizeof written);
    if (sums != written) return flushed;
    std::memcpy(&flushed.frames, bytes + 16, sizeof flushed.frames);
    std::memcpy(flushed.salts, bytes + 32, sizeof flushed.salts);
    flushed.copied = std::memcmp(bytes + 96, bytes + 16, sizeof flushed.frames) == 0;
    return flushed;
}

// False: of the frames that are known to have been flushed, one was damaged. Looked at before SQLite opens the shared
// memory, which forgets how many they are: the next opening has to find the same.
bool FlushedPartIsGood(File& log) {
    const Flushed& flushed = log.main->flushed;
    unsigned char header[logHeader], frame[frameSize];
    const auto isSameLog = [&] {
        return log.Get(header, logHeader, 0) && std::memcmp(header + 16, flushed.salts, 8) == 0;
    };
    sqlite3_int64 length = 0;
    log.Does().xFileSize(log.Real(), &length);
    if (flushed.frames == 0 || length == 0) return flushed.frames == 0 || flushed.copied;
    bool good = isSameLog();
    if (!good && log.Get(header, logHeader, 0)) {
        Sums sums{};
        Add(sums, header, 24);
        return sums == SumsAt(header + 24);  // begun anew by a process at work
    }
    for (sqlite3_int64 i = 0; good && i < flushed.frames; ++i) {
        good = log.Get(frame, frameSize, FrameAt(i)) && std::memcmp(frame + 8, header + 16, 8) == 0 &&
               FrameIsGood(log, i, frame, frame + frameHeader);
    }
    return good || (log.Get(header, logHeader, 0) && std::memcmp(header + 16, flushed.salts, 8) != 0);
}

// A log ends with its first bad frame, which is what a transaction leaves that was never flushed. One that was
// flushed has been damaged since: the frames of the next transaction follow it, because no one writes those before.
bool BadFrameIsDamage(File& file, sqlite3_int64 bad, const unsigned char* frame) {
    unsigned char log[logHeader], next[frameSize];
    if (!file.Get(log, logHeader, 0)) return true;
    bool afterCommit = Number(frame + 4) != 0;
    for (sqlite3_int64 i = bad + 1; file.Get(next, frameSize, FrameAt(i)); ++i) {
        const bool good = std::memcmp(next + 8, log + 16, 8) == 0 && FrameIsGood(file, i, next, next + frameHeader);
        if (good && afterCommit) return true;
        afterCommit = good && Number(next + 4) != 0;
    }
    return false;
}

bool LogReadIsGood(File& file, const unsigned char* bytes, int size, sqlite3_int64 offset) {
    if (size == logHeader && offset == 0) {
        Sums sums{};
        Add(sums, bytes, 24);
        // Zeros are what a power failure leaves of a file that grew and was not flushed.
        return sums == SumsAt(bytes + 24) || std::all_of(bytes, bytes + size, [](int byte) { return byte == 0; });
    }
    const sqlite3_int64 frame = (offset - logHeader) / frameSize;
    if (size == frameSize) {  // by the first one to open a log that was left behind
        unsigned char salts[8];
        return (file.Get(salts, sizeof salts, 16) && std::memcmp(bytes + 8, salts, sizeof salts) == 0 &&
                FrameIsGood(file, frame, bytes, bytes + frameHeader)) ||
               !BadFrameIsDamage(file, frame, bytes);
    }
    return size < pageSize;
}

// False where a write was lost: the frame there belongs to an earlier log.
bool IsOfThisLog(File& log, const unsigned char* frame) {
    File& main = *log.main;
    const auto same = [&] { return main.saltsKnown && std::memcmp(frame + 8, main.salts, sizeof main.salts) == 0; };
    if (!same()) main.saltsKnown = log.Get(main.salts, sizeof main.salts, 16);
    return same();
}

// For a frame that SQLite knows to be whole. Its header has the page's number, which the page's checksum covers.
int ReadLoggedPage(File& file, void* buffer, sqlite3_int64 offset) {
    unsigned char frame[frameSize];
    const int rc = file.Does().xRead(file.Real(), frame, frameSize, offset - frameHeader);
    if (rc != SQLITE_OK) return rc;
    const unsigned char* const page = frame + frameHeader;
    const bool good = IsOfThisLog(file, frame) && PageIsGood(page, (std::int64_t{Number(frame)} - 1) * pageSize);
    if (!good) return SQLITE_IOERR_DATA;
    std::memcpy(buffer, page, pageSize);
    return SQLITE_OK;
}

// SQLite takes no locks on an immutable file, and would mix what it read before and after a change.
bool HasChanged(const File& file) {
    struct stat now {};
    return stat(file.immutable, &now) != 0 || now.st_ino != file.found.st_ino || now.st_size != file.found.st_size ||
           now.st_mtim.tv_sec != file.found.st_mtim.tv_sec || now.st_mtim.tv_nsec != file.found.st_mtim.tv_nsec;
}

// The header and the schema are the same in every catalogue of a format, but for the number of pages. Where that is 0,
// SQLite goes by the length of the file, so that one that was cut off can be read, too.
std::string FirstPageInstead(File& file, const char* path) {
    constexpr std::size_t numberOfPages = 28;
    unsigned char own[pageSize];
    sqlite3_int64 length = 0;
    file.Does().xFileSize(file.Real(), &length);
    const bool good = file.Get(own, pageSize, 0) && PageIsGood(own, 0);
    if (good && Number(own + numberOfPages) * std::int64_t{pageSize} <= length) return {};
    std::ifstream fresh(path, std::ios::binary);
    std::string page(pageSize, '\0');
    if (!fresh.read(page.data(), pageSize) || !PageIsGood(reinterpret_cast<unsigned char*>(page.data()), 0)) return {};
    return page.replace(numberOfPages, 4, 4, '\0');
}

int Read(sqlite3_file* handle, void* buffer, int size, sqlite3_int64 offset) {
    File& file = Of(handle);
    const auto* const bytes = static_cast<const unsigned char*>(buffer);
    if (const int failed = file.PassOn()) return failed;
    if (offset + size <= static_cast<sqlite3_int64>(file.first.size())) {
        file.first.copy(static_cast<char*>(buffer), static_cast<std::size_t>(size), static_cast<std::size_t>(offset));
        return SQLITE_OK;
    }
    if (file.isLog && size == pageSize) return ReadLoggedPage(file, buffer, offset);
    const int rc = file.Does().xRead(file.Real(), buffer, size, offset);
    if (file.immutable && HasChanged(file)) return SQLITE_IOERR_VNODE;
    if (file.isLog && file.ends) return rc;
    if (file.isLog) return rc != SQLITE_OK || LogReadIsGood(file, bytes, size, offset) ? rc : SQLITE_IOERR_DATA;
    constexpr int smallestPage = 512;
    if (rc != SQLITE_OK && rc != SQLITE_IOERR_SHORT_READ) return rc;
    // Only of the first page, which is read as a whole later, are pieces looked at before.
    if (size < smallestPage && offset < pageSize) return rc;
    // A page that is cut off, or of another size, is damage too.
    if (rc == SQLITE_OK && size == pageSize) return PageIsGood(bytes, offset) ? rc : SQLITE_IOERR_DATA;
    // Newer versions of SQLite read of the pages of a long value no more than they need.
    const sqlite3_int64 begin = offset - offset % pageSize;
    unsigned char page[pageSize];
    if (offset == 0 || offset + size > begin + pageSize) return SQLITE_IOERR_DATA;
    const int whole = file.Does().xRead(file.Real(), page, pageSize, begin);
    if (whole != SQLITE_OK) return whole == SQLITE_IOERR_SHORT_READ ? SQLITE_IOERR_DATA : whole;
    if (!PageIsGood(page, begin)) return SQLITE_IOERR_DATA;
    std::memcpy(buffer, page + (offset - begin), static_cast<std::size_t>(size));
    return SQLITE_OK;
}

// A page gets its checksum on its way to the log already, so that it has one in the main file too when another program
// brings it there, which SQLite does when it closes the file that a killed process left. The frame's checksum, made
// before, is made anew. A page without its frame's header replaces one: SQLite makes the checksums anew itself.
int SetSums(File& file, sqlite3_int64 offset) {
    const sqlite3_int64 frame = (offset - logHeader) / frameSize;
    if (offset != FrameAt(frame) + frameHeader) return SQLITE_OK;
    unsigned char header[frameHeader];
    if (!file.Get(header, frameHeader, FrameAt(frame))) return SQLITE_IOERR_WRITE;
    auto* const page = reinterpret_cast<unsigned char*>(file.pending.data() + file.pending.size() - pageSize);
    SetPageSum(page, (std::int64_t{Number(header)} - 1) * pageSize);
    if (file.pendingAt > FrameAt(frame)) return SQLITE_OK;
    Sums sums{};
    if (!FrameSums(file, frame, header, page, sums)) return SQLITE_IOERR_WRITE;
    Put(page - 8, sums);
    return SQLITE_OK;
}

// A transaction is many small pieces.
int WriteLog(File& file, const void* bytes, int size, sqlite3_int64 offset) try {
    constexpr std::size_t most = 0x1ffff;  // that SQLite writes at a time
    const bool follows = offset == file.pendingAt + static_cast<sqlite3_int64>(file.pending.size());
    if (!follows || (size != pageSize && file.pending.size() + frameSize > most)) {
        if (const int failed = file.PassOn()) return failed;
    }
    if (file.pending.empty()) file.pendingAt = offset;
    file.pending.append(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
    return size == pageSize ? SetSums(file, offset) : SQLITE_OK;
} catch (const std::bad_alloc&) {
    return SQLITE_IOERR_NOMEM;
}

int Write(sqlite3_file* handle, const void* bytes, int size, sqlite3_int64 offset) {
    File& file = Of(handle);
    if (file.isLog) return WriteLog(file, bytes, size, offset);
    if (size != pageSize) return file.Does().xWrite(file.Real(), bytes, size, offset);
    unsigned char page[pageSize];
    std::memcpy(page, bytes, pageSize - pageReserve);
    SetPageSum(page, offset);
    return file.Does().xWrite(file.Real(), page, size, offset);
}

std::atomic<int> openFiles{0};

int Close(sqlite3_file* handle) {
    File& file = Of(handle);
    openFiles -= !file.isLog;
    const int passedOn = file.PassOn();
    const int closed = file.Does().xClose(file.Real());
    file.~File();
    return passedOn ? passedOn : closed;
}

// All else goes through. Version 2 has no memory maps, whose pages would be read unseen.
// clang-format off
const sqlite3_io_methods methods = {
    2,
    Close,
    Read,
    Write,
    [](sqlite3_file* f, sqlite3_int64 size) {
        const int failed = Of(f).PassOn();
        return failed ? failed : Of(f).Does().xTruncate(Of(f).Real(), size);
    },
    [](sqlite3_file* f, int flags) {
        const int failed = Of(f).PassOn();
        return failed ? failed : Of(f).Does().xSync(Of(f).Real(), flags);
    },
    [](sqlite3_file* f, sqlite3_int64* size) {
        const int failed = Of(f).PassOn();
        return failed ? failed : Of(f).Does().xFileSize(Of(f).Real(), size);
    },
    [](sqlite3_file* f, int lock) { return Of(f).Does().xLock(Of(f).Real(), lock); },
    [](sqlite3_file* f, int lock) { return Of(f).Does().xUnlock(Of(f).Real(), lock); },
    [](sqlite3_file* f, int* held) { return Of(f).Does().xCheckReservedLock(Of(f).Real(), held); },
    [](sqlite3_file* f, int what, void* argument) { return Of(f).Does().xFileControl(Of(f).Real(), what, argument); },
    [](sqlite3_file* f) { return Of(f).Does().xSectorSize(Of(f).Real()); },
    [](sqlite3_file* f) { return Of(f).Does().xDeviceCharacteristics(Of(f).Real()); },
    [](sqlite3_file* f, int part, int size, int extend, void volatile** at) {
        return Of(f).Does().xShmMap(Of(f).Real(), part, size, extend, at);
    },
    [](sqlite3_file* f, int from, int count, int flags) {
        constexpr int checkpoints = 1;  // the place of SQLite's lock for them
        // A transaction or a checkpoint begins.
        if (flags & SQLITE_SHM_LOCK && (flags & SQLITE_SHM_SHARED || from == checkpoints)) Of(f).saltsKnown = false;
        return Of(f).Does().xShmLock(Of(f).Real(), from, count, flags);
    },
    [](sqlite3_file* f) { Of(f).Does().xShmBarrier(Of(f).Real()); },
    [](sqlite3_file* f, int remove) { return Of(f).Does().xShmUnmap(Of(f).Real(), remove); },
    nullptr,
    nullptr,
};
// clang-format on

int Open(sqlite3_vfs* vfs, const char* name, sqlite3_file* handle, int flags, int* opened) {
    auto* const real = static_cast<sqlite3_vfs*>(vfs->pAppData);
    if (!(flags & (SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL))) return real->xOpen(real, name, handle, flags, opened);
    File& file = *new (handle) File{};
    file.isLog = flags & SQLITE_OPEN_WAL;
    // Closing the shared memory's file lets go of all locks on it that the process has, so only its first opening
    // may look, and others wait for it.
    static std::mutex& mutex = *new std::mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    if (file.isLog) {
        file.main = &Of(sqlite3_database_file_object(name));
        file.ends = sqlite3_uri_boolean(name, "ends", 0) != 0;
    } else if (openFiles == 0) {
        file.flushed = FlushedFrames(std::string(name) + "-shm");
    }
    if (!file.isLog && sqlite3_uri_boolean(name, "immutable", 0) && stat(name, &file.found) == 0) file.immutable = name;
    int got = 0;
    int rc = real->xOpen(real, name, file.Real(), flags, &got);
    if (opened) *opened = got;
    if (!file.Real()->pMethods) {
        file.~File();
        return rc;
    }
    file.base.pMethods = &methods;
    if (rc == SQLITE_OK && file.isLog) {
        // SQLite accepts a log that it can only read, but then refuses every change.
        if ((flags & ~got) & SQLITE_OPEN_READWRITE && file.main->writable) rc = SQLITE_CANTOPEN;
        if (!file.ends && !FlushedPartIsGood(file)) rc = SQLITE_IOERR_DATA;
    }
    const char* const first = file.isLog ? nullptr : sqlite3_uri_parameter(name, "first");
    if (rc == SQLITE_OK && first) file.first = FirstPageInstead(file, first);
    file.writable = got & SQLITE_OPEN_READWRITE;
    openFiles += !file.isLog;
    return rc;
}

sqlite3_vfs Made() {
    sqlite3_vfs* const real = sqlite3_vfs_find(nullptr);
    sqlite3_vfs vfs = *real;
    vfs.pNext = nullptr;
    vfs.zName = vfsName;
    vfs.szOsFile += static_cast<int>(sizeof(File));
    vfs.pAppData = real;
    vfs.xOpen = Open;
    return vfs;
}

}  // namespace

const char* CheckedVfs() {
    static sqlite3_vfs vfs = Made();
    static const int registered = sqlite3_vfs_register(&vfs, 0);
    return registered == SQLITE_OK ? vfsName : nullptr;
}

}  // namespace standin
