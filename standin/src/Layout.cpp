#include "Layout.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "PageChecks.h"

namespace standin {
namespace {

namespace fs = std::filesystem;

constexpr const char* firstLine = "tsm-standin store\n";
constexpr int format = 2;
constexpr std::size_t identityDigits = 32;
constexpr const char* catalogue = "catalogue.db";
constexpr const char* oldCatalogue = "catalogue-schema1.db";
constexpr const char* newMark = "mark.new";
constexpr const char *reserve = "reserve", *reservedName = "reserve.name";  // a log needs two files
constexpr off_t reserveSize = 8 << 20;

// Rows of object_version lie in the order of a listing, so that one reads them from the table itself; small data lie
// in a table of their own, out of its way. The next id is kept apart from the rows because it must never go back:
// a host may hold the id of a version that was removed. A deleted filespace has node 0 until its rows are gone. A
// secret is the hash of a password, and behind a blank the moment since which it holds; older ones have no moment.
constexpr const char* schema = R"(
    CREATE TABLE store (identity BLOB NOT NULL, next_id INTEGER NOT NULL);
    CREATE TABLE node (id INTEGER PRIMARY KEY, name BLOB NOT NULL UNIQUE, secret BLOB NOT NULL);
    CREATE TABLE filespace (
        id INTEGER PRIMARY KEY AUTOINCREMENT, node INTEGER NOT NULL, name BLOB NOT NULL, type BLOB NOT NULL,
        info BLOB NOT NULL, occupancy INTEGER NOT NULL, capacity INTEGER NOT NULL, UNIQUE (node, name));
    CREATE TABLE access (
        fs INTEGER NOT NULL, hl BLOB NOT NULL, ll BLOB NOT NULL, object_type INTEGER NOT NULL,
        access_type INTEGER NOT NULL, node BLOB NOT NULL, owner BLOB NOT NULL,
        PRIMARY KEY (fs, hl, ll, object_type, access_type, node, owner)) WITHOUT ROWID;
    CREATE TABLE object_version (
        fs INTEGER NOT NULL, hl BLOB NOT NULL, ll BLOB NOT NULL, type INTEGER NOT NULL, id INTEGER NOT NULL UNIQUE,
        stored INTEGER NOT NULL, ended INTEGER, class BLOB NOT NULL, copy_group INTEGER NOT NULL, owner BLOB NOT NULL,
        estimate INTEGER NOT NULL, info BLOB NOT NULL, bytes INTEGER NOT NULL, checksum INTEGER NOT NULL,
        file BLOB NOT NULL, PRIMARY KEY (fs, hl, ll, type, id)) WITHOUT ROWID;
    CREATE TABLE content (id INTEGER PRIMARY KEY, bytes BLOB NOT NULL);
    CREATE TABLE garbage (file BLOB PRIMARY KEY) WITHOUT ROWID;
    PRAGMA user_version = 2;
)";

std::string At(const Folder& root, const std::string& name) {
    return root.Path() + "/" + name;
}

std::string Content(const Folder& root, const char* name) {
    std::string text(4096, '\0');
    text.resize(root.Open(name, O_RDONLY).Read(text.data(), text.size()));
    return text;
}

std::uint32_t Number(const std::string& bytes, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = at; i < at + 4; ++i) number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

// A part of the identity, kept in the header of the catalogue, where it can be read before SQLite opens the file.
std::uint32_t ApplicationId(const std::string& identity) {
    std::uint32_t id = 0;
    std::from_chars(identity.data(), identity.data() + 7, id, 16);
    return id;
}

struct CatalogueHeader {
    std::uint32_t schema = 0, application = 0;
};

// None: no catalogue, or an empty file.
std::optional<CatalogueHeader> HeaderOf(const Folder& root) {
    if (!root.Status(catalogue)) return std::nullopt;
    const std::string bytes = Content(root, catalogue);
    if (bytes.empty()) return std::nullopt;
    if (bytes.size() < 100 || bytes.compare(0, 16, std::string("SQLite format 3\0", 16)) != 0) {
        return CatalogueHeader{};
    }
    return CatalogueHeader{Number(bytes, 60), Number(bytes, 68)};
}

// Links may lead to somewhere else, and SQLite opens its files by their paths.
void NeedPlainFiles(const Folder& root) {
    for (const char* name : {"mark", "mark.new", reserve, reservedName, "catalogue.db", "catalogue.db-wal",
                             "catalogue.db-shm", "catalogue.db-journal", "catalogue.new", oldCatalogue}) {
        const auto status = root.Status(name);
        if (status && (!S_ISREG(status->st_mode) || status->st_uid != geteuid())) {
            throw std::runtime_error(At(root, name) + " is not a plain file of this user");
        }
    }
}

bool IsUnused(const Folder& root) {
    for (const std::string& name : root.Names()) {
        if (name == newMark) {
            const std::string text = Content(root, newMark), first = firstLine;
            if (text.compare(0, first.size(), first, 0, text.size()) != 0) return false;
        } else if (name == "lost+found") {
            // The one of a fresh file system, which only root can look into.
            const bool readable = faccessat(root.File().Get(), "lost+found", R_OK, AT_EACCESS) == 0;
            if (readable && !root.Sub(name).Names().empty()) return false;
        } else {
            return false;
        }
    }
    return true;
}

void SetMode(const Folder& root) {
    if ((root.File().Status().st_mode & 07777) != 0700 && fchmod(root.File().Get(), 0700) != 0) {
        ThrowErrno("chmod " + root.Path());
    }
}

// The folders in it may be new and not flushed yet.
void SyncAbove(const Folder& root) {
    for (fs::path above = fs::path(root.Path()).parent_path();; above = above.parent_path()) {
        const FileDescriptor folder(open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.Get() < 0 || folder.Status().st_uid != geteuid()) return;
        folder.Sync();
        if (above == above.parent_path()) return;
    }
}

// Other programs have files named catalogue.db, too.
bool HasTablesOfSchema1(const Folder& root) {
    return Database(At(root, catalogue), Database::Mode::Immutable, false)
               .Number(
                   "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN"
                   " ('node', 'filespace', 'access', 'version', 'counter', 'garbage')") == 6;
}

void MakeFolders(const Folder& root) {
    for (const char* folder : {"data", "incoming"}) root.Make(folder);
}

}  // namespace

