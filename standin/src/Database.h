// A connection to the catalogue's SQLite file, used by one thread at a time. Failures are std::runtime_error.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace standin {

// A page or a value that is damaged, or that the disk cannot read. Others may still be read.
struct Unreadable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A statement with its values bound, stepped row by row. Texts are bound and read as bytes. A value that is not of
// the kind asked for is damage, as is a text longer than it may be.
class Statement {
public:
    bool Step();
    bool IsNull(int column) { return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL; }
    std::int64_t Int(int column);
    std::int64_t Count(int column);  // an Int that is not negative
    // Valid until the next step.
    std::string_view Bytes(int column, std::size_t longest);

private:
    friend class Database;
    void Need(bool inOrder);
    enum class Values { Copied, Outlive };  // the statement's own, or the caller's, which live as long as it does
    void Bind(Values, int index, std::int64_t value);
    void Bind(Values whose, int index, const std::string& value);
    void Bind(Values, int, const char*) = delete;  // its std::string would not outlive the statement

    // A statement that the database keeps is given back in the end; any other is finalized.
    struct Kept {
        sqlite3_stmt* statement = nullptr;
        bool inUse = false;
    };
    struct GiveBack {
        Kept* kept;
        void operator()(sqlite3_stmt* statement) const;
    };
    Statement(sqlite3_stmt* statement, Kept* kept) : statement_(statement, GiveBack{kept}) {}
    std::unique_ptr<sqlite3_stmt, GiveBack> statement_;
};

// A connection to a database file. Outlives its statements.
class Database {
public:
    enum class Mode {
        Write,     // a file that is there
        Create,    // or is not; also opens those of schema 1
        Read,      // a file that must not be changed, with its log
        Immutable  // such a file without a log
    };
    // checked: through PageChecks.
    Database(const std::string& path, Mode mode, bool checked = true);
    ~Database();

    // Binds the values to ?1, ?2 and so on. Statements are kept for the next time.
    template <class... Values>
    Statement Query(std::string_view sql, const Values&... values) {
        return Bound(Statement::Values::Copied, sql, values...);
    }

    // Returns how many rows were changed.
    template <class... Values>
    int Run(std::string_view sql, const Values&... values) {
        Statement statement = Bound(Statement::Values::Outlive, sql, values...);
        while (statement.Step()) {
        }
        return sqlite3_changes(handle_.get());
    }

    // Throws when the path no longer leads to the file that was opened: what is written to that one would be lost.
    void NeedInPlace();

    // The first column of the first row of a query that always has one.
    std::int64_t Number(const char* sql);

    // Within a transaction that has changed something: writes the changes so far over what the log held, and flushes
    // them. A process that is killed during its commit may leave its whole transaction in the log. The processes that
    // live on do not see it, but the first one after them all would; it can no longer take effect after this.
    void FlushOverOldLog();

    // A database without page checksums, under a name of its own, only to be read.
    void AttachUnchecked(const std::string& path, const std::string& name);

    // Another one that may be damaged, only to be read, so that its log stays with it. If its first page is, that of
    // the fresh one is used in its place: the tables of both have their roots on the same pages.
    void Attach(const std::string& path, const std::string& name, const std::string& fresh);

    // From now on commits only count the pages in the log, and leave it to Checkpoint to bring them into the main file.
    void CountLog();
    int LogPages() const { return logPages_; }  // after the last commit

    // Brings the log into the main file, as far as no reader needs the older pages. Other connections may write
    // meanwhile; the log begins anew with the next commit only if none did.
    struct Log {
        int pages = 0;  // that it had in the beginning
        int broughtIn = 0;
    };
    Log Checkpoint();

    // False once SQLite has rolled the transaction back by itself, as after a failure to read or write.
    bool InTransaction() const;

    // For schema texts of several statements.
    void Script(const char* sql);

    // The write lock of the store, from construction to the end; what is not committed is rolled back.
    class Transaction {
    public:
        explicit Transaction(Database& database);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        void Commit();

    private:
        Database& database_;
        bool open_ = true;
    };

private:
    struct Close {
        void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
    };
    Statement Prepared(std::string_view sql);
    template <class... Values>
    Statement Bound([[maybe_unused]] Statement::Values whose, std::string_view sql, const Values&... values) {
        Statement statement = Prepared(sql);
        [[maybe_unused]] int index = 0;
        (statement.Bind(whose, ++index, values), ...);
        return statement;
    }

    std::string path_;
    Mode mode_;
    int logPages_ = 0;
    std::unique_ptr<sqlite3, Close> handle_;
    std::map<std::string, Statement::Kept, std::less<>> kept_;
};

}  // namespace standin
