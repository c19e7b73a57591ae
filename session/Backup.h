// The directory objects that stand above an object.
#ifndef SESSION_BACKUP_H
#define SESSION_BACKUP_H

#include <string>
#include <vector>

// The name of one level's directory object.
struct Level {
    std::string hl;
    std::string ll;
};

// The levels of path, a complete high-level name, from the top down; what stands before the first delimiter is
// none. Returns 0, or -2120 when a level's name does not fit its fields.
int SplitLevels(const std::string& path, const char* delimiter, std::vector<Level>& levels);

#endif
