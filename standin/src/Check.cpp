#include "Check.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "Database.h"
#include "Files.h"
#include "Layout.h"
#include "ObjectData.h"
#include "dsmapitd.h"

namespace standin {
namespace {

constexpr const char* catalogueName = "catalogue.db";
constexpr const char* repairedName = "catalogue.repaired";
constexpr const char* awayMark =
    "mark.repairing";  // the mark's name while catalogues are exchanged: without a mark hosts stay out

// What a store is made of.
constexpr const char* ownFiles[] = {"mark",
                                    "mark.new",
                                    "catalogue.db",
                                    "catalogue.db-wal",
                                    "reserve",
                                    "reserve.name",
                                    repairedName,
                                    "catalogue.db-shm",
                                    "catalogue.db-journal",
                                    awayMark,
                                    "catalogue.new",
                                    "catalogue-schema1.db"};
constexpr const char* ownFolders[] = {"data", "incoming", "lost+found"};

template <class Names>
bool IsOneOf(const Names& names, const std::string& name) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

class Checker {
public:
    Checker(const std::string& path, bool repair, const std::function<void(const Finding&)>& report)
        : root_(path), repair_(repair), report_(report) {}

    Checked Run();

private:
    void Find(const std::string& kind, const std::string& where, const std::string& text,
              const std::string& moved = "") {
        report_({kind, where, text, moved});
    }
    std::string Path(const std::string& name) const { return root_.Path() + "/" + name; }
    bool Exists(const std::string& name) const { return root_.Status(name).has_value(); }
    std::string MoveAway(const Folder& from, const std::string& name, const std::string& prefix);

    void CheckEntry(const Folder& folder, const std::string& where, const std::string& name, bool isFolder);
    void CheckEntries();
    bool CheckMark();
    bool CheckCatalogue();
    bool IsOfAnother(Database& catalogue, const std::string& schema) const;
    void CheckVersions();
    void CheckVersion(std::int64_t id);
    void CheckOrphans();
    Database::Mode ReadingMode() const;
    Database& Catalogue();

    void NeedNoHost() const;
    void Rebuild();
    void CopyRows(Database& to, std::int64_t ids);
    void Exchange();

