// A connection to the catalogue's SQLite file, used by one thread at a time. Failures are std::runtime_error.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace standin {

// A statement with its values bound, stepped row by row. Texts are bound and read as bytes.
class Statement {
public:
    bool Step();
    bool IsNull(int column) { return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL; }
    std::int64_t Int(int column) { return sqlite3_column_int64(statement_.get(), column); }
    // Valid until the next step.
    std::string_view Bytes(int column);

private:
    friend class Database;
    Statement(sqlite3* database, const char* sql);
    void Bind(int index, std::int64_t value);
    void Bind(int index, const std::string& value);

    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class Database {
public:
    explicit Database(const std::string& path);

    // Binds the values to ?1, ?2 and so on.
    template <class... Values>
    Statement Query(const std::string& sql, const Values&... values) {
        Statement statement(handle_.get(), sql.c_str());
        [[maybe_unused]] int index = 0;
        (statement.Bind(++index, values), ...);
        return statement;
    }

    // Returns how many rows were changed.
    template <class... Values>
    int Run(const std::string& sql, const Values&... values) {
        Statement statement = Query(sql, values...);
        while (statement.Step()) {
        }
        return sqlite3_changes(handle_.get());
    }

    // The first column of the first row of a query that always has one.
    std::int64_t Number(const char* sql);

    // For schema texts of several statements.
    void Script(const char* sql);

    // The write lock of the store, from construction to the end; what is not committed is rolled back.
    class Transaction {
    public:
        explicit Transaction(Database& database);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        // Writes what was changed so far to the log, so that whatever lay there can never take effect any more: a
        // process that is killed during its commit may leave its whole transaction there, unseen by those that
        // live on, but found by the first one to come after them all.
        void Overwrite();
        void Commit();

    private:
        Database& database_;
        bool open_ = true;
    };

private:
    struct Close {
        void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
    };
    std::unique_ptr<sqlite3, Close> handle_;
};

}  // namespace standin
