// libtsmtrace.so: the client API's functions. Each hands its call on unchanged and writes a line of JSON.
//
// It runs in a host's process, which must not notice it: errno, the arguments and the answers stay as they were. A
// thread makes its lines in memory of its own, without an allocation. They are mapped to a file, so that they outlive
// the process however it ends. If a line cannot be written, the host goes on and the line is counted as lost.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <tuple>

#include "Records.h"

// The next function of the name that the program knows, else that of the library named. Null: the API has none.
extern "C" __attribute__((visibility("default"))) void* dsmRecorderNext(const char* name, void* own);

namespace trace {
namespace {

constexpr std::size_t longestText = 2048;     // of a pointer's text, which nothing else limits
constexpr dsUint32_t mostIds = 256;           // of a list to read
constexpr std::size_t bufferSize = 96 << 10;  // of a thread; used from the front, so that most of it is never touched

// What a thread has for its lines; they grow on top of each other where the API calls its own functions.
struct Thread {
    long id;
    char begin[64];  // of each line: the numbers of process and thread
    int depth;
    std::size_t top;
    char buffer[bufferSize];
};
pthread_key_t threadKey;

// Mapped when the thread first calls: a thread_local variable would take room on the stack of every thread of the host,
// however small. Null: no memory.
Thread* OwnThread() {
    if (void* const own = pthread_getspecific(threadKey)) return static_cast<Thread*>(own);
    void* const made = mmap(nullptr, sizeof(Thread), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (made == MAP_FAILED) return nullptr;
    if (pthread_setspecific(threadKey, made) == 0) return static_cast<Thread*>(made);
    munmap(made, sizeof(Thread));
    return nullptr;
}

long long Nanoseconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

const char* CodeName(long long code) {
    switch (code) {
#define CODE(value, name, text) \
    case value:                 \
        return name;
#include "../tables/codes.def"
#undef CODE
    }
    return "";
}

// Length of the UTF-8 character at the text's begin; 0 where there is none.
std::size_t Utf8(const unsigned char* text, std::size_t size) {
    const unsigned first = text[0];
    const std::size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || length > size || first > 0xF4) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80) return 0;
    }
    const bool over = (first == 0xE0 && text[1] < 0xA0) || (first == 0xF0 && text[1] < 0x90);
    const bool beyond = (first == 0xED && text[1] > 0x9F) || (first == 0xF4 && text[1] > 0x8F);
    return over || beyond ? 0 : length;
}

// The same as zlib's crc32.
std::uint32_t Crc32(const char* data, std::size_t size) {
    static const auto table = [] {
        struct {
            std::uint32_t of[256];
        } all;
        for (std::uint32_t i = 0; i < 256; ++i) {
            all.of[i] = i;
            for (int bit = 0; bit < 8; ++bit) all.of[i] = (all.of[i] >> 1) ^ (all.of[i] & 1 ? 0xEDB88320u : 0);
        }
        return all;
    }();
    std::uint32_t crc = ~0u;
    for (std::size_t i = 0; i < size; ++i)
        crc = (crc >> 8) ^ table.of[(crc ^ static_cast<unsigned char>(data[i])) & 255];
    return ~crc;
}

// ------------------------------------------------------------------------------------------------- the file

// Lines wait in a small file beside the recording, FILE.held.PID. It is mapped, so what is in memory stays in that file
// when the process is killed, and many lines cost one write. Without such a file each line is written by itself.
class File {
public:
    constexpr File() = default;  // so that it is there before any code runs

