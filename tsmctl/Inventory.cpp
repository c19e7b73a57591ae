#include "Inventory.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <tuple>
#include <utility>

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

bool IsRunRecord(const std::string& path, const std::string& name) {
    const std::string begin = fmt::format("/{}/", runsFolder);
    return (path + name + "/").compare(0, begin.size(), begin) == 0;
}

// Gives each record of a listing to take. The path and the name may be patterns; a null name is every name.
void Ask(Session& session, const std::string& path, const char* name, const Selection& selection,
         const std::function<void(const TsmObject&)>& take) {
    const auto list = [&] {
        TsmObject* records = nullptr;
        const int handle = session.Handle();
        char* const hl = Text(path);
        char* const ll = const_cast<char*>(name);
        const long long count = session.Check(
            "cannot list",
            selection.at.empty()
                ? TsmGetBackupInfo(handle, hl, ll, selection.allVersions ? 0 : 1, selection.objectType, &records)
                : TsmGetBackupInfoPointInTime(handle, hl, ll, Text(selection.at), selection.objectType, &records));
        for (long long i = 0; i < count; ++i) {
            if (IsRunRecord(records[i].highLevelName, records[i].lowLevelName) == selection.runs) take(records[i]);
        }
        TsmEndGetBackupInfo(handle);
    };
    session.Retry(list, true);
}

// Those records of a listing that are to be kept, ordered by plain name and date.
std::vector<StoredObject> Sorted(Session& session, const std::string& path, const char* name,
                                 const Selection& selection, const std::function<bool(const StoredObject&)>& keep) {
    const auto key = [](const StoredObject& o) {
        return std::make_tuple(o.path, o.name, o.directory, o.date, o.text, o.announced);
    };
    std::vector<std::pair<std::string, StoredObject>> found;
    const auto add = [&](StoredObject object) {
        if (keep(object)) found.emplace_back(Unescape(object.StoredPath()), std::move(object));
    };
    // Two versions of the same second can look the same. Only one of them is active.
    std::map<decltype(key({})), StoredObject> active;
    if (selection.marked) {
        Ask(session, path, name, {false, "", selection.objectType}, [&](const TsmObject& record) {
            StoredObject object = CopyOf(record);
            active.emplace(key(object), std::move(object));
        });
    }
    Ask(session, path, name, selection, [&](const TsmObject& record) {
        StoredObject object = CopyOf(record);
        if (selection.marked) object.active = active.erase(key(object)) > 0;
        add(std::move(object));
    });
    for (auto& [look, object] : active) {
        object.chosen = false;
        if (selection.andNow) add(std::move(object));
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        return std::tie(a.first, a.second.date, a.second.directory) <
               std::tie(b.first, b.second.date, b.second.directory);
    });
    std::vector<StoredObject> objects;
    objects.reserve(found.size());
    for (auto& entry : found) objects.push_back(std::move(entry.second));
    return objects;
}

// What matches the first parts of a pattern, as many as the depth.
std::vector<StoredObject> ListAt(Session& session, const NamePattern& pattern, size_t depth,
                                 const Selection& selection) {
    const std::string name = pattern.ServerName(depth - 1);
    return Sorted(session, pattern.ServerPath(depth - 1), name.c_str(), selection, [&](const StoredObject& object) {
        const Parts plain = object.PlainParts();
        return plain.size() == depth && pattern.Matches(plain);
    });
}

// In a path that another program stored, the library gives these bytes a meaning.
std::string AsPattern(std::string path) {
    std::replace_if(
        path.begin(), path.end(), [](char c) { return c == '\\' || c == '?'; }, '*');
    return path;
}

class Walker {
public:
    Walker(Session& session, const NamePattern& pattern, const Selection& selection, const Visit& visit)
        : session_(session), pattern_(pattern), selection_(selection), visit_(visit) {}

    bool Run() {
        const bool strays = selection_.reach == Reach::Strays;
        if (pattern_.IsRoot()) {
            Enter({""}, 0);
        } else {
            const size_t above = pattern_.Above();
            Collect(above, [&](const auto& selection) { return ListAt(session_, pattern_, above + 1, selection); });
            // Without a directory object, as of a rename that was broken off, it may hold too much to look for at once.
            if (strays && !pattern_.IsWild() && entered_.empty() && closed_.empty())
                Enter({StoredPathOf(pattern_.Plain())}, pattern_.Depth());
        }
        if (strays && entries_ <= mostWithStrays) EnterStrays();
        return found_;
    }

private:
    using Query = std::function<std::vector<StoredObject>(const Selection&)>;

