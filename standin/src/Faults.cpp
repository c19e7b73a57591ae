#include "Faults.h"

#include <strings.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "dsmrc.h"

namespace standin {
namespace {

struct Row {
    const char* name;
    std::set<int> successes;  // beside 0
};

const std::vector<Row>& Calls() {
#define LIST(...) \
    { __VA_ARGS__ }
#define CALL(name, count, words, answers, ...) {#name, LIST answers},
    static const std::vector<Row> rows = {
#include "../../tables/calls.def"
    };
#undef CALL
#undef LIST
    return rows;
}

constexpr std::size_t callCount = 0
#define CALL(...) +1
#include "../../tables/calls.def"
#undef CALL
    ;

// ------------------------------------------------------------- reading rules

constexpr const char* any = "*";
constexpr long long longest = 24LL * 60 * 60 * 1000;  // milliseconds

[[noreturn]] void Wrong(const std::string& what) {
    throw std::runtime_error(what);
}

std::vector<std::string> WordsIn(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

template <class Number>
std::optional<Number> Read(const std::string& word) {
    Number number{};
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

long long NumberIn(const std::string& word, const char* what, long long least, long long most) {
    const auto number = Read<long long>(word);
    if (!number || *number < least || *number > most) {
        Wrong(std::string(what) + " is a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return *number;
}

std::optional<Call> CallIn(const std::string& word) {
    if (word == any) return std::nullopt;
    const std::optional<Call> call = faults::Named(word);
    if (!call) Wrong("there is no such call");
    return call;
}

// A code's published name, or its number.
long long CodeIn(const std::string& word, long long least, long long most) {
    static const std::map<std::string, long long> named = {
#define CODE(value, name, text) {name, value},
#include "../../tables/codes.def"
#undef CODE
    };
    const auto found = named.find(word);
    return found != named.end() ? found->second : NumberIn(word, "a code without a known name", least, most);
}

// CALL [NTH] RC [REASON]. Of two values the first is RC where it is a name, or one of the codes that come with a
// reason.
Rule FaultOf(const std::vector<std::string>& words) {
    if (words.size() < 2 || words.size() > 4) Wrong("CALL [NTH] RC [REASON], or RATE SEED, is expected");
    Rule rule{CallIn(words[0])};
    if (rule.call == Call::dsmQueryApiVersionEx) Wrong("this call cannot fail");
    const std::optional<long long> first = Read<long long>(words[1]);
    const bool withReason =
        !first || *first == DSM_RC_OK || *first == DSM_RC_WILL_ABORT || *first == DSM_RC_CHECK_REASON_CODE;
    const std::size_t rc = words.size() == 4 || (words.size() == 3 && !withReason) ? 2 : 1;
    if (rc == 2) rule.nth = static_cast<unsigned long>(NumberIn(words[1], "NTH", 1, INT32_MAX));
    rule.fault = Fault{static_cast<dsInt16_t>(CodeIn(words[rc], INT16_MIN, INT16_MAX)), 0};
    if (words.size() > rc + 1) {
        rule.fault->reason = static_cast<dsUint16_t>(CodeIn(words[rc + 1], 0, UINT16_MAX));
        if (rule.call != Call::dsmEndTxn && rule.fault->rc != DSM_RC_WILL_ABORT) {
            Wrong("a reason goes with dsmEndTxn, or with the code 157");
        }
    }
    // No server answers a call that it did not carry out with success; a reason beside 0 is the exception.
    const bool untold = rule.fault->rc == DSM_RC_OK && rule.fault->reason == 0;
    const auto taken = [&](const Row& row) {
        return (!rule.call || faults::Named(row.name) == rule.call) && row.successes.count(rule.fault->rc) != 0;
    };
    if (untold || (rule.fault->rc == DSM_RC_OK && rule.call != Call::dsmEndTxn) ||
        std::any_of(Calls().begin(), Calls().end(), taken)) {
        Wrong("the code is no failure of this call");
    }
    return rule;
}

Rule RateOf(const std::vector<std::string>& words) {
    Rule rule;
    const std::optional<double> rate = Read<double>(words[0]);
    if (!rate || !(*rate > 0 && *rate <= 100)) Wrong("RATE is a number of per cent");
    const std::optional<std::uint64_t> seed = Read<std::uint64_t>(words[1]);
    if (!seed) Wrong("SEED is a whole number");
    rule.percent = *rate;
    rule.seed = *seed;
    rule.anyFault = true;
    return rule;
}

Rule LimitOf(Call call, const std::string& bytes) {
    Rule rule{call};
    rule.bytes = static_cast<dsUint32_t>(NumberIn(bytes, "BYTES", 1, UINT32_MAX));
    return rule;
}

// -------------------------------------------------------- what servers answer

std::vector<Fault> With(dsInt16_t rc, std::initializer_list<dsUint16_t> reasons) {
    std::vector<Fault> faults;
    for (const dsUint16_t reason : reasons) faults.push_back({rc, reason});
    return faults;
}

// A broken connection may show as 2041 first.
std::vector<Fault> FaultsOf(Call call) {
    switch (call) {
        case Call::dsmSetUp:
        case Call::dsmCleanUp:
            return {{DSM_RC_ABORT_SYSTEM_ERROR, 0}, {DSM_RC_NO_MEMORY, 0}};
        case Call::dsmInitEx:
            return {{DSM_RC_ABORT_SYSTEM_ERROR, 0},
                    {DSM_RC_REJECT_NO_RESOURCES, 0},
                    {DSM_RC_REJECT_VERIFIER_EXPIRED, 0},
                    {DSM_RC_AUTH_FAILURE, 0}};
        case Call::dsmRCMsg:
        case Call::dsmTerminate:
            return {{DSM_RC_ABORT_SYSTEM_ERROR, 0}};
        case Call::dsmRegisterFS:
        case Call::dsmDeleteFS:
        case Call::dsmSetAccess:
            return {{DSM_RC_ABORT_SYSTEM_ERROR, 0}, {DSM_RC_ACCESS_DENIED, 0}, {DSM_RC_BAD_CALL_SEQUENCE, 0}};
        case Call::dsmBeginGetData:
        case Call::dsmGetObj:
        case Call::dsmGetData:
            return {{DSM_RC_ABORT_SYSTEM_ERROR, 0}, {9, 0}, {12, 0}, {14, 0}, {DSM_RC_BAD_CALL_SEQUENCE, 0}};
        case Call::dsmSendObj:
        case Call::dsmSendData:
        case Call::dsmEndSendObj:
            return With(DSM_RC_WILL_ABORT, {1, 10, 11, 12, 13, 15, 16, 17, 18, 20});
        case Call::dsmDeleteObj:
        case Call::dsmRenameObj:
            return With(DSM_RC_WILL_ABORT, {1, 16, 17, 18, 20});
        case Call::dsmEndTxn:
            return With(DSM_RC_CHECK_REASON_CODE, {1, 11, 12, 15, 16, 17, 18, 20});
        default:
            return {{DSM_RC_ABORT_SYSTEM_ERROR, 0}, {DSM_RC_BAD_CALL_SEQUENCE, 0}};
    }
}

// ------------------------------------------------------------------ the table

constexpr std::size_t all = callCount;  // counts every call that can fail

struct Table {
    // Never reset, so that rules hold for the same calls whatever a test forgets.
    std::array<std::atomic<unsigned long>, callCount + 1> counts{};
    std::array<std::atomic<unsigned long>, callCount + 1> forgotten{};
    std::atomic<bool> armed{false};  // spares every call the lock while there is no rule
    std::mutex mutex;
    std::vector<Rule> rules;

    template <class Which>
    void Drop(Which which) {
        rules.erase(std::remove_if(rules.begin(), rules.end(), which), rules.end());
        armed.store(!rules.empty(), std::memory_order_release);
    }
    void Add(const Rule& rule) {
        rules.push_back(rule);
        armed.store(true, std::memory_order_release);
    }
};

Table& TheTable() {
    // Never destroyed: the host may still call while it exits.
    static Table& table = *new Table;
    return table;
}

std::size_t IndexOf(std::optional<Call> call) {
    return call ? static_cast<std::size_t>(*call) : all;
}

// Depends on nothing but its arguments: the same calls fail in every run, whatever thread makes them.
std::uint64_t Chance(const Rule& rule, Call call, unsigned long number) {
    const std::uint64_t key[] = {IndexOf(call), number};
    return XXH3_64bits_withSeed(key, sizeof key, rule.seed);
}

}  // namespace

bool Faults::Take(const std::string& keyword, const std::string& rest) {
    const std::vector<std::string> words = WordsIn(rest);
    const auto is = [&](const char* name, std::size_t count, const char* expected) {
        if (strcasecmp(keyword.c_str(), name) != 0) return false;
        if (count != words.size()) Wrong(std::string(expected) + " is expected");
        return true;
    };
    if (strcasecmp(keyword.c_str(), "FAULT") == 0) {
        const bool rate = words.size() == 2 && Read<double>(words[0]);
        rules.push_back(rate ? RateOf(words) : FaultOf(words));
    } else if (is("LATENCY", 2, "CALL TIME")) {
        Rule rule{CallIn(words[0])};
        rule.delay = std::chrono::milliseconds(NumberIn(words[1], "TIME", 0, longest));
        rules.push_back(rule);
    } else if (is("PARTIALSEND", 1, "BYTES")) {
        rules.push_back(LimitOf(Call::dsmSendData, words[0]));
    } else if (is("SHORTREAD", 1, "BYTES")) {
        rules.push_back(LimitOf(Call::dsmGetData, words[0]));
    } else if (is("SESSIONS", 1, "MAX")) {
        sessions = static_cast<std::size_t>(NumberIn(words[0], "MAX", 1, INT32_MAX));
    } else if (is("IDLE", 1, "TIME")) {
        idle = std::chrono::milliseconds(NumberIn(words[0], "TIME", 1, longest));
    } else if (is("STRICTSIZE", 0, "nothing behind it")) {
        strictSize = true;
    } else {
        return false;
    }
    return true;
}

namespace faults {

std::optional<Call> Named(const std::string& function) {
    const auto found =
        std::find_if(Calls().begin(), Calls().end(), [&](const Row& row) { return row.name == function; });
    if (found == Calls().end()) return std::nullopt;
    return static_cast<Call>(found - Calls().begin());
}

std::optional<Fault> Enter(Call call) {
    Table& table = TheTable();
    const bool canFail = call != Call::dsmQueryApiVersionEx;
    const unsigned long number = ++table.counts[IndexOf(call)];
    const unsigned long amongAll = canFail ? ++table.counts[all] : 0;
    if (!table.armed.load(std::memory_order_acquire)) return std::nullopt;

    std::optional<Fault> due;
    std::chrono::milliseconds delay{0};
    {
        const std::lock_guard<std::mutex> lock(table.mutex);
        table.Drop([&](const Rule& rule) {
            if (rule.call && rule.call != call) return false;
            if (rule.nth != 0 && rule.nth != (rule.call ? number : amongAll)) return false;
            const std::uint64_t chance = Chance(rule, call, number);
            if (std::ldexp(static_cast<double>(chance >> 32), -32) * 100 >= rule.percent) return false;
            delay += rule.delay;
            if (!due && rule.fault) due = rule.fault;
            if (!due && rule.anyFault) {
                const std::vector<Fault> likely = FaultsOf(call);
                due = likely[(chance & UINT32_MAX) % likely.size()];
            }
            return rule.nth != 0;
        });
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    return canFail ? due : std::nullopt;
}

dsUint32_t AtMost(Call call, dsUint32_t bytes) {
    Table& table = TheTable();
    if (!table.armed.load(std::memory_order_acquire)) return bytes;
    const std::lock_guard<std::mutex> lock(table.mutex);
    for (const Rule& rule : table.rules) {
        if (rule.call == call && rule.bytes != 0) bytes = std::min(bytes, rule.bytes);
    }
    return bytes;
}

void SetUp(const std::vector<Rule>& rules) {
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.Drop([](const Rule& rule) { return !rule.ofTest; });
    for (const Rule& rule : rules) table.Add(rule);
}

void Add(Rule rule) {
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    rule.ofTest = true;
    rule.nth += table.counts[IndexOf(rule.call)];
    table.Add(rule);
}

void TakeAtMost(dsUint32_t bytes) {
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.Drop([](const Rule& rule) { return rule.ofTest && rule.bytes != 0; });
    if (bytes == 0) return;
    Rule rule{Call::dsmSendData};
    rule.bytes = bytes;
    rule.ofTest = true;
    table.Add(rule);
}

unsigned long Count(std::optional<Call> call) {
    const std::size_t index = IndexOf(call);
    return TheTable().counts[index] - TheTable().forgotten[index];
}

void Reset() {
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.Drop([](const Rule& rule) { return rule.ofTest; });
    for (std::size_t i = 0; i < table.counts.size(); ++i) table.forgotten[i] = table.counts[i].load();
}

}  // namespace faults
}  // namespace standin
