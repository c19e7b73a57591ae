// Stores of schema 1: every object's bytes a file named by its id, moments in local time, neither mark nor checksums.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "Layout.h"
#include "Moments.h"
#include "ObjectData.h"

namespace standin {
namespace {

constexpr const char* newCatalogue = "catalogue.new";
constexpr const char* oldCatalogue = "catalogue-schema1.db";
constexpr const char* catalogue = "catalogue.db";

// Data that are missing or cut off get a checksum that fits nothing: restoring them fails, as it would have before.
// Data that cannot be read now make the takeover fail; it can be tried again.
std::int64_t ChecksumOf(const ObjectData& data, const StoredData& stored) try {
    Checksum sum;
    const FileDescriptor file = data.Open(stored);
    std::array<char, 1 << 16> buffer;
    while (const std::size_t got = file.Read(buffer.data(), buffer.size())) sum.Add(buffer.data(), got);
    return sum.Value();
} catch (const std::system_error& problem) {
    if (problem.code() != std::errc::no_such_file_or_directory) throw;
    return 0;
} catch (const std::bad_alloc&) {
    throw;
} catch (const std::exception&) {
    return 0;
}

struct OldVersion {
    std::int64_t fs, type, id, stored, ended, copyGroup, estimate, bytes;  // in local time; ended is 0 while active
    std::string hl, ll, mgmtClass, owner, info;

    bool Follows(const OldVersion& other) const {
        return fs == other.fs && type == other.type && hl == other.hl && ll == other.ll;
    }
};

OldVersion Row(Statement& row) {
    constexpr std::size_t longest = 65535;
    const auto text = [&](int column) { return std::string(row.Bytes(column, longest)); };
    return {row.Int(0),   row.Count(3), row.Count(4),  row.Count(5), row.IsNull(6) ? 0 : row.Count(6),
            row.Count(8), row.Int(10),  row.Count(11), text(1),      text(2),
            text(7),      text(9),      text(12)};
}

void CopyVersions(Database& database, const ObjectData& data) {
    Statement rows = database.Query("SELECT * FROM old.version ORDER BY fs, hl, ll, type, id");
    const auto next = [&]() -> std::optional<OldVersion> {
        if (!rows.Step()) return std::nullopt;
        return Row(rows);
    };
    std::int64_t last = 0;  // when the version before of the same name was stored
    std::optional<OldVersion> version = next();
    while (version) {
        std::optional<OldVersion> following = next();
        const bool same = following && following->Follows(*version);
        const auto storedAt = [](const OldVersion& v, std::int64_t before) {
            return std::max(MomentsOf(v.stored).later, before + 1);
        };
        const std::int64_t stored = storedAt(*version, last);
        std::int64_t ended = 0;
        if (version->ended != 0) {
            const bool replaced = same && version->ended == following->stored;
            ended = replaced ? storedAt(*following, stored) : std::max(MomentsOf(version->ended).later, stored + 1);
        }
        StoredData bytes{version->id, version->bytes, 0, version->bytes > 0 ? std::to_string(version->id) : ""};
        bytes.checksum = bytes.bytes > 0 ? ChecksumOf(data, bytes) : Checksum().Value();
        database.Run(
            "INSERT INTO object_version VALUES"
            " (?1, ?2, ?3, ?4, ?5, ?6, NULLIF(?7, 0), ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15)",
            version->fs, version->hl, version->ll, version->type, version->id, stored, ended, version->mgmtClass,
            version->copyGroup, version->owner, version->estimate, version->info, bytes.bytes, bytes.checksum,
            bytes.file);
        last = same ? stored : 0;
        version = std::move(following);
    }
}

// Data of versions that are there keep their names; what was on its way when its process died is put aside.
void PutAsideIncoming(const Folder& incoming, const Folder& lost) {
    constexpr std::size_t oldNameLength = 6;
    for (const std::string& name : incoming.Names()) {
        if (name.size() == oldNameLength) incoming.Move(name, lost, "incoming-" + name + "-" + RandomHex(8));
    }
}

}  // namespace

void TakeOver(const Folder& root, const Mark& mark) {
    const std::string oldPath = root.Path() + "/" + catalogue, newPath = root.Path() + "/" + newCatalogue;
    // Brings the log into the file, and fails while another process has the store open. One that opens it now cannot
    // write, and later it finds the file moved.
    Database old(oldPath, Database::Mode::Write, false);
    old.Run("PRAGMA journal_mode = DELETE");
    NeedNoLog(root, catalogue);
    const Database::Transaction alone(old);
    for (const char* folder : {"data", "incoming"}) root.Make(folder);
    const std::optional<Folder> lost = LostAndFound(root);
    if (!lost) throw std::runtime_error(root.Path() + "/lost+found belongs to another user");
    // Of an opening that did not come to its end.
    PutAsideCatalogue(root, newCatalogue);
    MakeCatalogue(newPath, mark.identity);
    {
        Database database(newPath, Database::Mode::Write);
        database.AttachUnchecked(oldPath, "old");
        Database::Transaction transaction(database);
        for (const char* table : {"node", "filespace", "access"}) {
            database.Run(std::string("INSERT INTO ") + table + " SELECT * FROM old." + table);
        }
        CopyVersions(database, ObjectData(root));
        database.Run("INSERT INTO garbage SELECT CAST(id AS BLOB) FROM old.garbage");
        database.Run("UPDATE store SET next_id = (SELECT next_id FROM old.counter)");
        transaction.Commit();
    }
    NeedNoLog(root, newCatalogue);
    PutAsideIncoming(root.Sub("incoming"), *lost);
    // The old file gets a second name and loses its first one when the new one takes that.
    if (linkat(root.File().Get(), catalogue, root.File().Get(), oldCatalogue, 0) != 0) {
        const auto kept = root.Status(oldCatalogue), linked = root.Status(catalogue);
        if (!kept || kept->st_ino != linked->st_ino) ThrowErrno("link " + root.Path() + "/" + oldCatalogue);
    }
    WriteMark(root, mark);
    root.Move(newCatalogue, root, catalogue, true);
    root.Sync();
}

}  // namespace standin