    // As after a rename that was broken off.
    void EnterStrays() {
        std::set<std::string> strays = FindStrays(session_, pattern_, selection_, entered_);
        if (selection_.andNow) strays.merge(FindStrays(session_, pattern_, {}, entered_));
        for (const std::string& path : strays) {
            const bool closed = std::any_of(closed_.begin(), closed_.end(), [&](const std::string& above) {
                return (path + "/").compare(0, above.size() + 1, above + "/") == 0;
            });
            const auto level = static_cast<size_t>(std::count(path.begin(), path.end(), '/'));
            if (!closed && entered_.count(path) == 0) Enter({path}, level);
        }
    }

    // Goes through the directories of one plain name, of which there may be several. The level is the number of parts
    // of that name.
    void Enter(const std::set<std::string>& paths, size_t level) {
        CheckInterrupt();
        if (entries_ <= mostWithStrays) entered_.insert(paths.begin(), paths.end());
        Collect(level, [&](const Selection& selection) {
            std::vector<StoredObject> found;
            for (const std::string& path : paths) {
                auto some = ListIn(session_, path, selection);
                found.insert(found.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
            }
            return found;
        });
    }

    // Asks for the entries of a directory, and goes through them.
    void Collect(size_t level, const Query& query) {
        const bool onTheWay = level + 1 < pattern_.Depth();
        Selection all = selection_;
        if (all.objectType == TSM_OBJECTS_FILES) all.objectType = TSM_OBJECTS_ANY;
        if (onTheWay) all.objectType = TSM_OBJECTS_DIRECTORIES;
        std::vector<StoredObject> found = query(all);
        entries_ += found.size();
        if (!selection_.at.empty()) {
            // Files of that moment may be in a directory that was stored anew since.
            for (StoredObject& directory : query({true, "", TSM_OBJECTS_DIRECTORIES})) {
                directory.chosen = directory.active = false;
                found.push_back(std::move(directory));
            }
        }
        std::map<std::string, std::vector<StoredObject>> byName;
        for (StoredObject& object : found) byName[Unescape(object.name)].push_back(std::move(object));
        found.clear();
        for (auto& [name, versions] : byName) Visit(versions, onTheWay);
    }

    void Visit(std::vector<StoredObject>& versions, bool onTheWay) {
        const Parts plain = versions[0].PlainParts();
        if (!pattern_.Matches(plain)) return;
        std::set<std::string> below;
        for (const StoredObject& object : versions) {
            if (object.directory) below.insert(object.StoredPath());
        }
        versions.erase(std::remove_if(versions.begin(), versions.end(),
                                      [&](const StoredObject& object) {
                                          const bool wanted = object.chosen || (selection_.andNow && object.active);
                                          found_ = found_ || (wanted && !onTheWay);
                                          return !wanted ||
                                                 (object.directory && selection_.objectType == TSM_OBJECTS_FILES);
                                      }),
                       versions.end());
        const bool goOn = onTheWay || (visit_(versions, plain) && selection_.reach != Reach::Named);
        versions.clear();
        if (!goOn) closed_.insert(below.begin(), below.end());
        if (!goOn || below.empty()) return;
        Enter(below, plain.size());
    }

    Session& session_;
    const NamePattern& pattern_;
    const Selection& selection_;
    const tsmctl::Visit& visit_;
    bool found_ = false;
    size_t entries_ = 0;
    std::set<std::string> entered_;  // stored paths, as long as there are few entries
    std::set<std::string> closed_;   // into these visit_ did not want to go
};

StoredFolder Pairs(std::vector<StoredObject> objects) {
    StoredFolder found;
    for (StoredObject& object : objects) {
        if (Escape(Unescape(object.name)) == object.name) {
            found[object.name].Of(object.directory) = std::move(object);
        }
    }
    return found;
}

constexpr const char* ambiguous = "its name holds bytes that the server would take for other names as well";

bool PathSurvives(const std::string& path) {
    return path.empty() || (path[0] == '/' && path.back() != '/' && path.find('\\') == std::string::npos);
}

void RequireOnlyMatch(Session& session, const StoredObject& object, const std::string& at, bool anyVersion) {
    if (object.name.find('\\') != std::string::npos) throw Failure(ambiguous);
    size_t count = 0;
    bool only = true;
    const int type = anyVersion ? TSM_OBJECTS_ANY : TSM_OBJECTS_FILES;
    Ask(session, object.path, object.name.c_str(), {anyVersion, at, type}, [&](const TsmObject& record) {
        ++count;
        only = only && record.highLevelName == object.path && record.lowLevelName == "/" + object.name;
    });
    if (!only || count == 0) throw Failure(ambiguous);
}

}  // namespace