    // Reads the environment, once a process. Without a file nothing is recorded.
    void Open() {
        const char* const name = secure_getenv("TSMTRACE_FILE");
        if (!name || *name == '\0') return;
        char folder[PATH_MAX] = "";  // the host may go elsewhere
        if (name[0] != '/' && !getcwd(folder, sizeof folder)) return;
        const int length = std::snprintf(path_, sizeof path_, "%s%s%s", folder, *folder ? "/" : "", name);
        if (length < 0 || static_cast<std::size_t>(length) >= sizeof path_) return;
        limit_ = std::min(Number("TSMTRACE_SIZE", LLONG_MAX >> 20), LLONG_MAX >> 20) << 20;
        keep_ = static_cast<int>(std::min(Number("TSMTRACE_KEEP", 4), 1000LL));
        checksums = Number("TSMTRACE_CHECKSUMS", 0) != 0;
        rlimit files;  // writing beyond it would end the host
        if (getrlimit(RLIMIT_FSIZE, &files) == 0 && files.rlim_cur != RLIM_INFINITY) {
            if (files.rlim_cur < 4 * capacity) return;
            limit_ = std::min(limit_, static_cast<long long>(files.rlim_cur / 2));
        }
        pid = getpid();
        Compare();
        Attach();
        on = true;
    }

    // Locks the file for a line, and returns the line's number. The thread cannot be cancelled until Unlock. 0: this
    // thread has the lock already, and is now in a signal's handler.
    long long Lock() {
        int cancel;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
        if (pthread_mutex_lock(&mutex_) != 0) {
            pthread_setcancelstate(cancel, nullptr);
            return 0;
        }
        cancel_ = cancel;
        if (!text_) Hold();
        return lines_ + 1;
    }
    void Unlock() {
        const int cancel = cancel_;
        pthread_mutex_unlock(&mutex_);
        pthread_setcancelstate(cancel, nullptr);
    }

    // Needs the lock. A line that must be seen at once does not wait.
    void Write(const char* line, std::size_t size, long long now, bool atOnce) {
        if (lost_ != 0) {
            if (const long long lost = lost_.exchange(0); !Event("gap", lost)) lost_ += lost;
        }
        if (lost_ != 0 || !Append(line, size)) return Lose();
        ++lines_;
        if (atOnce || !mapped_ || used_ > capacity - capacity / 4 || now - flushed_ > 100000) {
            flushed_ = now;
            Flush();
        }
    }
    void Lose() { ++lost_; }

    // At the end of a process that ends by itself.
    void Close() {
        if (!on || lines_ + lost_ == 0 || Lock() == 0) return;
        Flush();
        Event("end", lost_);
        Flush();
        if (mapped_ && used_ == 0) {
            unlink(held_);
            mapped_ = false;  // lines of calls that still come do not wait
        }
        Unlock();
    }

    // In the child after a fork. It goes on in the same file, and holds its lines by itself.
    void Forked() {
        mutex_ = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
        if (mapped_) munmap(text_, capacity);
        text_ = nullptr;
        pid = getpid();
        lines_ = 0;
        lost_ = 0;
        started = false;
    }

    // The moment of a reading of the monotonic clock, in microseconds since 1970.
    long long WallClock(long long monotonic) const { return (monotonic + ahead_) / 1000; }

    bool on = false;
    bool checksums = false;
    int pid = 0;
    std::atomic<bool> started{false};

private:
    static constexpr std::size_t capacity = 256 << 10;

    static long long Number(const char* variable, long long otherwise) {
        const char* const text = secure_getenv(variable);
        const long long number = text ? std::atoll(text) : 0;
        return number > 0 ? number : otherwise;
    }

    // Maps the file in which lines wait. What an earlier process with the same number left there is written first. All
    // blocks are allocated before: on a full disk a write to the mapping would end the host. Hence only filesystems
    // that need no new blocks for such a write.
    void Hold() {
        static char own[capacity];
        static const char nothing[4096] = {};
        text_ = own;
        used_ = 0;
        mapped_ = false;
        if (!S_ISREG(attached_.st_mode)) return;  // a terminal
        std::snprintf(held_, sizeof held_, "%s.held.%d", path_, pid);
        const int opened = open(held_, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (opened < 0) return;
        struct stat now = {};
        struct statfs disk;
        bool whole = fstat(opened, &now) == 0 && S_ISREG(now.st_mode) && now.st_uid == geteuid() &&
                     fstatfs(opened, &disk) == 0 &&
                     (disk.f_type == EXT4_SUPER_MAGIC || disk.f_type == XFS_SUPER_MAGIC || disk.f_type == TMPFS_MAGIC ||
                      disk.f_type == OVERLAYFS_SUPER_MAGIC);
        for (off_t at = now.st_size; whole && at < static_cast<off_t>(capacity); at += sizeof nothing) {
            whole = pwrite(opened, nothing, sizeof nothing, at) == sizeof nothing;
        }
        void* const area = whole ? mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, opened, 0) : MAP_FAILED;
        close(opened);
        if (area == MAP_FAILED) {
            if (now.st_size == 0) unlink(held_);
            return;
        }
        text_ = static_cast<char*>(area);
        mapped_ = true;
        used_ = strnlen(text_, capacity - 1);
        Flush();
    }

