#include "Database.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "PageChecks.h"

namespace standin {
namespace {

// Waits in short steps: SQLite's own handler sleeps up to 100 ms at a time, which starves some of many writers.
int WaitForLock(void*, int attempts) {
    constexpr int limit = 60'000;
    if (attempts >= limit) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 1;
}

// If a file cannot be made, SQLite tries a second time, and that hides the reason.
bool HasNoMoreFiles(sqlite3* database) {
    const char* const path = database ? sqlite3_db_filename(database, "main") : nullptr;
    struct statvfs status {};
    return path && statvfs(path, &status) == 0 && status.f_files != 0 && status.f_favail == 0;
}

void Check(sqlite3* database, int code) {
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) return;
    const int error = database ? sqlite3_extended_errcode(database) : code;
    const int system = database ? sqlite3_system_errno(database) : 0;
    const int kind = code & 0xff;
    if (kind == SQLITE_NOMEM) throw std::bad_alloc();
    const bool full = kind == SQLITE_FULL || error == SQLITE_IOERR_SHMSIZE ||
                      (kind == SQLITE_IOERR && (system == ENOSPC || system == EDQUOT)) ||
                      (kind == SQLITE_CANTOPEN && HasNoMoreFiles(database));
    if (full) throw std::system_error(ENOSPC, std::generic_category(), "catalogue");
    if (kind == SQLITE_READONLY) throw std::system_error(EROFS, std::generic_category(), "catalogue");
    if (error == SQLITE_IOERR_DATA) {
        throw Unreadable("catalogue: damaged: a page does not have its checksum; see tsm-standin-check");
    }
    if (error == SQLITE_IOERR_VNODE) throw std::runtime_error("catalogue: is being changed: sign on anew");
    const std::string text = std::string("catalogue: ") + (database ? sqlite3_errmsg(database) : sqlite3_errstr(code));
    const bool unread = error == SQLITE_IOERR_READ || error == SQLITE_IOERR_SHORT_READ;
    if (unread || kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB) throw Unreadable(text);
    throw std::runtime_error(text);
}

std::string Escaped(const std::string& path) {
    std::string uri;
    for (const char c : path) {
        constexpr const char* digits = "0123456789ABCDEF";
        const auto byte = static_cast<unsigned char>(c);
        c == '?' || c == '#' || c == '%' || c == '&' ? uri.append({'%', digits[byte >> 4], digits[byte & 15]})
                                                     : uri.append(1, c);
    }
    return uri;
}

std::string Uri(const std::string& path) {
    return "file:" + Escaped(path);
}

}  // namespace