std::vector<StoredObject> List(Session& session, const NamePattern& pattern, const Selection& selection) {
    if (pattern.IsRoot()) return {};
    return ListAt(session, pattern, pattern.Depth(), selection);
}

std::vector<StoredObject> ListIn(Session& session, const std::string& path, const Selection& selection,
                                 const std::string& name) {
    if (path.size() > maxPath) return {};  // nothing fits below
    return Sorted(session, AsPattern(path), name.empty() ? nullptr : name.c_str(), selection,
                  [&](const StoredObject& object) { return object.path == path; });
}

std::set<std::string> FindStrays(Session& session, const NamePattern& pattern, const Selection& selection,
                                 const std::set<std::string>& entered) {
    std::set<std::string> strays;
    const std::string whole = pattern.IsRoot() ? "" : pattern.ServerPath(pattern.Depth());
    for (const std::string& path : {whole, whole + "/*"}) {
        Ask(session, path, nullptr, selection, [&](const TsmObject& record) {
            if (entered.count(record.highLevelName) > 0 || strays.count(record.highLevelName) > 0) return;
            const Parts inside = CopyOf(record).PlainParts();
            if (inside.size() > pattern.Depth() && pattern.Matches(inside)) strays.insert(record.highLevelName);
        });
    }
    return strays;
}

bool Walk(Session& session, const NamePattern& pattern, const Selection& selection, const Visit& visit) {
    return Walker(session, pattern, selection, visit).Run();
}

StoredFolder ListFolder(Session& session, const Parts& folder) {
    return Pairs(ListIn(session, StoredPathOf(folder), {}));
}

StoredPair ListOne(Session& session, const Parts& object) {
    const StoredName stored = ToStored(object);
    return Pairs(ListIn(session, stored.path, {}, stored.name))[stored.name];
}

bool IsStoredAs(const StoredPair& stored, bool isDirectory, const std::string& text, const std::string& before) {
    const auto& found = stored.Of(isDirectory);
    return found && found->text == text && found->date != before;
}

void RequireStored(Session& session, const Parts& object, bool isDirectory, const std::string& text,
                   const std::string& before) {
    if (!IsStoredAs(ListOne(session, object), isDirectory, text, before)) throw PassingFailure(notStored);
}

bool IsDamaged(const StoredObject& object) {
    return !object.info && LooksLikeOurs(object.text);
}

void RequireKnown(const StoredObject& object) {
    if (IsDamaged(object)) {
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

void DeleteObject(Session& session, const StoredObject& object, bool allVersions, const std::string& at) {
    session.Retry([&] {
        const int result =
            TsmDelete(session.Handle(), Text(object.path), Text(object.name), allVersions ? 1 : 0, TextOrNull(at));
        if (result != TSM_RESULT_ABORT_NO_MATCH) session.Check("cannot delete", result);
    });
}

void RequireNoFilesAbove(Session& session, const Parts& object, const Selection& selection,
                         const std::function<bool(const StoredObject&)>& mayGo) {
    for (const Parts& directory : DirectoriesAbove(object)) {
        for (const StoredObject& file : List(session, NamePattern(directory, false), selection)) {
            if (file.directory || mayGo(file)) continue;
            throw Failure(fmt::format("a file is stored under the name of a directory above ({}); it would be lost",
                                      file.ObjectPath()));
        }
    }
}

}  // namespace tsmctl