    // The last byte stays zero: it ends what is read after a kill.
    bool Append(const char* line, std::size_t size) {
        if (size >= capacity - used_) Flush();
        if (size >= capacity - used_) return false;
        std::memcpy(text_ + used_, line, size);
        used_ += size;
        return true;
    }

    void Compare() { ahead_ = Nanoseconds(CLOCK_REALTIME) - Nanoseconds(CLOCK_MONOTONIC); }

    // Looks at the file first: the host may have closed it and opened another under its number, and other processes may
    // have filled it up to its limit.
    void Flush() {
        Compare();
        if (used_ == 0) return;
        struct stat now = {};
        if (fstat(fd_, &now) != 0 || !Same(now, attached_)) {
            fd_ = -1;
            Attach();
            now = attached_;
        }
        if (now.st_size > limit_) {
            attached_ = now;
            Rotate();
            if (attached_.st_size > limit_) return;  // writing on might end the host
        }
        while (used_ > 0) {
            const ssize_t done = write(fd_, text_, used_);
            if (done < 0 && errno == EINTR) continue;
            if (done <= 0) return;
            used_ -= static_cast<std::size_t>(done);
            std::memmove(text_, text_ + done, used_);
            std::memset(text_ + used_, 0, static_cast<std::size_t>(done));
        }
    }

    static bool Same(const struct stat& a, const struct stat& b) {
        return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
    }

    bool Event(const char* event, long long lost) {
        char line[200];
        const int size =
            std::snprintf(line, sizeof line, "{\"event\":\"%s\",\"pid\":%d,\"at\":%lld,\"lines\":%lld,\"lost\":%lld}\n",
                          event, pid, WallClock(Nanoseconds(CLOCK_MONOTONIC)), lines_, lost);
        return Append(line, static_cast<std::size_t>(size));
    }

    // Opens the file again by its name. The descriptor is a high one: hosts that become daemons close the low ones and
    // use their numbers again. A pipe is refused, since it could block or end the host.
    void Attach() {
        const int opened = open(path_, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
        struct stat made;
        if (opened < 0) return;
        if (fstat(opened, &made) != 0 || S_ISFIFO(made.st_mode)) {
            close(opened);
            return;
        }
        attached_ = made;
        if (fd_ >= 0) {
            dup3(opened, fd_, O_CLOEXEC);
        } else {
            fd_ = fcntl(opened, F_DUPFD_CLOEXEC, 512);
            if (fd_ < 0) fd_ = fcntl(opened, F_DUPFD_CLOEXEC, 3);
        }
        close(opened);
    }

    // Renames FILE to FILE.1, FILE.1 to FILE.2, and so on. If another process did so already, only opens the new file.
    void Rotate() {
        struct stat now;
        const bool same = S_ISREG(attached_.st_mode) && stat(path_, &now) == 0 && Same(now, attached_);
        for (int i = keep_; same && i > 0; --i) {
            char from[PATH_MAX + 16], to[PATH_MAX + 16];
            std::snprintf(from, sizeof from, i > 1 ? "%s.%d" : "%s", path_, i - 1);
            std::snprintf(to, sizeof to, "%s.%d", path_, i);
            rename(from, to);
        }
        Attach();
    }

    pthread_mutex_t mutex_ = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    char path_[PATH_MAX] = {}, held_[PATH_MAX + 24] = {};
    int fd_ = -1;
    struct stat attached_ = {};  // the file that fd_ was opened for
    int keep_ = 0;
    long long limit_ = LLONG_MAX;
    char* text_ = nullptr;
    std::size_t used_ = 0;
    bool mapped_ = false;
    std::atomic<long long> ahead_{0};  // of the monotonic clock: nanoseconds to add for the time of day
    int cancel_ = 0;
    long long lines_ = 0, flushed_ = 0;
    std::atomic<long long> lost_{0};
};

File file;

// ------------------------------------------------------------------------------------------------- a line

// The type of each handle's query, with which its answers are read. If two handles share a place, the answers to one of
// them are not read.
std::atomic<std::uint64_t> queries[256];

// The visitor that writes a line, a JSON object. A line that does not fit into the buffer is left out as a whole.
class Line {
public:
    explicit Line(Thread& thread) : thread_(thread), begin_(thread_.top), end_(begin_) {
        ++thread_.depth;
        if (thread_.id == 0) {
            thread_.id = syscall(SYS_gettid);
            std::snprintf(thread_.begin, sizeof thread_.begin, "\"pid\":%d,\"tid\":%ld", file.pid, thread_.id);
        }
        Raw("{");
    }
    ~Line() {
        --thread_.depth;
        thread_.top = begin_;
    }

