// Predicts the content of a filespace after the calls so far, for ordinary names and a delimiter of one character.
#pragma once

#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace fuzz {

struct Version {
    int id;
    int stored;
    int ended;  // 0 while active
    long long size;
    std::string data;
    std::string info;
};

// High-level name, low-level name, kind: in the order of a listing.
using Key = std::tuple<std::string, std::string, int>;

class Model {
public:
    struct Match {
        Key key;
        const Version* version;
    };

    explicit Model(char slash) : delimiter_(1, slash) {}

    std::string HighLevel(std::string path) const;
    std::string LowLevel(const char* name) const;

    std::vector<Match> Find(const std::string& hl, const std::string& ll, int type, bool activeOnly, int moment) const;
    void MakeDirectories(const std::string& hl, int now);
    void Store(const Key& key, Version version);
    void Delete(const std::string& hl, const std::string& ll, bool forGood, int moment, int now);
    // False when there is nothing under the old name.
    bool Rename(const Key& from, const Key& to, int now);

    int nextId = 1;

private:
    void Remove(const std::vector<Match>& matches, bool forGood, int now);

    const std::string delimiter_;
    std::map<Key, std::vector<Version>> objects_;
};

}  // namespace fuzz
