// What the operator decides: where the store is, what the server offers and permits, where errors are written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Faults.h"
#include "Policy.h"
#include "dsmapitd.h"

namespace standin {

// One line of text a failure, appended to a file; without a folder for it, nowhere.
class ErrorLog {
public:
    explicit ErrorLog(const envSetUp* setUp);
    void Write(const std::string& text) const noexcept;

private:
    std::string path_;
};

struct MgmtClass {
    std::string name;
    std::string description;
};

struct Options {
    // Throws std::runtime_error when the options file, or the variable with rules, cannot be read or understood.
    explicit Options(const envSetUp* setUp);

    std::string storeDir;
    std::vector<MgmtClass> classes;  // never empty; the first one is the default
    bool mayDeleteBackups = true;
    Faults faults;
    Policy policy;
    std::optional<std::int64_t> passwordDays;           // until a password expires
    std::int64_t clockStoppedAt = 0, clockAheadBy = 0;  // for control::SetServerClock

private:
    void ReadFile(const std::string& path);
    void ReadRules(std::string rules);
    bool TakeFault(const std::string& place, const std::string& keyword, const std::string& rest);
    bool TakePolicy(const std::string& keyword, const std::string& value);
    bool Take(const std::string& keyword, const std::string& value, const std::string& baseDir);
    bool TakeKeep(std::string value);
    bool TakeClock(const std::string& value);
};

}  // namespace standin