    // The first line of a process: of threads that begin together, the first one to have the lock writes it.
    void Start(const char* program, const char* api) {
        Literal("event", "start");
        Number("format", 1);
        Number("pid", file.pid);
        Number("at", at_ = file.WallClock(Nanoseconds(CLOCK_MONOTONIC)));
        Literal("recorder", TSMTRACE_VERSION);
        Text("program", program, PATH_MAX);
        Text("api", api, PATH_MAX);
        Finish(true, true);
    }

    // The first members of a call's line.
    void Begin(const char* call) {
        Raw(thread_.begin);
        if (thread_.depth > 1) Number("depth", thread_.depth - 1);
        Literal("call", call);
    }
    // The lines of calls that this call makes go behind its own in the buffer.
    void Called() { thread_.top = end_; }

    // From here on, what the call gives back.
    void Answer(long long start, long long nanoseconds, long long code, bool there) {
        answered_ = true;
        code_ = code;
        Number("at", at_ = file.WallClock(start));
        Number("mono", start);
        Number("ns", nanoseconds);
        Number("rc", code);
        Literal("code", CodeName(code));
        if (!there) Number("missing", 1);
    }

    // Failures are seen at once.
    void End() {
        const bool failed = code_ != 0 && code_ != DSM_RC_MORE_DATA && code_ != DSM_RC_FINISHED;
        Finish(failed);
    }

    template <class T>
    void In(const char* key, T& value) {
        if (!answered_) (*this)(key, value);
    }
    template <class T>
    void Out(const char* key, T& value) {
        if (answered_) (*this)(key, value);
    }

    void Handle(dsUint32_t& handle) { In("h", handle); }
    void NewHandle(dsUint32_t*& handle) {
        if (answered_ && code_ == 0 && handle) Number("h", *handle);
        if (!answered_ && !handle) Literal("h", nullptr);
    }

    void Query(dsUint32_t handle, dsmQueryType type, dsmQueryBuff*& query) {
        if (!answered_) queries[handle % 256] = (std::uint64_t{handle} << 8) | static_cast<std::uint8_t>(type);
        DescribeQuery(*this, type, query);
    }
    void Found(dsUint32_t handle, DataBlk*& block) {
        Data(block, false);
        if (!answered_ || code_ != DSM_RC_MORE_DATA || !block || !block->bufferPtr) return;
        const std::uint64_t query = queries[handle % 256];
        if (query >> 8 != handle) return;
        switch (query & 255) {
            case qtBackup:
                return Response<qryRespBackupData>(*block);
            case qtFilespace:
                return Response<qryRespFSData>(*block);
            case qtMC:
                return Response<qryRespMCData>(*block);
        }
    }
    void Deletion(dsmDelType type, dsmDelInfo& info) { DescribeDeletion(*this, type, info); }
    void Data(DataBlk*& block, bool isData = true) {
        In("data", block);
        if (!answered_ || !block) return;
        Number("bytes", block->numBytes);
        const bool taken = code_ == 0 || code_ == DSM_RC_MORE_DATA || code_ == DSM_RC_FINISHED;
        if (file.checksums && isData && taken && block->bufferPtr && block->numBytes <= block->bufferLen) {
            Number("crc32", Crc32(block->bufferPtr, block->numBytes));
        }
    }
    void Message(const char* key, char*& text) {
        if (answered_ && code_ == 0) (*this)(key, text);
        if (!answered_ && !text) Literal(key, nullptr);
    }

