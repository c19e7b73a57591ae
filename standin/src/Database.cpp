#include "Database.h"

#include <chrono>
#include <new>
#include <stdexcept>
#include <thread>

namespace standin {
namespace {

// Waits in short steps: SQLite's own handler sleeps up to 100 ms at a time, which starves some of many writers.
int WaitForLock(void*, int attempts) {
    constexpr int limit = 60'000;
    if (attempts >= limit) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 1;
}

void Check(sqlite3* database, int code) {
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) return;
    if (code == SQLITE_NOMEM) throw std::bad_alloc();
    throw std::runtime_error(std::string("catalogue: ") + (database ? sqlite3_errmsg(database) : sqlite3_errstr(code)));
}

}  // namespace

Statement::Statement(sqlite3* database, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    Check(database, sqlite3_prepare_v2(database, sql, -1, &statement, nullptr));
    statement_.reset(statement);
}

void Statement::Bind(int index, std::int64_t value) {
    Check(sqlite3_db_handle(statement_.get()), sqlite3_bind_int64(statement_.get(), index, value));
}

void Statement::Bind(int index, const std::string& value) {
    Check(sqlite3_db_handle(statement_.get()),
          sqlite3_bind_blob64(statement_.get(), index, value.data(), value.size(), SQLITE_TRANSIENT));
}

bool Statement::Step() {
    const int code = sqlite3_step(statement_.get());
    Check(sqlite3_db_handle(statement_.get()), code);
    return code == SQLITE_ROW;
}

std::string_view Statement::Bytes(int column) {
    const void* const bytes = sqlite3_column_blob(statement_.get(), column);
    if (!bytes) return {};
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

Database::Database(const std::string& path) {
    sqlite3* handle = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    handle_.reset(handle);
    Check(handle, code);
    sqlite3_busy_handler(handle, WaitForLock, nullptr);
    Run("PRAGMA synchronous = FULL");
    Run("PRAGMA cache_size = -16384");
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

void Database::Transaction::Overwrite() {
    Check(database_.handle_.get(), sqlite3_db_cacheflush(database_.handle_.get()));
}

void Database::Transaction::Commit() {
    database_.Run("COMMIT");
    open_ = false;
}

}  // namespace standin