// -------------------------------------------------------------------- mark

std::optional<Mark> ReadMark(const Folder& root) {
    if (!root.Status("mark")) return std::nullopt;
    const std::string text = Content(root, "mark"), name = At(root, "mark");
    const auto begins = firstLine + std::string("format ");
    int found = 0;
    if (text.compare(0, begins.size(), begins) == 0) {
        std::from_chars(text.data() + begins.size(), text.data() + text.size(), found);
    }
    if (found > format) throw std::runtime_error(name + ": the store was made by a newer version, which is needed");
    for (const bool ready : {false, true}) {
        Mark mark{std::string(), ready};
        const std::string before = begins + std::to_string(format) + "\nidentity ";
        mark.identity = text.size() > before.size() ? text.substr(before.size(), identityDigits) : "";
        const bool isHex = mark.identity.find_first_not_of("0123456789abcdef") == std::string::npos;
        const std::string whole = before + mark.identity + "\nstate " + (ready ? "ready" : "new") + "\n";
        if (text == whole && isHex && mark.identity.size() == identityDigits) return mark;
    }
    throw std::runtime_error(name + " is damaged, or no mark of a store");
}

void WriteMark(const Folder& root, const Mark& mark) {
    const std::string text = firstLine + ("format " + std::to_string(format)) + "\nidentity " + mark.identity +
                             "\nstate " + (mark.ready ? "ready" : "new") + "\n";
    const FileDescriptor file = root.Open(newMark, O_WRONLY | O_CREAT | O_TRUNC);
    file.Write(text.data(), text.size());
    file.Sync();
    root.Move(newMark, root, "mark", true);
    root.Sync();
}

// ------------------------------------------------------------------ opening

Folder StoreFolder(const std::string& path) {
    std::vector<fs::path> missing;
    for (fs::path folder = fs::path(path).lexically_normal(); !fs::exists(folder) && folder.has_relative_path();
         folder = folder.parent_path()) {
        if (folder.has_filename()) missing.push_back(folder);
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        if (mkdir(folder->c_str(), 0700) != 0 && errno != EEXIST) ThrowErrno("mkdir " + folder->string());
    }
    return Folder(path);
}

bool IsReadOnly(const Folder& root) {
    for (const char* name : {".", catalogue}) {
        if (faccessat(root.File().Get(), name, W_OK, AT_EACCESS) == 0) continue;
        if (errno == EROFS || errno == EACCES || errno == EPERM) return true;
    }
    return false;
}