    // Whether it is set.
    void Secret(const char* key, char*& text) { Raw(Key(key), text ? "true" : "false"); }
    // How long it is; of a null pointer, as a negative number.
    template <class Pointer, class Length>
    void Blank(const char* key, Pointer& bytes, Length& length) {
        Number(key, bytes ? static_cast<long long>(length) : -static_cast<long long>(length));
    }
    void Ids(const char* key, ObjID*& ids, dsUint32_t& count) {
        Array(key, ids, count, [&](ObjID& id) { (*this)(nullptr, id); });
    }
    void Parts(const char* key, PartialObjData*& parts, dsUint32_t& count) {
        if (!parts) return;
        Array(key, parts, count, [&](PartialObjData& part) {
            (*this)(nullptr, part.partialObjOffset);
            (*this)(nullptr, part.partialObjLength);
        });
    }

    void operator()(const char* key, char*& text) { Text(key, text, longestText); }
    template <std::size_t Size>
    void operator()(const char* key, char (&field)[Size]) {
        Text(key, field, Size);
    }
    void operator()(const char* key, dsStruct64_t& number) {
        Number(key, (std::uint64_t{number.hi} << 32) | number.lo);
    }
    void operator()(const char* key, dsmDate& date) {
        if (date.year == 0 && date.month == 0 && date.day == 0) return Literal(key, nullptr);
        char text[40];
        std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", date.year, date.month, date.day, date.hour,
                      date.minute, date.second);
        Literal(key, text);
    }
    template <class T>
    std::enable_if_t<!std::is_class_v<T>> operator()(const char* key, T& number) {
        Number(key, static_cast<long long>(number));
    }
    template <class T>
    std::enable_if_t<std::is_class_v<T>> operator()(const char* key, T& record) {
        Raw(Key(key), "{");
        Fields(*this, record);
        Raw("}");
    }
    template <class T>
    void operator()(const char* key, T*& record) {
        if (!record) return Literal(key, nullptr);
        (*this)(key, *record);
    }

