#include "fuzz/Model.h"

#include <algorithm>

#include "util/DsmApi.h"

namespace fuzz {
namespace {

bool Matches(const char* pattern, const char* text) {
    if (*pattern == '*') return Matches(pattern + 1, text) || (*text != '\0' && Matches(pattern, text + 1));
    if (*pattern == '\0' || *text == '\0') return *pattern == *text;
    return (*pattern == '?' || *pattern == *text) && Matches(pattern + 1, text + 1);
}

bool Matches(const std::string& pattern, const std::string& text) {
    return Matches(pattern.c_str(), text.c_str());
}

}  // namespace

std::string Model::HighLevel(std::string path) const {
    if (path == "*") return path;
    std::replace(path.begin(), path.end(), delimiter_ == "/" ? '\\' : '/', delimiter_[0]);
    if (!path.empty() && path.back() == delimiter_[0]) path.pop_back();
    if (path.empty()) return path;
    return path[0] == delimiter_[0] ? path : delimiter_ + path;
}

std::string Model::LowLevel(const char* name) const {
    return delimiter_ + (name ? name : "*");
}

std::vector<Model::Match> Model::Find(const std::string& hl, const std::string& ll, int type, bool activeOnly,
                                      int moment) const {
    std::vector<Match> found;
    for (const auto& [key, versions] : objects_) {
        const auto& [keyHl, keyLl, keyType] = key;
        if (!Matches(hl, keyHl) || !Matches(ll, keyLl) || (type != DSM_OBJ_ANY_TYPE && type != keyType)) continue;
        const Version* current = nullptr;
        for (const Version& version : versions) {
            if (version.stored <= moment && (version.ended == 0 || version.ended > moment)) current = &version;
        }
        for (const Version& version : versions) {
            const bool then = moment == 0 || &version == current;
            if (then && !(activeOnly && version.ended != 0)) found.push_back({key, &version});
        }
    }
    return found;
}

void Model::MakeDirectories(const std::string& hl, int now) {
    for (std::size_t at = 0; at < hl.size();) {
        const std::size_t end = std::min(hl.find(delimiter_, at + 1), hl.size());
        const Key key{hl.substr(0, at), hl.substr(at, end - at), DSM_OBJ_DIRECTORY};
        if (Find(std::get<0>(key), std::get<1>(key), DSM_OBJ_DIRECTORY, true, 0).empty()) {
            Store(key, {0, now, 0, 0, "", ""});
        }
        at = end;
    }
}

void Model::Store(const Key& key, Version version) {
    std::vector<Version>& versions = objects_[key];
    for (Version& older : versions) older.ended = older.ended == 0 ? version.stored : older.ended;
    version.id = nextId++;
    versions.push_back(std::move(version));
}

void Model::Remove(const std::vector<Match>& matches, bool forGood, int now) {
    std::vector<std::pair<Key, int>> ids;
    for (const Match& match : matches) ids.emplace_back(match.key, match.version->id);
    for (const auto& [key, id] : ids) {
        std::vector<Version>& versions = objects_[key];
        auto version = versions.begin();
        while (version->id != id) ++version;
        if (!forGood) {
            version->ended = now;
            continue;
        }
        const bool wasActive = version->ended == 0;
        versions.erase(version);
        if (wasActive && !versions.empty()) versions.back().ended = 0;
        if (versions.empty()) objects_.erase(key);
    }
}

void Model::Delete(const std::string& hl, const std::string& ll, bool forGood, int moment, int now) {
    Remove(Find(hl, ll, DSM_OBJ_ANY_TYPE, !forGood, moment), forGood, now);
    for (std::string path = hl; !path.empty();) {
        if (!Find(path, LowLevel(nullptr), DSM_OBJ_ANY_TYPE, true, 0).empty()) break;
        const std::size_t last = path.rfind(delimiter_);
        const std::string above = last == path.npos ? "" : path.substr(0, last);
        const std::string name = delimiter_ + (last == path.npos ? path : path.substr(last + 1));
        Remove(Find(above, name, DSM_OBJ_ANY_TYPE, !forGood, 0), forGood, now);
        path = above;
    }
}

bool Model::Rename(const Key& from, const Key& to, int now) {
    const auto& [fromHl, fromLl, any] = from;
    const auto& [toHl, toLl, same] = to;
    const std::vector<Match> moved = Find(fromHl, fromLl, DSM_OBJ_ANY_TYPE, false, 0);
    if (moved.empty()) return false;
    const int type = std::get<2>(moved.front().key);
    if (!Find(toHl, toLl, DSM_OBJ_ANY_TYPE, false, 0).empty()) Delete(toHl, toLl, true, 0, now);
    // Deleting the target may have removed the source too; then there is nothing to move.
    const auto source = objects_.find({fromHl, fromLl, type});
    if (source != objects_.end()) {
        std::vector<Version> versions = std::move(source->second);
        objects_.erase(source);
        objects_[{toHl, toLl, type}] = std::move(versions);
    }
    // The two names may be the same; then deleting the target removed everything.
    Delete(fromHl, fromLl, true, 0, now);
    MakeDirectories(toHl, now);
    return true;
}

}  // namespace fuzz