std::string OpenOrMake(const Folder& root, bool readOnly) {
    NeedPlainFiles(root);
    std::optional<Mark> mark = ReadMark(root);
    const std::optional<CatalogueHeader> header = HeaderOf(root);
    if (mark && mark->ready) {
        if (!header) {
            throw std::runtime_error(At(root, catalogue) + " is missing or empty: put it back, or start afresh with " +
                                     "another folder; data/ still holds the bytes of large objects");
        }
        if (header->schema > format) throw std::runtime_error(root.Path() + ": the store was made by a newer version");
        if (header->schema != format || header->application != ApplicationId(mark->identity)) {
            throw std::runtime_error(At(root, catalogue) + " is damaged, or belongs to another store");
        }
        if (!readOnly) {
            SetMode(root);
            MakeFolders(root);
        }
        return mark->identity;
    }
    if (!mark && root.Status("mark.repairing")) {
        throw std::runtime_error(root.Path() + ": a repair was interrupted: run tsm-standin-check --repair again");
    }
    const bool old = header && header->schema == 1 && HasTablesOfSchema1(root);
    if (header && header->schema > format) throw std::runtime_error(root.Path() + ": made by a newer version");
    if (!mark && !old && !IsUnused(root)) {
        throw std::runtime_error(root.Path() + " is not empty and has no mark of a store: choose another folder");
    }
    if (readOnly) throw std::system_error(EROFS, std::generic_category(), root.Path());
    SetMode(root);
    if (!mark) mark = Mark{RandomHex(identityDigits), false};
    const bool takenOver = root.Status(oldCatalogue) && header && header->schema == format &&
                           header->application == ApplicationId(mark->identity);
    if (old) {
        TakeOver(root, *mark);
    } else if (!takenOver) {
        if (root.Status(oldCatalogue)) throw std::runtime_error(At(root, catalogue) + " is damaged");
        WriteMark(root, *mark);
        SyncAbove(root);
        // An earlier start may have left it, flushed in part only. Nothing was stored in it yet.
        PutAsideCatalogue(root, catalogue);
        MakeCatalogue(At(root, catalogue), mark->identity);
    }
    MakeFolders(root);
    root.Sync();
    mark->ready = true;
    WriteMark(root, *mark);
    return mark->identity;
}

void MakeCatalogue(const std::string& path, const std::string& identity) {
    // The files that SQLite puts beside it take over its mode.
    {
        const FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file.Get() < 0) ThrowErrno("create " + path);
    }
    Database database(path, Database::Mode::Create);
    {
        Database::Transaction transaction(database);
        if (database.Number("PRAGMA user_version") == 0) {
            database.Script(schema);
            database.Script(("PRAGMA application_id = " + std::to_string(ApplicationId(identity))).c_str());
            database.Run("INSERT INTO store VALUES (?1, 1)", identity);
        }
        transaction.Commit();
    }
    NeedIdentity(database, identity);
    database.Run("PRAGMA journal_mode = WAL");
}

void PutAsideCatalogue(const Folder& root, const std::string& name) {
    for (const char* end : {"", "-wal", "-shm", "-journal"}) {
        if (!root.Status(name + end)) continue;
        const std::optional<Folder> lost = LostAndFound(root);
        if (!lost) throw std::runtime_error(At(root, "lost+found") + " belongs to another user");
        root.Move(name + end, *lost, name + end + "-" + RandomHex(8));
    }
}

void NeedNoLog(const Folder& root, const std::string& name) {
    if (root.Status(name + "-wal")) throw std::runtime_error(At(root, name) + "-wal did not come into its catalogue");
}

void NeedIdentity(Database& database, const std::string& identity) {
    Statement row = database.Query("SELECT identity FROM store");
    if (!row.Step() || row.Bytes(0, identityDigits) != identity) {
        throw std::runtime_error("the catalogue belongs to another store than the mark");
    }
}

std::optional<Folder> LostAndFound(const Folder& root) try {
    root.Make("lost+found");
    return root.Sub("lost+found");
} catch (const std::exception&) {
    return std::nullopt;
}

// ------------------------------------------------------------------ reserve

bool IsFull(const std::system_error& problem) {
    return problem.code() == std::errc::no_space_on_device || problem.code().value() == EDQUOT;
}

void MakeReserve(const Folder& root) noexcept try {
    struct statvfs status {};
    if (fstatvfs(root.File().Get(), &status) != 0) return;
    if (status.f_bavail * status.f_frsize < fsblkcnt_t{4} * reserveSize) return;
    constexpr fsfilcnt_t plenty = 100;
    if (status.f_files != 0 && status.f_favail < plenty) return;
    root.Open(reservedName, O_WRONLY | O_CREAT);
    const FileDescriptor file = root.Open(reserve, O_WRONLY | O_CREAT);
    if (file.Status().st_size >= reserveSize) return;
    if (posix_fallocate(file.Get(), 0, reserveSize) != 0) root.Remove(reserve);
} catch (const std::exception&) {
    // The store works without a reserve.
}

bool GiveUpReserve(const Folder& root) {
    if (!root.Status(reserve) && !root.Status(reservedName)) return false;
    root.Remove(reserve);
    root.Remove(reservedName);
    return true;
}

}  // namespace standin