    // Null, a JSON string, or, of bytes that are no UTF-8, {"bytes": "their digits"}: each can be read back as it was.
    void Text(const char* key, const char* text, std::size_t most) {
        if (!text) return Literal(key, nullptr);
        const std::size_t size = strnlen(text, most);
        const auto* const bytes = reinterpret_cast<const unsigned char*>(text);
        for (std::size_t i = 0, length; i < size; i += length) {
            if ((length = Utf8(bytes + i, size - i)) == 0) return Digits(key, bytes, size);
        }
        Raw(Key(key), "\"");
        if (Fits(6 * size)) {
            for (std::size_t i = 0; i < size; ++i) Character(bytes[i]);
        }
        Raw("\"");
    }

private:
    void Finish(bool atOnce, bool isStart = false) {
        const long long number = file.Lock();
        if (number == 0) return isStart ? void() : file.Lose();  // what was interrupted has begun the file
        if (isStart && file.started.exchange(true)) return file.Unlock();
        Number("n", number);
        Raw("}\n");
        if (full_) file.Lose();
        if (!full_) file.Write(thread_.buffer + begin_, end_ - begin_, at_, atOnce);
        file.Unlock();
    }
    bool Fits(std::size_t size) {
        full_ = full_ || size > bufferSize - end_;
        return !full_;
    }
    // The lengths are known when this is compiled, mostly.
    template <class... Texts>
    [[gnu::always_inline]] void Raw(Texts... texts) {
        if (!Fits((std::strlen(texts) + ...))) return;
        char* out = thread_.buffer + end_;
        ((out = static_cast<char*>(std::memcpy(out, texts, std::strlen(texts))) + std::strlen(texts)), ...);
        end_ = static_cast<std::size_t>(out - thread_.buffer);
    }
    // Puts a member's key, unless it is an array's element. Returns nothing to be put.
    [[gnu::always_inline]] const char* Key(const char* key) {
        const bool first = end_ == begin_ || thread_.buffer[end_ - 1] == '{' || thread_.buffer[end_ - 1] == '[';
        if (key) {
            first ? Raw("\"", key, "\":") : Raw(",\"", key, "\":");
        } else if (!first) {
            Raw(",");
        }
        return "";
    }
    [[gnu::always_inline]] void Literal(const char* key, const char* text) {
        Key(key);
        if (!text) return Raw("null");
        Raw("\"", text, "\"");
    }
    template <class T>
    [[gnu::always_inline]] void Number(const char* key, T number) {
        Key(key);
        if (Fits(24)) {
            end_ = static_cast<std::size_t>(
                std::to_chars(thread_.buffer + end_, thread_.buffer + bufferSize, number).ptr - thread_.buffer);
        }
    }
    void Character(unsigned char c) {
        char* const out = thread_.buffer + end_;
        if (c >= ' ' && c != '"' && c != '\\') {
            *out = static_cast<char>(c);
            end_ += 1;
        } else {
            std::memcpy(out, "\\u00", 4);
            Hexadecimal(out + 4, c);
            end_ += 6;
        }
    }
    static void Hexadecimal(char* out, unsigned char c) {
        out[0] = "0123456789abcdef"[c >> 4];
        out[1] = "0123456789abcdef"[c & 15];
    }
    void Digits(const char* key, const unsigned char* bytes, std::size_t size) {
        Raw(Key(key), "{\"bytes\":\"");
        for (std::size_t i = 0; i < size && Fits(2); ++i, end_ += 2) Hexadecimal(thread_.buffer + end_, bytes[i]);
        Raw("\"}");
    }
    template <class T, class Each>
    void Array(const char* key, T* elements, dsUint32_t count, Each each) {
        if (!elements) return Literal(key, nullptr);
        Raw(Key(key), "[");
        for (dsUint32_t i = 0; i < std::min(count, mostIds); ++i) each(elements[i]);
        Raw("]");
        if (count > mostIds) Number("count", count);
    }
    template <class T>
    void Response(DataBlk& block) {
        if (block.bufferLen >= sizeof(T)) (*this)("found", *reinterpret_cast<T*>(block.bufferPtr));
    }

    Thread& thread_;
    const std::size_t begin_;
    std::size_t end_;
    long long at_ = 0;
    bool answered_ = false, full_ = false;
    long long code_ = 0;
};

// ------------------------------------------------------------------------------------------------- the calls

void* named = nullptr;  // the API's library: the one named at the start, else opened when it is needed

// A function of a library. If that library is a recorder too, the function behind it: only one of them writes a line.
void* Beyond(void* library, const char* name) {
    void* const found = dlsym(library, name);
    void* const next = dlsym(library, "dsmRecorderNext");
    Dl_info one = {}, other = {};
    if (!found || !next || next == reinterpret_cast<void*>(&dsmRecorderNext)) return found;
    if (dladdr(found, &one) == 0 || dladdr(next, &other) == 0 || one.dli_fbase != other.dli_fbase) return found;
    return reinterpret_cast<decltype(&dsmRecorderNext)>(next)(name, found);
}

void SayStart(Thread& thread, void* function) {
    char program[PATH_MAX] = "";
    Dl_info where = {};
    if (readlink("/proc/self/exe", program, sizeof program - 1) < 0) program[0] = '\0';
    if (function) dladdr(function, &where);
    Line line(thread);
    line.Start(program, where.dli_fname);
}

// Opens the named library for all to see: functions that the recorder does not have are then found in it.
void Initialise() {
    const char* const library = secure_getenv("TSMTRACE_API");
    if (library && *library != '\0') named = dlopen(library, RTLD_LAZY | RTLD_GLOBAL);
    if (pthread_key_create(&threadKey, [](void* own) { munmap(own, sizeof(Thread)); }) == 0) file.Open();
    pthread_atfork(nullptr, nullptr, [] {
        if (!file.on) return;
        if (void* const own = pthread_getspecific(threadKey)) static_cast<Thread*>(own)->id = 0;
        file.Forked();
    });
}