    const Folder root_;
    const bool repair_;
    const std::function<void(const Finding&)>& report_;
    std::string identity_;
    std::unique_ptr<Database> catalogue_;
    Checked checked_;
};

// Does the work, once more if something cannot be read: some disks can read then. False: it still cannot be read.
template <class Work>
bool Tried(Work work) {
    for (int attempts = 2; attempts > 0; --attempts) {
        try {
            work();
            return true;
        } catch (const Unreadable&) {
            // Perhaps the next time.
        }
    }
    return false;
}

// The largest id that a row or a file can have. The catalogue is that of the schema, "main" or an attached one.
std::int64_t LastId(Database& catalogue, const std::string& schema, const ObjectData& data) {
    std::int64_t last = 0;
    for (const std::string& file : data.FilesFrom(0)) last = std::max(last, ObjectData::IdOf(file));
    for (const char* what : {"SELECT next_id FROM ", "SELECT max(id) FROM "}) {
        // If one table cannot be read, the other tells.
        Tried([&] {
            const std::string table = what[7] == 'n' ? ".store" : ".object_version";
            last = std::max(last, catalogue.Number((what + schema + table).c_str()));
        });
    }
    return last;
}

// Calls work with each id of the table up to last, and skips what cannot be read. Returns how often it skipped.
template <class Work>
std::int64_t ForEach(Database& catalogue, const std::string& table, std::int64_t last, Work work) {
    const std::string sql = "SELECT id FROM " + table + " WHERE id >= ?1 ORDER BY id LIMIT 1";
    std::int64_t failures = 0;
    bool more = true;
    for (std::int64_t id = 1; more; ++id) {
        const std::int64_t from = id;
        bool found = false;
        const bool done = Tried([&] {
            found = false;
            {
                Statement row = catalogue.Query(sql, from);
                more = row.Step();
                if (!more) return;
                id = row.Int(0);
            }
            found = true;
            work(id);
        });
        failures += !done;
        // Where not even the id can be read, the next one may be on another page.
        if (!done && !found && id >= last) break;
    }
    return failures;
}

std::string Checker::MoveAway(const Folder& from, const std::string& name, const std::string& prefix) {
    const std::optional<Folder> lost = LostAndFound(root_);
    if (!lost) throw std::runtime_error(Path("lost+found") + " cannot be used");
    std::string moved = prefix + name;
    if (lost->Status(moved)) moved += "-" + RandomHex(8);
    from.Move(name, *lost, moved);
    lost->Sync();
    from.Sync();
    return "lost+found/" + moved;
}

// ------------------------------------------------------- files and folders

void Checker::CheckEntry(const Folder& folder, const std::string& where, const std::string& name, bool isFolder) {
    const auto status = folder.Status(name);
    if (!status) return;
    const bool right = isFolder ? S_ISDIR(status->st_mode) : S_ISREG(status->st_mode);
    if (!right) Find("files", where + name, isFolder ? "is not a folder" : "is not a plain file");
    if (status->st_uid != geteuid()) Find("files", where + name, "belongs to another user");
    if (right && (status->st_mode & 077) != 0) Find("files", where + name, "others than its owner have permissions");
}

void Checker::CheckEntries() {
    CheckEntry(root_, "", ".", true);
    for (const std::string& name : root_.Names()) {
        const bool isFolder = IsOneOf(ownFolders, name);
        if (!isFolder && !IsOneOf(ownFiles, name)) {
            Find("files", name, "is not the store's");
        } else {
            CheckEntry(root_, "", name, isFolder);
        }
    }
}

// False: there is nothing more to check.
bool Checker::CheckMark() {
    std::optional<Mark> mark;
    std::string trouble = "is missing";
    if (Exists(awayMark)) {
        Find("mark", awayMark, "a repair was interrupted: go on with --repair");
        if (!repair_) return false;
        NeedNoHost();
        Exchange();
    }
    try {
        mark = ReadMark(root_);
    } catch (const std::exception& problem) {
        trouble = problem.what();
    }
    if (mark && !mark->ready) {
        Find("mark", "mark", "the store was not made to its end, and holds nothing: the next opening goes on");
        return false;
    }
    if (mark) {
        identity_ = mark->identity;
        return true;
    }
    if (!Exists(catalogueName)) throw std::runtime_error(root_.Path() + " is no store: mark " + trouble);
    Statement row = Catalogue().Query("SELECT identity FROM store");
    if (row.Step()) identity_ = row.Bytes(0, 32);
    if (identity_.size() != 32 || Catalogue().Number("PRAGMA user_version") != 2) {
        throw std::runtime_error(root_.Path() + " is no store of this format: mark " + trouble);
    }
    std::string moved;
    if (repair_) {
        if (Exists("mark")) moved = MoveAway(root_, "mark", "");
        WriteMark(root_, {identity_, true});
    }
    Find("mark", "mark", trouble, moved);
    return true;
}

// ---------------------------------------------------------------- catalogue

Database::Mode Checker::ReadingMode() const {
    const auto log = root_.Status("catalogue.db-wal");
    return !log || log->st_size == 0 ? Database::Mode::Immutable : Database::Mode::Read;
}

Database& Checker::Catalogue() {
    if (!catalogue_) catalogue_ = std::make_unique<Database>(Path(catalogueName), ReadingMode());
    return *catalogue_;
}

bool Checker::IsOfAnother(Database& catalogue, const std::string& schema) const {
    return !catalogue.Query("SELECT 1 FROM " + schema + ".store WHERE identity = ?1", identity_).Step();
}

// False: it cannot be read at all.
bool Checker::CheckCatalogue() {
    const auto status = root_.Status(catalogueName);
    if (!status || status->st_size == 0) {
        Find("catalogue", catalogueName, "is missing or empty: put a copy of it back");
        return false;
    }
    if (!S_ISREG(status->st_mode)) return false;
    std::string trouble;
    try {
        if (Catalogue().Number("PRAGMA user_version") != 2 || IsOfAnother(Catalogue(), "main")) {
            Find("catalogue", catalogueName, "is another store's, or of another format: put the right one back");
            return false;
        }
        Statement rows = Catalogue().Query("SELECT CAST(integrity_check AS BLOB) FROM pragma_integrity_check");
        while (rows.Step()) {
            const std::string_view text = rows.Bytes(0, 1 << 20);
            if (text != "ok") trouble = text;
        }
        if (Catalogue().Number("SELECT count(*) FROM content WHERE id NOT IN (SELECT id FROM object_version)") > 0) {
            Find("orphan", catalogueName, "bytes of small objects without a version");
        }
    } catch (const Unreadable& problem) {
        trouble = problem.what();
    }
    if (trouble.empty()) return true;
    Find("catalogue", catalogueName, trouble);
    if (!repair_) return catalogue_ != nullptr;
    Rebuild();
    NeedIdentity(Catalogue(), identity_);
    return true;
}

void Checker::CheckVersion(std::int64_t id) {
    std::string name = "version " + std::to_string(id);
    try {
        StoredData data{id, 0, 0, {}};
        std::string row;
        {
            Statement v = Catalogue().Query(
                "SELECT f.name, v.hl, v.ll, v.type, v.stored, v.ended, v.estimate, v.bytes, v.checksum, v.file, "
                "c.bytes,"
                " f.node FROM object_version v LEFT JOIN filespace f ON f.id = v.fs LEFT JOIN content c ON c.id = v.id"
                " WHERE v.id = ?1",
                id);
            if (!v.Step()) return;  // removed meanwhile
            if (v.IsNull(0)) throw std::runtime_error("its filespace is missing");
            if (v.Int(11) == 0) return;  // the filespace is on its way out
            name = std::string(v.Bytes(0, DSM_MAX_FSNAME_LENGTH)) + ":" + std::string(v.Bytes(1, DSM_MAX_HL_LENGTH)) +
                   std::string(v.Bytes(2, DSM_MAX_LL_LENGTH)) + ", version " + std::to_string(id);
            const std::int64_t type = v.Int(3), stored = v.Count(4);
            if (type != DSM_OBJ_FILE && type != DSM_OBJ_DIRECTORY)
                throw std::runtime_error("damaged: of no known type");
            if (!v.IsNull(5) && v.Int(5) <= stored) throw std::runtime_error("damaged: it ends before it begins");
            v.Int(6);
            data.bytes = v.Count(7);
            data.checksum = v.Int(8);
            data.file = v.Bytes(9, 64);
            if (!data.file.empty() && ObjectData::IdOf(data.file) != id) throw std::runtime_error("damaged: its file");
            if (data.file.empty() && data.bytes > 0) {
                if (v.IsNull(10)) throw std::runtime_error("damaged: its bytes are missing");
                row = v.Bytes(10, largestRow);
                if (static_cast<std::int64_t>(row.size()) != data.bytes) {
                    throw std::runtime_error("damaged: the data have another length");
                }
            }
        }
        FileDescriptor file;
        if (!data.file.empty()) file = ObjectData(root_).Open(data);
        const std::int64_t bytes = data.bytes;
        DataReader reader(std::move(data), std::move(file), std::move(row));
        std::vector<char> buffer(1 << 20);
        while (reader.Left() > 0) reader.Read(buffer.data(), buffer.size());
        ++checked_.versions;
        checked_.bytes += bytes;
    } catch (const std::exception& problem) {
        // A host at work may have removed it, and then its file.
        const auto gone = [&] {
            try {
                return !Catalogue().Query("SELECT 1 FROM object_version WHERE id = ?1", id).Step();
            } catch (const std::exception&) {
                return false;
            }
        };
        if (!gone()) Find("version", name, problem.what());
    }
}

void Checker::CheckVersions() {
    const std::int64_t last = LastId(Catalogue(), "main", ObjectData(root_));
    const std::int64_t failures =
        ForEach(Catalogue(), "object_version", last, [&](std::int64_t id) { CheckVersion(id); });
    if (failures > 0) Find("catalogue", catalogueName, "versions cannot be read");
}

// ------------------------------------------------------------------ orphans

void Checker::CheckOrphans() {
    const ObjectData data(root_);
    // Files come to data/ while their transaction has the write lock, and are then in use.
    std::optional<Database::Transaction> alone;
    if (repair_) {
        catalogue_ = std::make_unique<Database>(Path(catalogueName), Database::Mode::Write);
        alone.emplace(Catalogue());
    }
    const auto used = [&](const std::string& file) {
        const std::int64_t id = ObjectData::IdOf(file);
        return Catalogue().Query("SELECT 1 FROM object_version WHERE id = ?1 AND file = ?2", id, file).Step() ||
               Catalogue().Query("SELECT 1 FROM garbage WHERE file = ?1", file).Step();
    };
    for (const std::string& shardName : data.Data().Names()) {
        const auto status = data.Data().Status(shardName);
        if (!status || !S_ISDIR(status->st_mode)) {
            Find("files", "data/" + shardName, "is not the store's");
            continue;
        }
        const Folder shard = data.Data().Sub(shardName);
        const std::string where = "data/" + shardName + "/";
        for (const std::string& file : shard.Names()) {
            const std::int64_t id = ObjectData::IdOf(file);
            if (id < 0 || ObjectData::ShardName(id) != shardName) {
                Find("files", where + file, "is not the store's");
                continue;
            }
            CheckEntry(shard, where, file, false);
            if (used(file) || !shard.Status(file)) continue;
            Find("orphan", where + file, "belongs to no version", repair_ ? MoveAway(shard, file, "data-") : "");
        }
    }
    const Folder& incoming = data.Incoming();
    for (const std::string& name : incoming.Names()) {
        if (!ObjectData::IsIncoming(name)) {
            Find("files", "incoming/" + name, "is not the store's");
            continue;
        }
        CheckEntry(incoming, "incoming/", name, false);
        try {
            const FileDescriptor file = incoming.Open(name, O_RDONLY);
            if (!file.Lock(false) || !incoming.Status(name)) continue;  // its writer lives, or it was stored meanwhile
            Find("orphan", "incoming/" + name, "its writer is gone",
                 repair_ ? MoveAway(incoming, name, "incoming-") : "");
        } catch (const std::system_error& problem) {
            if (problem.code() != std::errc::no_such_file_or_directory) throw;
        }
    }
}

// ------------------------------------------------------------------- repair

// SQLite's locks on the catalogue: every process that has it open holds one. New hosts wait for the folder's lock.
void Checker::NeedNoHost() const {
    if (!Exists(catalogueName)) return;
    const FileDescriptor file = root_.Open(catalogueName, O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000000;
    lock.l_len = 512;
    if (fcntl(file.Get(), F_GETLK, &lock) != 0) ThrowErrno("lock " + Path(catalogueName));
    if (lock.l_type != F_UNLCK) throw std::runtime_error("a host has the store open: close it first");
}

void Checker::Rebuild() {
    catalogue_.reset();
    NeedNoHost();
    PutAsideCatalogue(root_, repairedName);  // left by a repair that was interrupted
    MakeCatalogue(Path(repairedName), identity_);
    {
        Database repaired(Path(repairedName), Database::Mode::Write);
        repaired.Attach(Path(catalogueName), "old", Path(repairedName));
        bool another = false;
        Tried([&] { another = IsOfAnother(repaired, "old"); });
        if (another) throw std::runtime_error(Path(catalogueName) + " is another store's: put the right one back");
        // Row by row, as a page that cannot be read would undo a whole transaction; flushed when it is closed.
        repaired.Run("PRAGMA synchronous = OFF");
        CopyRows(repaired, LastId(repaired, "old", ObjectData(root_)));
        repaired.Run("PRAGMA synchronous = FULL");
    }
    NeedNoLog(root_, repairedName);
    root_.Open(repairedName, O_RDONLY).Sync();
    root_.Sync();
    root_.Move("mark", root_, awayMark);
    root_.Sync();
    Exchange();
}

void Checker::CopyRows(Database& to, std::int64_t ids) {
    std::int64_t failures = 0;
    const auto copy = [&](const std::string& table, std::int64_t id) {
        to.Run("INSERT OR IGNORE INTO main." + table + " SELECT * FROM old." + table + " WHERE id = ?1", id);
    };
    for (const char* table : {"node", "filespace", "object_version", "content"}) {
        const std::int64_t last = std::max<std::int64_t>(ids, 1000);
        failures += ForEach(to, std::string("old.") + table, last, [&](std::int64_t id) { copy(table, id); });
    }
    // Versions whose entry in the index of ids is lost are found by their names, from both ends.
    const std::string key = "fs, hl, ll, type, id", back = "fs DESC, hl DESC, ll DESC, type DESC, id DESC";
    for (const std::string& order : {key, back}) {
        failures += !Tried([&] {
            Statement v = to.Query("SELECT " + key + " FROM old.object_version ORDER BY " + order);
            while (v.Step()) {
                to.Run(
                    "INSERT OR IGNORE INTO main.object_version SELECT * FROM old.object_version"
                    " WHERE fs = ?1 AND hl = ?2 AND ll = ?3 AND type = ?4 AND +id = ?5",
                    v.Int(0), std::string(v.Bytes(1, DSM_MAX_HL_LENGTH)), std::string(v.Bytes(2, DSM_MAX_LL_LENGTH)),
                    v.Int(3), v.Int(4));
            }
        });
    }
    for (const char* table : {"access", "garbage"}) {
        failures +=
            !Tried([&] { to.Run(std::string("INSERT OR IGNORE INTO main.") + table + " SELECT * FROM old." + table); });
    }
    to.Run("UPDATE main.store SET next_id = ?1", ids + 1);
    Find("catalogue", catalogueName,
         std::to_string(to.Number("SELECT count(*) FROM main.object_version")) + " versions were readable" +
             (failures > 0 ? ", others are lost" : ""));
}

// Exchanges the catalogues. Can be repeated after an interruption.
void Checker::Exchange() {
    if (Exists(repairedName)) {
        root_.Remove("catalogue.db-shm");  // of the old log, which a new catalogue must not find
        root_.Sync();
        for (const char* name : {"catalogue.db-wal", "catalogue.db"}) {
            if (Exists(name)) Find("catalogue", name, "is replaced", MoveAway(root_, name, ""));
        }
        root_.Move(repairedName, root_, catalogueName);
        root_.Sync();
    }
    root_.Move(awayMark, root_, "mark");
    root_.Sync();
}

Checked Checker::Run() {
    const Folder again = root_.Sub(".");
    if (repair_) again.File().Lock(true);  // whoever opens the store waits
    CheckEntries();
    if (CheckMark() && CheckCatalogue()) {
        CheckVersions();
        CheckOrphans();
    }
    return checked_;
}

}  // namespace

Checked Check(const std::string& storeDir, bool repair, const std::function<void(const Finding&)>& report) {
    return Checker(storeDir, repair, report).Run();
}

}  // namespace standin
