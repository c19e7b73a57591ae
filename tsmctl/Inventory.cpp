#include "Inventory.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <tuple>

#include "Errors.h"

namespace tsmctl {

Parts StoredObject::StoredParts() const {
    Parts parts;
    if (!path.empty()) parts = SplitAtSlash(path[0] == '/' ? path.substr(1) : path);
    parts.push_back(name);
    return parts;
}

Parts StoredObject::PlainParts() const {
    Parts parts = StoredParts();
    for (std::string& part : parts) part = Unescape(part);
    return parts;
}

Kind StoredObject::GetKind() const {
    return info ? info->kind : directory ? Kind::Directory : Kind::File;
}

std::optional<long long> StoredObject::Size() const {
    if (info) return info->size || !directory ? info->size : 0;
    return announced;
}

namespace {

StoredObject CopyOf(const TsmObject& record) {
    StoredObject object;
    object.path = record.highLevelName;
    object.name = record.lowLevelName[0] == '/' ? record.lowLevelName + 1 : record.lowLevelName;
    object.announced = record.size;
    int t[6] = {};
    std::sscanf(record.backupDate, "%4d-%2d-%2d %2d:%2d:%2d", t, t + 1, t + 2, t + 3, t + 4, t + 5);
    object.date = fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", t[0], t[1], t[2], t[3], t[4], t[5]);
    object.text = record.objectInfo;
    object.fileSpace = record.fileSpace;
    object.directory = record.isFile == 0;
    object.info = ParseInfo(object.text);
    if (object.info && (object.info->kind == Kind::Directory) != object.directory) object.info.reset();
    return object;
}

bool IsRunRecord(const StoredObject& object) {
    const std::string begin = fmt::format("/{}/", runsFolder);
    return (object.StoredPath() + "/").compare(0, begin.size(), begin) == 0;
}

class Lister {
public:
    Lister(Session& session, const NamePattern& pattern, const Selection& selection)
        : session_(session), pattern_(pattern), selection_(selection) {}

    // Keeps what matches at a depth from least to most, so that queries which overlap give nothing twice.
    void Query(const std::string& path, const char* name, size_t least, size_t most) {
        TsmObject* records = nullptr;
        const int handle = session_.Handle();
        char* const hl = Text(path);
        char* const ll = const_cast<char*>(name);
        const long long count = session_.Check(
            "cannot list",
            selection_.at.empty()
                ? TsmGetBackupInfo(handle, hl, ll, selection_.allVersions ? 0 : 1, selection_.objectType, &records)
                : TsmGetBackupInfoPointInTime(handle, hl, ll, Text(selection_.at), selection_.objectType, &records));
        for (long long i = 0; i < count; ++i) {
            StoredObject object = CopyOf(records[i]);
            if (IsRunRecord(object) != selection_.runs) continue;
            const Parts plain = object.PlainParts();
            if (plain.size() >= least && plain.size() <= most && pattern_.Matches(plain)) {
                found_.emplace_back(plain, std::move(object));
            }
        }
        TsmEndGetBackupInfo(handle);
    }