__attribute__((constructor)) void InitialiseOnce() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, Initialise);
}

__attribute__((destructor)) void Finish() {
    file.Close();
}

template <class Result, class... Declared, class Describe, class... Arguments>
Result HandOn(Result (*own)(Declared...), const char* name, std::atomic<void*>& slot, const Describe& describe,
              Arguments... arguments) {
    const int before = errno;
    InitialiseOnce();
    void* found = slot.load(std::memory_order_acquire);
    if (!found) slot = found = dsmRecorderNext(name, reinterpret_cast<void*>(own));
    const auto function = reinterpret_cast<Result (*)(Declared...)>(found);
    const auto call = [&]() -> dsInt16_t {
        errno = before;
        if (!function) return DSM_RC_ABORT_SYSTEM_ERROR;
        if constexpr (std::is_void_v<Result>) {
            function(arguments...);
            return DSM_RC_OK;
        } else {
            return function(arguments...);
        }
    };
    dsInt16_t rc;
    Thread* const thread = file.on ? OwnThread() : nullptr;
    if (!thread) {
        if (file.on) file.Lose();
        rc = call();
    } else {
        if (!file.started) SayStart(*thread, found);
        Line line(*thread);
        line.Begin(name);
        describe(line, arguments...);
        line.Called();
        const long long start = Nanoseconds(CLOCK_MONOTONIC);
        rc = call();
        const long long end = Nanoseconds(CLOCK_MONOTONIC);
        const int after = errno;
        line.Answer(start, end - start, rc, function != nullptr);
        describe(line, arguments...);
        line.End();
        errno = after;
    }
    if constexpr (!std::is_void_v<Result>) return rc;
}

template <class>
struct Prototype;
template <class R, class... Arguments>
struct Prototype<R(Arguments...)> {
    using Result = R;
    template <int Index>
    using Argument = std::tuple_element_t<Index, std::tuple<Arguments...>>;
};

}  // namespace
}  // namespace trace

void* dsmRecorderNext(const char* name, void* own) {
    trace::InitialiseOnce();
    void* found = trace::Beyond(RTLD_NEXT, name);
    if (!found) {
        if (!trace::named) trace::named = dlopen("libApiTSM64.so", RTLD_LAZY | RTLD_GLOBAL);
        if (trace::named) found = trace::Beyond(trace::named, name);
    }
    return found == own ? nullptr : found;
}

// The functions, with the parameters that the API's header declares.
#define ARGUMENT(name, i) trace::Prototype<decltype(name)>::Argument<i> a##i
#define PARAMETERS_1(name) ARGUMENT(name, 0)
#define PARAMETERS_2(name) PARAMETERS_1(name), ARGUMENT(name, 1)
#define PARAMETERS_3(name) PARAMETERS_2(name), ARGUMENT(name, 2)
#define PARAMETERS_4(name) PARAMETERS_3(name), ARGUMENT(name, 3)
#define PARAMETERS_5(name) PARAMETERS_4(name), ARGUMENT(name, 4)
#define PARAMETERS_6(name) PARAMETERS_5(name), ARGUMENT(name, 5)
#define ARGUMENTS_1 trace::Plain(a0)
#define ARGUMENTS_2 ARGUMENTS_1, trace::Plain(a1)
#define ARGUMENTS_3 ARGUMENTS_2, trace::Plain(a2)
#define ARGUMENTS_4 ARGUMENTS_3, trace::Plain(a3)
#define ARGUMENTS_5 ARGUMENTS_4, trace::Plain(a4)
#define ARGUMENTS_6 ARGUMENTS_5, trace::Plain(a5)
#define CALL(name, count, words, answers, ...)                                 \
    trace::Prototype<decltype(name)>::Result name(PARAMETERS_##count(name)) {  \
        static std::atomic<void*> slot{nullptr};                               \
        static constexpr auto describe = __VA_ARGS__;                          \
        return trace::HandOn(&name, #name, slot, describe, ARGUMENTS_##count); \
    }
extern "C" {
#include "../tables/calls.def"
}
