// The server's inventory, copied out of the library.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Connection.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"

namespace tsmctl {

struct StoredObject {
    std::string path;  // high-level name as stored
    std::string name;  // low-level name as stored, without its delimiter
    long long announced = 0;
    std::string date;
    std::string text;
    std::string fileSpace;
    bool directory = false;
    std::optional<Info> info;  // when the text is ours and fits the object

    Parts StoredParts() const;
    Parts PlainParts() const;
    std::string Shown() const { return Join(PlainParts()); }
    Kind GetKind() const;
    std::optional<long long> Size() const;
};

enum class Scope { Self, Tree };

struct Selection {
    bool allVersions = false;
    std::string at = {};
    int objectType = 0;
};

// Every object that the pattern names, with Tree also all that lies below; the root has a Tree only. Ordered by plain
// name and date.
std::vector<StoredObject> List(Session& session, const NamePattern& pattern, Scope scope, const Selection& selection);

// Makes sure that the library reads just this object by its name, which may hold bytes that the library gives a
// meaning to. Throws Failure where it would not.
void RequireReadable(Session& session, const StoredObject& object, const std::string& at);
// The same before a change: stricter, since directories on the way may be removed by their names.
void RequireChangeable(Session& session, const StoredObject& object);

// The library removes emptied directories by name, and a file of such a name with them. Asks about each directory once.
class FilesAbove {
public:
    FilesAbove(Session& signedOn, Selection limits) : session_(signedOn), selection_(std::move(limits)) {}

    // Throws Failure where a file, unless it may go, bears the name of a directory above the object (plain parts).
    void Refuse(const Parts& object, const std::function<bool(const StoredObject&)>& mayGo);

private:
    const std::vector<StoredObject>& FilesAt(const Parts& directory);

    Session& session_;
    const Selection selection_;
    std::map<Parts, std::vector<StoredObject>> known_;
};

}  // namespace tsmctl