    std::vector<StoredObject> Sorted() {
        std::sort(found_.begin(), found_.end(), [](const auto& a, const auto& b) {
            return std::tie(a.first, a.second.date) < std::tie(b.first, b.second.date);
        });
        std::vector<StoredObject> objects;
        objects.reserve(found_.size());
        for (auto& entry : found_) objects.push_back(std::move(entry.second));
        return objects;
    }

private:
    Session& session_;
    const NamePattern& pattern_;
    const Selection& selection_;
    std::vector<std::pair<Parts, StoredObject>> found_;
};

}  // namespace

std::vector<StoredObject> List(Session& session, const NamePattern& pattern, Scope scope, const Selection& selection) {
    constexpr size_t any = SIZE_MAX;
    Lister lister(session, pattern, selection);
    const size_t depth = pattern.Depth();
    if (pattern.IsRoot()) {
        lister.Query("*", nullptr, 0, any);
        return lister.Sorted();
    }
    lister.Query(pattern.ServerPath(depth - 1), pattern.ServerName().c_str(), depth, depth);
    if (scope == Scope::Tree) {
        const std::string whole = pattern.ServerPath(depth);
        lister.Query(whole, nullptr, depth + 1, depth + 1);
        lister.Query(whole + "/*", nullptr, depth + 2, any);
    }
    return lister.Sorted();
}

namespace {

// The names are in their stored form and hold nothing that the library gives a meaning to. A null name is every name.
StoredFolder ActiveIn(Session& session, const std::string& path, const char* name) {
    TsmObject* records = nullptr;
    const int handle = session.Handle();
    const long long count = session.Check(
        "cannot list", TsmGetBackupInfo(handle, Text(path), const_cast<char*>(name), 1, TSM_OBJECTS_ANY, &records));
    StoredFolder found;
    for (long long i = 0; i < count; ++i) {
        if (path != records[i].highLevelName) continue;
        StoredObject object = CopyOf(records[i]);
        if (Escape(Unescape(object.name)) != object.name) continue;
        const bool directory = object.directory;
        StoredPair& pair = found[object.name];
        pair.Of(directory) = std::move(object);
    }
    TsmEndGetBackupInfo(handle);
    return found;
}

}  // namespace

StoredFolder ListFolder(Session& session, const Parts& folder) {
    const StoredName inside = ToStored(Append(folder, {"x"}));
    return ActiveIn(session, inside.path, nullptr);
}

StoredPair ListOne(Session& session, const Parts& object) {
    const StoredName stored = ToStored(object);
    return ActiveIn(session, stored.path, stored.name.c_str())[stored.name];
}

bool IsStoredAs(const StoredPair& stored, bool isDirectory, const std::string& text) {
    const auto& found = stored.Of(isDirectory);
    return found && found->text == text;
}

void RequireStored(Session& session, const Parts& object, bool isDirectory, const std::string& text) {
    if (!IsStoredAs(ListOne(session, object), isDirectory, text)) throw Failure(notStored);
}

namespace {

constexpr const char* ambiguous = "its name holds bytes that the server would take for other names as well";

bool PathSurvives(const std::string& path) {
    return path.empty() || (path[0] == '/' && path.back() != '/' && path.find('\\') == std::string::npos);
}

void RequireOnlyMatch(Session& session, const StoredObject& object, const std::string& at, bool anyVersion) {
    if (object.name.find('\\') != std::string::npos) throw Failure(ambiguous);
    TsmObject* records = nullptr;
    const int handle = session.Handle();
    const long long count = session.Check(
        "cannot list", at.empty() ? TsmGetBackupInfo(handle, Text(object.path), Text(object.name), anyVersion ? 0 : 1,
                                                     anyVersion ? TSM_OBJECTS_ANY : TSM_OBJECTS_FILES, &records)
                                  : TsmGetBackupInfoPointInTime(handle, Text(object.path), Text(object.name), Text(at),
                                                                TSM_OBJECTS_FILES, &records));
    const bool only = count > 0 && std::all_of(records, records + count, [&](const TsmObject& record) {
                          return record.highLevelName == object.path && record.lowLevelName == "/" + object.name;
                      });
    TsmEndGetBackupInfo(handle);
    if (!only) throw Failure(ambiguous);
}

}  // namespace

void RequireKnown(const StoredObject& object) {
    if (!object.info && IsOfSealedVersion(object.text)) {
        throw Failure("its information text is damaged, or a newer tsmctl wrote it");
    }
}

void RequireReadable(Session& session, const StoredObject& object, const std::string& at) {
    if (!PathSurvives(object.path)) throw Failure(ambiguous);
    if (HasWildcard(object.path) || HasWildcard(object.name)) RequireOnlyMatch(session, object, at, false);
}

void RequireChangeable(Session& session, const StoredObject& object) {
    const bool rewritten = object.name.empty() || object.name.find_first_of("\\/") != std::string::npos;
    if (!PathSurvives(object.path) || HasWildcard(object.path) || rewritten) throw Failure(ambiguous);
    if (HasWildcard(object.name)) RequireOnlyMatch(session, object, "", true);
}

void FilesAbove::RequireNone(const Parts& object, const std::function<bool(const StoredObject&)>& mayGo) {
    for (const Parts& directory : DirectoriesAbove(object)) {
        for (const StoredObject& file : FilesAt(directory)) {
            if (mayGo(file)) continue;
            throw Failure(fmt::format("a file is stored under the name of a directory above ({}); it would be lost",
                                      file.ObjectPath()));
        }
    }
}

const std::vector<StoredObject>& FilesAbove::FilesAt(const Parts& directory) {
    const auto [place, added] = known_.try_emplace(directory);
    if (added) {
        for (StoredObject& object : List(session_, NamePattern(directory, false), Scope::Self, selection_)) {
            if (!object.directory) place->second.push_back(std::move(object));
        }
    }
    return place->second;
}

}  // namespace tsmctl