void Statement::GiveBack::operator()(sqlite3_stmt* statement) const {
    if (!kept) {
        sqlite3_finalize(statement);
        return;
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    kept->inUse = false;
}

void Statement::Bind(Values, int index, std::int64_t value) {
    Check(sqlite3_db_handle(statement_.get()), sqlite3_bind_int64(statement_.get(), index, value));
}

void Statement::Bind(Values whose, int index, const std::string& value) {
    Check(sqlite3_db_handle(statement_.get()),
          sqlite3_bind_blob64(statement_.get(), index, value.data(), value.size(),
                              whose == Values::Copied ? SQLITE_TRANSIENT : SQLITE_STATIC));
}

bool Statement::Step() {
    const int code = sqlite3_step(statement_.get());
    Check(sqlite3_db_handle(statement_.get()), code);
    return code == SQLITE_ROW;
}

void Statement::Need(bool inOrder) {
    if (!inOrder) throw Unreadable("catalogue: damaged: a value that cannot be");
}

std::int64_t Statement::Int(int column) {
    Need(sqlite3_column_type(statement_.get(), column) == SQLITE_INTEGER);
    return sqlite3_column_int64(statement_.get(), column);
}

std::int64_t Statement::Count(int column) {
    const std::int64_t value = Int(column);
    Need(value >= 0);
    return value;
}

std::string_view Statement::Bytes(int column, std::size_t longest) {
    Need(sqlite3_column_type(statement_.get(), column) == SQLITE_BLOB);
    const void* const bytes = sqlite3_column_blob(statement_.get(), column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    Need(size <= longest && (bytes || size == 0));
    return bytes ? std::string_view(static_cast<const char*>(bytes), size) : std::string_view();
}

Database::Database(const std::string& path, Mode mode, bool checked) : path_(path), mode_(mode) {
    std::string uri = Uri(path);
    if (mode == Mode::Immutable) uri += "?immutable=1";
    const int access = mode == Mode::Write    ? SQLITE_OPEN_READWRITE
                       : mode == Mode::Create ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                                              : SQLITE_OPEN_READONLY;
    const int flags = access | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW;
    sqlite3* handle = nullptr;
    const int code = sqlite3_open_v2(uri.c_str(), &handle, flags, checked ? CheckedVfs() : nullptr);
    handle_.reset(handle);
    Check(handle, code);
    sqlite3_extended_result_codes(handle, 1);  // those of statements that SQLite runs for a pragma, too
    // SQLite opens a file for reading if it cannot open it for writing.
    if (access != SQLITE_OPEN_READONLY && sqlite3_db_readonly(handle, "main") != 0) {
        throw std::runtime_error(path + " cannot be opened for writing");
    }
    sqlite3_busy_handler(handle, WaitForLock, nullptr);
    if (checked && mode == Mode::Create) {
        int reserve = pageReserve;
        Run("PRAGMA page_size = " + std::to_string(pageSize));
        Check(handle, sqlite3_file_control(handle, "main", SQLITE_FCNTL_RESERVE_BYTES, &reserve));
    }
    Run("PRAGMA synchronous = FULL");
    Run("PRAGMA cache_size = -2048");
    // A transaction goes to the log at its commit and in one piece, so that what is read from there is always whole.
    // OFF would keep FlushOverOldLog from writing, too.
    Run("PRAGMA cache_spill = 2147483647");
}

Database::~Database() {
    for (const auto& [sql, kept] : kept_) sqlite3_finalize(kept.statement);
}

Statement Database::Prepared(std::string_view sql) {
    auto place = kept_.find(sql);
    if (place == kept_.end() || place->second.inUse) {
        sqlite3_stmt* statement = nullptr;
        Check(handle_.get(),
              sqlite3_prepare_v2(handle_.get(), sql.data(), static_cast<int>(sql.size()), &statement, nullptr));
        Statement made(statement, nullptr);
        if (place != kept_.end()) return made;
        place = kept_.emplace(sql, Statement::Kept{}).first;
        place->second.statement = made.statement_.release();
    }
    place->second.inUse = true;
    return Statement(place->second.statement, &place->second);
}

void Database::NeedInPlace() {
    int moved = 0;
    struct stat log {};
    sqlite3_file_control(handle_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    if (moved) throw std::runtime_error(path_ + " was removed or replaced while it was in use");
    if (mode_ == Mode::Immutable && lstat((path_ + "-wal").c_str(), &log) == 0 && log.st_size > 0) {
        throw std::runtime_error(path_ + " is being changed: sign on anew");
    }
}

void Database::AttachUnchecked(const std::string& path, const std::string& name) {
    Run("ATTACH ?1 AS " + name, Uri(path) + "?mode=ro&vfs=" + sqlite3_vfs_find(nullptr)->zName);
}

void Database::Attach(const std::string& path, const std::string& name, const std::string& fresh) {
    Run("ATTACH ?1 AS " + name, Uri(path) + "?mode=ro&ends=1&first=" + Escaped(fresh));
}

std::int64_t Database::Number(const char* sql) {
    Statement statement = Query(sql);
    if (!statement.Step()) throw std::runtime_error(std::string("catalogue: no answer to ") + sql);
    return statement.Int(0);
}

void Database::Script(const char* sql) {
    Check(handle_.get(), sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr));
}

Database::Transaction::Transaction(Database& database) : database_(database) {
    database_.Run("BEGIN IMMEDIATE");
}

Database::Transaction::~Transaction() {
    if (open_) sqlite3_exec(database_.handle_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool Database::InTransaction() const {
    return sqlite3_get_autocommit(handle_.get()) == 0;
}

void Database::CountLog() {
    const auto count = [](void* pages, sqlite3*, const char*, int now) {
        *static_cast<int*>(pages) = now;
        return SQLITE_OK;
    };
    sqlite3_wal_hook(handle_.get(), count, &logPages_);  // in the place of SQLite's own, which checkpoints
}

Database::Log Database::Checkpoint() {
    Log log;
    Check(handle_.get(),
          sqlite3_wal_checkpoint_v2(handle_.get(), "main", SQLITE_CHECKPOINT_PASSIVE, &log.pages, &log.broughtIn));
    return log;
}

void Database::FlushOverOldLog() {
    Check(handle_.get(), sqlite3_db_cacheflush(handle_.get()));
    sqlite3_file* log = nullptr;
    Check(handle_.get(), sqlite3_file_control(handle_.get(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log));
    if (!log || !log->pMethods || log->pMethods->xSync(log, SQLITE_SYNC_NORMAL) != SQLITE_OK) {
        throw std::runtime_error("catalogue: its log cannot be flushed");
    }
}

void Database::Transaction::Commit() {
    database_.Run("COMMIT");
    open_ = false;
}

}  // namespace standin
