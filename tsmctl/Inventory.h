// The server's inventory, copied out of the library.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Connection.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"
#include "tsmconnector.h"

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
    bool active = true;        // now; known only where it was asked for
    bool chosen = true;        // by the selection

    Parts StoredParts() const;
    Parts PlainParts() const;
    // Exactly as stored, path and name.
    std::string StoredPath() const { return path + "/" + name; }
    std::string ObjectPath() const { return Join(PlainParts()); }
    Kind GetKind() const;
    std::optional<long long> Size() const;
};

// Where the records of runs are, in its stored form, which no object of a tree has.
constexpr const char* runsFolder = "%tsmctl-runs";

// How far a walk goes: what the pattern names, also what is below, also what lies in a directory that is not stored.
enum class Reach { Named, Tree, Strays };

struct Selection {
    bool allVersions = false;
    std::string at = {};
    int objectType = TSM_OBJECTS_ANY;
    Reach reach = Reach::Strays;
    // Tells which of them are active now; andNow adds those that are active now and were not at that moment.
    bool marked = false;
    bool andNow = false;
    bool runs = false;  // only the records of runs, which are left out otherwise
};

// The objects that the pattern names, ordered by plain name and date; none for the root. Throws Failure.
std::vector<StoredObject> List(Session& session, const NamePattern& pattern, const Selection& selection);

// The versions in a directory, whose path is as stored, or only those of one name, which holds nothing that the library
// gives a meaning to. Ordered by plain name and date. Throws Failure.
std::vector<StoredObject> ListIn(Session& session, const std::string& path, const Selection& selection,
                                 const std::string& name = "");

// Goes through what the pattern names and everything below, in the order of the plain names and directory by directory,
// so that memory does not grow with the tree. What lies in a directory of which no version is stored comes last; it is
// not looked for among more than mostWithStrays objects. False when there is nothing, of whatever type. Throws Failure.
//
// visit gets the versions of one plain name, of which there may be none, and says whether to go on below it.
using Visit = std::function<bool(std::vector<StoredObject>& versions, const Parts& plain)>;
bool Walk(Session& session, const NamePattern& pattern, const Selection& selection, const Visit& visit);

constexpr size_t mostWithStrays = 40000;

// The stored paths that have objects below what the pattern names, but are not among those entered. That takes a
// listing of everything, and the memory for it. Throws Failure.
std::set<std::string> FindStrays(Session& session, const NamePattern& pattern, const Selection& selection,
                                 const std::set<std::string>& entered);

// The active objects directly in a directory (plain parts, empty for the top), or only those of one name, that are
// stored exactly as tsmctl stores them. By stored name: a file, a directory, or both. Throws Failure.
struct StoredPair {
    std::optional<StoredObject> file;  // or link, stream
    std::optional<StoredObject> directory;

    std::optional<StoredObject>& Of(bool isDirectory) { return isDirectory ? directory : file; }
    const std::optional<StoredObject>& Of(bool isDirectory) const { return isDirectory ? directory : file; }
};
using StoredFolder = std::map<std::string, StoredPair>;
StoredFolder ListFolder(Session& session, const Parts& folder);
StoredPair ListOne(Session& session, const Parts& object);

// Why an object failed that was committed: the commit answers 0 also where the API could not end the object.
constexpr const char* notStored = "is not stored, although its commit succeeded";
// before is the date of a version that does not count, because it was there earlier.
bool IsStoredAs(const StoredPair& stored, bool isDirectory, const std::string& text, const std::string& before = "");
// Throws PassingFailure unless the active file or directory of this name (plain parts) has the information text.
void RequireStored(Session& session, const Parts& object, bool isDirectory, const std::string& text,
                   const std::string& before = "");

// Whether it is an object of a newer tsmctl, or has a damaged text: it is no other program's.
bool IsDamaged(const StoredObject& object);
// Throws Failure for one.
void RequireKnown(const StoredObject& object);
// Throws Failure unless the library reads just this object by its name, which may hold bytes that the library gives a
// meaning to.
void RequireReadable(Session& session, const StoredObject& object, const std::string& at);
// The same before a change. It is stricter, because the library may remove directories above by their names.
void RequireChangeable(Session& session, const StoredObject& object);

// Deletes an active version, or all versions, of what was active at the moment. Success is no proof, and what an
// earlier try or another run has deleted counts as such: list afterwards.
void DeleteObject(Session& session, const StoredObject& object, bool allVersions, const std::string& at);

// When a directory becomes empty, the library removes it by its name, and a file of that name with it. Throws Failure
// if a file has the name of a directory above the object (plain parts), unless it may go.
void RequireNoFilesAbove(
    Session& session, const Parts& object, const Selection& selection,
    const std::function<bool(const StoredObject&)>& mayGo = [](const StoredObject&) { return false; });

}  // namespace tsmctl
