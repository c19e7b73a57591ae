// Tries the store on disks that fail, die, lose what was not flushed, or flip bits. A child process works on the store
// and notes each answer. Another one opens the store afterwards and must find what was acknowledged.
// So it is with a store that is made and used, one of version 1.0 that is taken over, and a damaged one that is
// repaired.
//   disk_trouble faults [EVERY]  every call (every nth call) of a scenario fails with EIO, with ENOSPC, kills
//   disk_trouble EIO|ENOSPC|kill NTH [SCENARIO]  the same at one call, with the error log
//   disk_trouble cuts [EVERY]    the power fails after every write, flush or change of a folder
//   disk_trouble flips COUNT     one bit of the catalogue, and one of the data, COUNT times each
// DISK_SEED repeats the choices of an earlier run.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Check.h"
#include "Database.h"
#include "Disk.h"
#include "Files.h"
#include "Schema1.h"
#include "dsmapifp.h"
#include "dsmrc.h"

namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

fs::path work;  // with the folder disk/, the only one that is watched, and in it the store
std::mt19937 chance;
long problems = 0;

void Problem(const std::string& where, const std::string& what) {
    ++problems;
    std::cout << where << ": " << what << std::endl;
}

long Chance(long below) {
    return std::uniform_int_distribution<long>(0, below - 1)(chance);
}

std::string Content(std::size_t size, unsigned seed) {
    std::mt19937_64 bytes(seed);
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; i += 8) {
        const auto word = bytes();
        std::memcpy(&content[i], &word, std::min<std::size_t>(8, size - i));
    }
    return content;
}

std::string Hash(const std::string& bytes) {
    return std::to_string(bytes.size()) + ":" + std::to_string(std::hash<std::string>()(bytes));
}

// ------------------------------------------------------------------ scenario

// p put, a deactivate, x remove the oldest version, r rename, f register a filespace, F delete it, o open, c close,
// u somebody leaves files of his own in the store, R repair it. Names are FILESPACE:NAME.
struct Op {
    char what;
    std::string name{}, to{};
    std::size_t size = 0;
};
struct Step {
    std::vector<Op> ops;  // several: one transaction
    int thread = 0;       // neighbours of different threads run at a time, in sessions of their own
};
using Steps = std::vector<Step>;
struct Scenario {
    const char* name;
    Steps steps;            // the last ones are those of afterwards
    std::size_t given = 0;  // how many of the steps are done already, in the folder named as the scenario

    std::size_t Whole() const;
    bool Repairs() const { return steps[given].ops[0].what == 'R'; }
};

constexpr std::size_t small = 700, large = 300000;

// What the next process does.
const Steps afterwards = {
    {{{'o'}}}, {{{'f', "A:"}}}, {{{'p', "A:later", "", small}}}, {{{'p', "A:later", "", large}}}, {{{'c'}}}};

std::size_t Scenario::Whole() const {
    return steps.size() - afterwards.size();
}

Scenario Used() {
    Steps steps = {{{{'o'}}},
                   {{{'u'}}},
                   {{{'f', "A:"}}},
                   {{{'p', "A:a", "", small}}},
                   {{{'p', "A:b", "", large}}},
                   {{{'p', "A:a", "", small + 1}}},
                   {{{'p', "A:b", "", large + 1}}},
                   {{{'p', "A:empty"}}},
                   {{{'p', "A:e", "", 9000}, {'p', "A:f", "", large}, {'x', "A:b"}, {'a', "A:a"}}},
                   {{{'r', "A:b", "A:c"}}},
                   {{{'f', "B:"}}},
                   {{{'p', "B:a", "", small}, {'p', "B:b", "", large}}},
                   {{{'p', "B:b", "", large}}},
                   {{{'x', "A:f"}}},
                   {{{'F', "B:"}}},
                   {{{'c'}}},
                   {{{'o'}}},
                   {{{'p', "A:g", "", small}}},
                   {{{'p', "A:c", "", large}}}};
    for (int thread = 1; thread <= 3; ++thread) {
        for (const char* name : {"x", "y"}) {
            steps.push_back({{{'p', "A:" + std::string(name) + std::to_string(thread), "", small}}, thread});
        }
        steps.push_back({{{'p', "A:z" + std::to_string(thread), "", large}}, thread});
    }
    steps.push_back({{{'x', "A:c"}}});
    steps.push_back({{{'c'}}});
    steps.insert(steps.end(), afterwards.begin(), afterwards.end());
    return {"used", steps};
}

unsigned SeedOf(const Step& step, const Op& op) {
    return static_cast<unsigned>(std::hash<std::string>()(op.name) + op.size + step.ops.size());
}

// ---------------------------------------------------- what the store must hold

struct Model {
    std::map<std::string, std::vector<std::pair<std::string, bool>>> objects;  // hash of the content, active
    std::set<std::string> filespaces;

    // False: the store would refuse it.
    bool Apply(const Step& step) {
        return std::all_of(step.ops.begin(), step.ops.end(), [&](const Op& op) { return Apply(step, op); });
    }
    bool Apply(const Step& step, const Op& op) {
        const std::string filespace = op.name.substr(0, op.name.find(':') + 1);
        if (op.what == 'f') return filespaces.insert(op.name).second;
        if (std::strchr("ocuR", op.what)) return true;
        if (op.what == 'r' && objects.count(op.name) == 0) return true;
        if (filespaces.count(filespace) == 0) return false;
        if (op.what == 'F') {
            filespaces.erase(filespace);
            objects.erase(objects.lower_bound(filespace), objects.lower_bound(filespace + '\x7f'));
            return true;
        }
        if (op.what != 'p' && objects.count(op.name) == 0) return false;
        auto& versions = objects[op.name];
        const bool active = !versions.empty() && versions.back().second;
        if (op.what == 'x') {
            versions.erase(versions.begin());
        } else if (op.what == 'r') {
            if (objects.count(op.to) != 0) return false;
            objects[op.to] = versions;
            versions.clear();
        } else {
            if (active) versions.back().second = false;
            if (op.what == 'p') versions.emplace_back(Hash(Content(op.size, SeedOf(step, op))), true);
        }
        if (versions.empty()) objects.erase(op.name);
        return op.what != 'a' || active;
    }

    Lines View() const {
        Lines lines(filespaces.begin(), filespaces.end());
        for (const auto& [name, versions] : objects) {
            for (const auto& [hash, active] : versions) lines.push_back(name + (active ? "* " : " ") + hash);
        }
        return lines;
    }
};

std::string impossible;  // the last answer that no state of the store explains

// The states that the store may have after the first events: a step that failed by a fault, or has no answer yet, may
// have happened or not. Empty if no state explains an answer; see impossible.
std::set<Lines> Possible(const Steps& steps, const std::vector<disk::Event>& events, std::size_t count = SIZE_MAX) {
    std::map<Lines, Model> models = {{{}, {}}};
    std::map<std::int64_t, bool> open;  // the steps under way, and whether a fault has come up since
    const auto apply = [&](std::int64_t at, bool done, bool perhaps) {
        std::map<Lines, Model> after;
        for (const auto& [view, model] : models) {
            Model changed = model;
            const bool possible = changed.Apply(steps[static_cast<std::size_t>(at)]);
            if (possible && (done || perhaps)) after[changed.View()] = changed;
            if (!done && (perhaps || !possible)) after[view] = model;
        }
        models = std::move(after);
    };
    const auto leaveOpen = [&] {
        for (const auto& [at, hit] : open) apply(at, false, true);
        open.clear();
    };
    for (std::size_t i = 0; i < std::min(count, events.size()); ++i) {
        const disk::Event& e = events[i];
        if (e.what == 'B') open[e.at] = false;
        if (e.what == 'K') leaveOpen();
        if (e.what == '!') {
            for (auto& [at, hit] : open) hit = true;
        }
        if (e.what == 'Y' || e.what == 'N') {
            apply(e.at, e.what == 'Y', open[e.at]);
            if (models.empty()) {
                const Op& op = steps[static_cast<std::size_t>(e.at)].ops[0];
                impossible = "step "s + std::to_string(e.at) + ", " + op.what + " " + op.name +
                             (e.what == 'Y' ? ", went through" : ", fails without a fault");
                return {};
            }
            open.erase(e.at);
        }
    }
    leaveOpen();
    std::set<Lines> views;
    for (const auto& [view, model] : models) views.insert(view);
    return views;
}

// ---------------------------------------------------------------------- host

template <std::size_t Size>
void Set(char (&field)[Size], const std::string& text) {
    if (text.size() >= Size) std::abort();
    std::memcpy(field, text.c_str(), text.size() + 1);
}

dsmObjName NameOf(const std::string& name) {
    dsmObjName result{};
    const std::size_t colon = name.find(':');
    Set(result.fs, name.substr(0, colon + 1));
    Set(result.hl, "/d");
    Set(result.ll, name.substr(colon + 1));
    result.objType = DSM_OBJ_FILE;
    return result;
}

struct Found {  // a version or a filespace
    std::string name;
    bool active = false;
    ObjID id{};
    std::string record, content;  // the content's hash, or ! and what reading answered
    std::string Line() const { return name + (content.empty() ? "" : (active ? "* " : " ") + content); }
};

// Files in the store's folder that others made.
constexpr const char* strangers[] = {"thesis.txt", "data/notes", "data/0/12.txt", "data/7/12", "incoming/upload.pdf"};
const std::string strange = "not the store's\n";

class Host {
public:
    ~Host() { Close(); }

    bool Open() {
        envSetUp setUp{};
        Set(setUp.dsmiConfig, (work / "dsm.opt").string());
        Set(setUp.dsmiLog, work.string());
        ready_ = dsmSetUp(bTrue, &setUp) == 0;
        if (ready_ && SignOn()) return true;
        Close();
        return false;
    }
    bool SignOn() {
        char node[] = "NODE", password[] = "pw";
        dsmInitExIn_t in{};
        dsmInitExOut_t out{};
        in.clientNodeNameP = node;
        in.clientPasswordP = password;
        return dsmInitEx(&handle_, &in, &out) == 0 || (handle_ = 0);
    }
    void Close() {
        SignOff();
        if (ready_) dsmCleanUp(bTrue);
        ready_ = false;
    }
    void SignOff() {
        if (handle_) dsmTerminate(handle_);
        handle_ = 0;
    }

    bool Do(const Step& step) {
        const Op& op = step.ops[0];
        std::string name = op.name;
        switch (op.what) {
            case 'o':
                return Open();
            case 'c':
                Close();
                return true;
            case 'u':
                Intrude();
                return true;
            case 'R':
                return Repaired();
            case 'f': {
                regFSData data{};
                char type[] = "NTFS";
                data.fsName = name.data();
                data.fsType = type;
                return dsmRegisterFS(handle_, &data) == 0;
            }
            case 'F':
                return dsmDeleteFS(handle_, name.data(), DSM_REPOS_ALL) == 0;
        }
        if (dsmBeginTxn(handle_) != 0) return false;
        const bool done = std::all_of(step.ops.begin(), step.ops.end(), [&](const Op& o) { return Change(step, o); });
        dsUint16_t reason = 0;
        const int end = dsmEndTxn(handle_, done ? DSM_VOTE_COMMIT : DSM_VOTE_ABORT, &reason);
        return done && end == 0 && reason == 0;
    }

    // False: something could not be listed. Objects that cannot be read are among those found.
    bool List(std::vector<Found>& found, bool read) {
        std::string any = "*";
        qryFSData filespaces{qryFSDataVersion, any.data()};
        std::vector<std::string> names;
        qryRespFSData space{};
        bool complete = Query(qtFilespace, &filespaces, space, [&] {
            names.emplace_back(space.fsName);
            found.push_back({space.fsName, false, {}, {reinterpret_cast<char*>(&space), sizeof space}, {}});
        });
        for (const std::string& filespace : names) {
            dsmObjName name = NameOf(filespace + "*");
            Set(name.hl, "*");
            name.objType = DSM_OBJ_ANY_TYPE;
            qryBackupData query{qryBackupDataVersion, &name, nullptr, DSM_ANY_MATCH, {}};
            qryRespBackupData v{};
            const std::size_t before = found.size();
            complete &= Query(qtBackup, &query, v, [&] {
                found.push_back({std::string(v.objName.fs) + v.objName.ll,
                                 v.objState == DSM_ACTIVE,
                                 v.objId,
                                 {reinterpret_cast<char*>(&v), sizeof v},
                                 "?"});
            });
            for (std::size_t i = before; read && i < found.size(); ++i) found[i].content = Read(found[i].id);
        }
        return complete;
    }

private:
    template <class Record, class Take>
    bool Query(dsmQueryType type, dsmQueryBuff* what, Record& record, Take take) {
        if (dsmBeginQuery(handle_, type, what) != 0) return false;
        DataBlk block{DataBlkVersion, sizeof record, 0, reinterpret_cast<char*>(&record)};
        int next;
        bool any = false;
        for (; (next = dsmGetNextQObj(handle_, &block)) == DSM_RC_MORE_DATA; any = true) take();
        dsmEndQuery(handle_);
        return next == (any ? DSM_RC_FINISHED : DSM_RC_ABORT_NO_MATCH);
    }

    std::string Read(ObjID id) {
        dsmGetList list{dsmGetListVersion, 1, &id, nullptr};
        int got = dsmBeginGetData(handle_, bTrue, gtBackup, &list);
        std::string bytes, buffer(65536, '\0');
        if (got == 0) got = dsmGetObj(handle_, &id, nullptr);
        while (got == DSM_RC_MORE_DATA) {
            DataBlk block{DataBlkVersion, static_cast<dsUint32_t>(buffer.size()), 0, buffer.data()};
            got = dsmGetData(handle_, &block);
            bytes.append(buffer, 0, block.numBytes);
        }
        dsmEndGetObj(handle_);
        dsmEndGetData(handle_);
        return got == DSM_RC_FINISHED ? Hash(bytes) : "!" + std::to_string(got);
    }

    bool Change(const Step& step, const Op& op) {
        dsmObjName name = NameOf(op.name);
        if (op.what == 'p') {
            mcBindKey key{};
            ObjAttr attr{};
            attr.sizeEstimate.lo = static_cast<dsUint32_t>(op.size);
            if (dsmBindMC(handle_, &name, stBackup, &key) != 0) return false;
            if (dsmSendObj(handle_, stBackup, nullptr, &name, &attr, nullptr) != 0) return false;
            std::string bytes = Content(op.size, SeedOf(step, op));
            for (std::size_t done = 0; done < bytes.size();) {
                DataBlk block{DataBlkVersion,
                              static_cast<dsUint32_t>(std::min<std::size_t>(100000, bytes.size() - done)), 0,
                              &bytes[done]};
                if (dsmSendData(handle_, &block) != 0) return false;
                done += block.numBytes;
            }
            return dsmEndSendObj(handle_) == 0;
        }
        if (op.what == 'r') {
            dsmRenameIn_t in{1, handle_, DSM_BACKUP_REP, &name, "/d", "", bFalse, {}};
            dsmRenameOut_t out{};
            Set(in.newLl, op.to.substr(op.to.find(':') + 1));
            return dsmRenameObj(&in, &out) == 0;
        }
        dsmDelInfo info{};
        if (op.what == 'a') {
            info.backInfo = {delBackVersion, &name, 1};
            return dsmDeleteObj(handle_, dtBackup, info) == 0;
        }
        info.backIDInfo = {delBackIDVersion, oldest_[op.name]};
        return dsmDeleteObj(handle_, dtBackupID, info) == 0;
    }

    static bool Repaired() try {
        standin::Check((work / "disk/store").string(), true, [](const standin::Finding&) {});
        return true;
    } catch (const std::exception&) {
        return false;
    }

    static void Intrude() {
        const disk::Unwatched unwatched;
        for (const char* name : strangers) {
            const fs::path path = work / "disk/store" / name;
            fs::create_directories(path.parent_path());
            std::ofstream(path) << strange;
        }
    }

    dsUint32_t handle_ = 0;
    bool ready_ = false;

public:
    // The oldest version of the name is the one that x removes. It has to be known before the transaction.
    bool FindOldest(const Step& step) {
        for (const Op& op : step.ops) {
            if (op.what != 'x') continue;
            std::vector<Found> found;
            if (!List(found, false)) return false;
            const auto at = std::find_if(found.begin(), found.end(), [&](const Found& f) { return f.name == op.name; });
            if (at == found.end()) return false;
            oldest_[op.name] = at->id;
        }
        return true;
    }

private:
    std::map<std::string, ObjID> oldest_;
};

// One line for each thing found, made for Told; records and contents as hashes.
std::string Report(Host& host) {
    std::vector<Found> found;
    const bool complete = host.List(found, true);
    std::ostringstream text;
    for (const Found& f : found) text << f.Line() << '\t' << Hash(f.record) << '\n';
    if (!complete) text << "!list\n";
    return text.str();
}

bool Run(Host& host, const Steps& steps, std::size_t at) {
    disk::Note('B', static_cast<std::int64_t>(at));
    const Step& step = steps[at];
    const bool done = host.FindOldest(step) && host.Do(step);
    disk::Note(done ? 'Y' : 'N', static_cast<std::int64_t>(at));
    return done;
}

// In a child: runs the whole scenario, and lists the store before closing it.
void RunAll(const Steps& steps, std::size_t from, std::size_t to) {
    Host host;
    for (std::size_t at = from; at < to; ++at) {
        if (steps[at].thread != 0) {
            std::map<int, std::vector<std::size_t>> byThread;
            for (; at < steps.size() && steps[at].thread != 0; ++at) byThread[steps[at].thread].push_back(at);
            --at;
            std::vector<std::thread> threads;
            for (const auto& one : byThread) {
                threads.emplace_back([&steps, mine = one.second] {
                    Host session;
                    if (!session.SignOn()) session.SignOn();
                    for (const std::size_t i : mine) Run(session, steps, i);
                    session.SignOff();
                });
            }
            for (auto& thread : threads) thread.join();
            continue;
        }
        if (at + 1 == to) {
            const disk::Unwatched unwatched;
            disk::Tell(Report(host));
        }
        if (!Run(host, steps, at) && std::strchr("oR", steps[at].ops[0].what)) Run(host, steps, at);
    }
    if (steps[to - 1].ops[0].what != 'c') _exit(0);  // as if killed
}

// The exit status of a child that does the work, or minus the signal that ended it.
int InChild(const std::function<void()>& perform) {
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        perform();
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// What a new process finds.
struct Opened {
    int status;         // 0, -signal, 1: refused
    Lines lines, view;  // with and without the hash of the record

    Opened() {
        disk::Tell("");
        status = InChild([&] {
            Host host;
            if (!host.Open()) _exit(1);
            disk::Tell(Report(host));
        });
        std::istringstream text(disk::Told());
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        view = ViewOf(disk::Told());
    }
    static Lines ViewOf(const std::string& report) {
        std::istringstream text(report);
        Lines view;
        for (std::string line; std::getline(text, line);) view.push_back(line.substr(0, line.find('\t')));
        return view;
    }
};

// What the checker says, a line for each finding; in a process of its own.
Lines Inspect(bool repair) {
    disk::Tell("");
    const int status = InChild([&] {
        std::string text;
        const auto report = [&](const standin::Finding& f) { text += f.kind + " " + f.where + ": " + f.text + "\n"; };
        try {
            standin::Check((work / "disk/store").string(), repair, report);
        } catch (const std::exception& problem) {
            text += "unchecked: "s + problem.what() + "\n";
        }
        disk::Tell(text);
    });
    Lines findings = Opened::ViewOf(disk::Told());
    if (status != 0) findings.push_back("checker ended with " + std::to_string(status));
    return findings;
}

// What a fault of the disk may leave: bytes without a version, besides the files of others.
void NeedOnlyOrphans(const std::string& where) {
    for (const std::string& finding : Inspect(false)) {
        const bool harmless = finding.rfind("orphan ", 0) == 0 || finding.find("is not the store's") != finding.npos;
        if (!harmless) Problem(where, "the checker finds " + finding);
    }
}

std::string Joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : " | ") + line;
    return text;
}

void Compare(const std::string& where, const std::set<Lines>& possible, const Opened& opened) {
    NeedOnlyOrphans(where);
    if (opened.status != 0) return Problem(where, "cannot be opened: " + std::to_string(opened.status));
    if (possible.count(opened.view) != 0) return;
    Problem(where, possible.empty() ? impossible
                                    : "holds " + Joined(opened.view) + "\n  instead of " + Joined(*possible.begin()));
}

fs::path NewDisk() {
    fs::remove_all(work / "disk");
    fs::create_directory(work / "disk");
    disk::Reset();
    return work / "disk/store";
}

std::string BytesOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// By calls that are recorded. All is flushed.
void Copy(const fs::path& from, const standin::Folder& to) {
    for (const auto& entry : fs::directory_iterator(from)) {
        const std::string name = entry.path().filename();
        if (entry.is_directory()) {
            to.Make(name);
            Copy(entry.path(), to.Sub(name));
        } else {
            const std::string bytes = BytesOf(entry.path());
            const standin::FileDescriptor file = to.Open(name, O_WRONLY | O_CREAT);
            file.Write(bytes.data(), bytes.size());
            file.Sync();
        }
    }
    to.Sync();
}

// A new disk with what the scenario finds there.
void NewDisk(const Scenario& scenario) {
    NewDisk();
    if (scenario.given == 0) return;
    Copy(work / scenario.name, standin::Folder((work / "disk").string()));
    for (std::size_t at = 0; at < scenario.given; ++at) {
        for (const char what : {'B', 'Y'}) disk::Note(what, static_cast<std::int64_t>(at));
    }
}

Scenario With(const char* name, const Steps& given, Steps steps) {
    steps.insert(steps.begin(), given.begin(), given.end());
    steps.insert(steps.end(), afterwards.begin(), afterwards.end());
    return {name, steps, given.size()};
}

// A store of version 1.0 whose process was killed is taken over.
Scenario Old() {
    const Steps given = {{{{'f', "A:"}}},
                         {{{'p', "A:a", "", small}}},
                         {{{'p', "A:b", "", large}}},
                         {{{'p', "A:a", "", small + 1}}},
                         {{{'p', "A:empty"}}}};
    const fs::path made = work / "made", store = work / "old/store";
    for (const char* folder : {"data/0", "incoming"}) fs::create_directories(made / folder);
    const std::string path = made / "catalogue.db";
    standin::Database(path, standin::Database::Mode::Create, false).Script(schema1);
    {
        standin::Database catalogue(path, standin::Database::Mode::Write, false);
        catalogue.Run("INSERT INTO filespace VALUES (1, 1, ?1, x'', x'', 0, 0)", given[0].ops[0].name);
        std::int64_t id = 0;
        for (const Step& step : given) {
            const Op& op = step.ops[0];
            if (op.what != 'p') continue;
            const std::string name = op.name.substr(2);
            const std::int64_t moment = 20210307090500 + ++id;
            const std::string bytes = Content(op.size, SeedOf(step, op));
            if (!bytes.empty()) std::ofstream(made / "data/0" / std::to_string(id), std::ios::binary) << bytes;
            catalogue.Run("UPDATE version SET ended = ?2 WHERE ll = ?1 AND ended IS NULL", name, moment);
            catalogue.Run(
                "INSERT INTO version VALUES (1, CAST('/d' AS BLOB), ?1, 1, ?2, ?3, NULL, CAST('STANDARD' AS BLOB),"
                " 1, x'', ?4, ?4, x'')",
                name, id, moment, static_cast<std::int64_t>(op.size));
        }
        catalogue.Run("INSERT INTO counter VALUES (?1)", id + 1);
        std::ofstream(made / "incoming/abcdef") << "left";
        fs::create_directories(store.parent_path());
        fs::copy(made, store, fs::copy_options::recursive);  // with its log
    }
    return With("old", given, {{{{'o'}}}, {{{'p', "A:a", "", large}}}, {{{'x', "A:b"}}}, {{{'c'}}}});
}

void FlipIn(const fs::path& path, long bit) {
    std::fstream stream(path, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekg(bit / 8);
    const int byte = stream.get();
    stream.seekp(bit / 8);
    stream.put(static_cast<char>(byte ^ 1 << bit % 8));
}

// A catalogue whose damage leaves every row readable is repaired, and leftovers are put aside.
Scenario Damaged(const char* name, bool killed) {
    Steps given = {{{{'o'}}},
                   {{{'f', "A:"}}},
                   {{{'p', "A:a", "", small}}},
                   {{{'p', "A:b", "", large}}},
                   {{{'p', "A:a", "", small + 1}}},
                   {{{'c'}}}};
    if (killed) given.insert(given.end(), {{{{'o'}}}, {{{'p', "A:c", "", small}}}, {{{'p', "A:c", "", large}}}});
    const fs::path store = NewDisk();
    InChild([&] { RunAll(given, 0, given.size()); });
    long page = 0;
    {
        standin::Database catalogue((store / "catalogue.db").string(), standin::Database::Mode::Read);
        page = catalogue.Number("SELECT rootpage FROM sqlite_master WHERE name = 'sqlite_autoindex_node_1'");
    }
    for (const long at : {1L, page}) FlipIn(store / "catalogue.db", at * 4096 * 8 - 1000);
    for (const char* left : {"data/0/999-0123456789abcdef", "incoming/0123456789abcdef"}) {
        std::ofstream(store / left) << "left";
    }
    fs::create_directories(work / name);
    fs::copy(store, work / name / "store", fs::copy_options::recursive);
    return With(name, given, {{{{'R'}}}, {{{'o'}}}, {{{'p', "A:a", "", large}}}, {{{'c'}}}});
}

std::vector<Scenario> All() {
    return {Used(), Old(), Damaged("damaged", false), Damaged("damaged, with a log", true)};
}

// After a fault in a repair, it is run again.
void FinishRepair(const Scenario& scenario, const std::string& where) {
    if (!scenario.Repairs()) return;
    for (const std::string& line : Inspect(true)) {
        if (line.rfind("unchecked", 0) == 0 || line.rfind("checker", 0) == 0) Problem(where, "repaired again: " + line);
    }
}

// -------------------------------------------------------------------- faults

struct Trouble {
    const char* name;
    unsigned kinds;
    int error;
};
constexpr Trouble troubles[] = {{"EIO", disk::Reading | disk::Changing | disk::Growing, EIO},
                                {"ENOSPC", disk::Growing, ENOSPC},
                                {"kill", disk::Changing | disk::Growing, disk::kill}};

// Runs the whole scenario with a fault in its nth call, then the one for afterwards. Checks what both leave, and that
// the files of others were not touched.
void Disturbed(const Scenario& scenario, const Trouble& trouble, long nth) {
    const std::string where = std::string(scenario.name) + ", " + trouble.name + " at call " + std::to_string(nth);
    const Steps& steps = scenario.steps;
    const std::size_t whole = scenario.Whole();
    NewDisk(scenario);
    disk::FailNth(nth, trouble.kinds, trouble.error);
    const int status = InChild([&] { RunAll(steps, scenario.given, whole); });
    disk::FailNth(0, 0, 0);
    disk::Note('K', 0);
    if (status != 0 && (trouble.error != disk::kill || status != disk::killed))
        Problem(where, "ended with " + std::to_string(status));
    const std::string living = disk::Told();
    FinishRepair(scenario, where);
    const Opened opened;
    Compare(where, Possible(steps, disk::Events()), opened);
    if (status == 0 && living.find('!') == living.npos && Opened::ViewOf(living) != opened.view) {
        Problem(where, "another view after it was closed; before: " + Joined(Opened::ViewOf(living)));
    }
    if (InChild([&] { RunAll(steps, whole, steps.size()); }) != 0) Problem(where, "later work fails");
    const std::vector<disk::Event> events = disk::Events();
    Compare(where + ", later", Possible(steps, events), Opened());
    const auto intruded = [&](const disk::Event& e) {
        return e.what == 'Y' && steps[static_cast<std::size_t>(e.at)].ops[0].what == 'u';
    };
    if (std::none_of(events.begin(), events.end(), intruded)) return;
    for (const char* name : strangers) {
        if (BytesOf(work / "disk/store" / name) != strange) Problem(where, name + " was touched"s);
    }
}

long CountCalls(const Scenario& scenario, unsigned kinds) {
    NewDisk(scenario);
    const long before = disk::Calls(kinds);
    if (InChild([&] { RunAll(scenario.steps, scenario.given, scenario.Whole()); }) != 0)
        Problem("undisturbed", "failed");
    return disk::Calls(kinds) - before;
}

void Faults(long every) {
    for (const Scenario& scenario : All()) {
        for (const Trouble& trouble : troubles) {
            const long calls = CountCalls(scenario, trouble.kinds);
            long tried = 0;
            for (long nth = 1 + Chance(every); nth <= calls; nth += every, ++tried) Disturbed(scenario, trouble, nth);
            std::cout << scenario.name << ": " << trouble.name << " at " << tried << " of " << calls << " calls"
                      << std::endl;
        }
    }
}

// ---------------------------------------------------------------- power cuts

// The content of a disk, as processes see it and as it was flushed. Flushing a folder makes its entries last; flushing
// a file, its bytes.
class Platter {
    struct Node;
    using NodePtr = std::shared_ptr<Node>;

public:
    enum Power { On, Off, OffAtRandom };  // the last: each change that was not flushed may have reached the disk

    void Apply(const disk::Event& e) {
        if (e.what == 'c') {
            const auto file = files_[e.inode] = std::make_shared<Node>();
            if (!e.path.empty()) Enter(e.path, file);
        } else if (e.what == 'm') {
            const auto folder = std::make_shared<Node>();
            folder->isFolder = true;
            Enter(e.path, folder);
        } else if (e.what == 'l') {
            Enter(e.path, files_[e.inode]);
        } else if (e.what == 'u') {
            Enter(e.path, nullptr);
        } else if (e.what == 'r') {
            const auto node = Find(e.path);
            Node& from = Parent(e.path);
            const bool together = &from == &Parent(e.bytes);
            Enter(e.path, nullptr);
            Enter(e.bytes, node);
            if (together) {  // one change, not two
                auto& changes = from.changes;
                changes[changes.size() - 2].push_back(changes.back()[0]);
                changes.pop_back();
            }
        } else if (e.what == 's') {
            const auto found = Find(e.path);
            Node& node = found && found->isFolder ? *found : *files_[e.inode];
            node.flushed = node.now;
            node.pending.clear();
            node.durable = node.entries;
            node.changes.clear();
        } else if (e.what == 'w' || e.what == 't') {
            Node& file = *files_[e.inode];
            file.pending.push_back(e);
            Change(file.now, e);
        }
    }

    void Build(const fs::path& path, Power power) const {
        std::map<NodePtr, fs::path> built;
        Build(*root_, path, power, built);
    }

private:
    using Entries = std::map<std::string, NodePtr>;
    struct Node {
        bool isFolder = false;
        std::string now, flushed;
        std::vector<disk::Event> pending;
        Entries entries, durable;
        std::vector<std::vector<std::pair<std::string, NodePtr>>> changes;
    };

    static void Change(std::string& bytes, const disk::Event& e) {
        const auto at = static_cast<std::size_t>(e.at);
        bytes.resize(e.what == 't' ? at : std::max(bytes.size(), at + e.bytes.size()));
        if (e.what == 'w') bytes.replace(at, e.bytes.size(), e.bytes);
    }
    static void Change(Entries& entries, const std::string& name, const NodePtr& node) {
        if (node) {
            entries[name] = node;
        } else {
            entries.erase(name);
        }
    }
    NodePtr Find(const fs::path& path) const {
        const fs::path below = path.lexically_relative(work / "disk");
        NodePtr node = root_;
        for (const auto& part : below) {
            if (part == ".") continue;
            const auto at = node->entries.find(part);
            if (at == node->entries.end()) return nullptr;
            node = at->second;
        }
        return node;
    }
    Node& Parent(const fs::path& path) const { return *Find(path.parent_path()); }
    void Enter(const fs::path& path, const NodePtr& node) const {
        Node& parent = Parent(path);
        Change(parent.entries, path.filename(), node);
        parent.changes.push_back({{path.filename(), node}});
    }

    static void Build(const Node& folder, const fs::path& path, Power power, std::map<NodePtr, fs::path>& built) {
        fs::create_directory(path);
        fs::permissions(path, fs::perms::owner_all);
        Entries entries = power == On ? folder.entries : folder.durable;
        for (const auto& change : folder.changes) {
            if (power != OffAtRandom || Chance(2) == 0) continue;
            for (const auto& [name, node] : change) Change(entries, name, node);
        }
        for (const auto& [name, node] : entries) {
            if (node->isFolder) {
                Build(*node, path / name, power, built);
                continue;
            }
            const auto [first, isNew] = built.emplace(node, path / name);
            if (!isNew) {
                fs::create_hard_link(first->second, path / name);
                continue;
            }
            std::string bytes = power == On ? node->now : node->flushed;
            for (disk::Event e : node->pending) {
                if (power != OffAtRandom || Chance(2) == 0) continue;
                if (Chance(4) == 0) e.bytes.resize(e.bytes.size() / 1024 * 512);  // torn
                Change(bytes, e);
            }
            std::ofstream(path / name, std::ios::binary) << bytes;
            fs::permissions(path / name, fs::perms::owner_read | fs::perms::owner_write);
        }
    }

    NodePtr root_ = [] {
        auto root = std::make_shared<Node>();
        root->isFolder = true;
        return root;
    }();
    std::map<std::uint64_t, NodePtr> files_;
};

// Cuts after each of the recorded changes from the given one on, or some of them.
long CutAll(const std::string& name, const Scenario& scenario, const std::vector<disk::Event>& events, std::size_t from,
            long every) {
    Platter platter;
    long cuts = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (!std::strchr("cmwtsrlu", events[i].what)) continue;
        platter.Apply(events[i]);
        if (i < from || Chance(every) != 0) continue;
        for (const auto power : {Platter::Off, Platter::OffAtRandom, Platter::OffAtRandom}) {
            NewDisk();
            fs::remove(work / "disk");
            platter.Build(work / "disk", power);
            const std::string where = scenario.name + ", "s + name + ", power off after event " + std::to_string(i) +
                                      " (" + events[i].what + " " + events[i].path +
                                      (power == Platter::Off ? "" : ", at random") + ")";
            FinishRepair(scenario, where);
            Compare(where, Possible(scenario.steps, events, i + 1), Opened());
            ++cuts;
        }
    }
    return cuts;
}

void CutsOf(const Scenario& scenario, long every) {
    const Steps& steps = scenario.steps;
    const std::size_t whole = scenario.Whole();
    NewDisk(scenario);
    const std::size_t laid = disk::Events().size();
    const long calls = CountCalls(scenario, disk::Changing | disk::Growing);
    const std::vector<disk::Event> events = disk::Events();

    // The record is complete if it makes the same folder.
    Platter platter;
    for (const auto& e : events) platter.Apply(e);
    fs::remove_all(work / "again");
    platter.Build(work / "again", Platter::On);
    const std::string same = "diff -r '" + (work / "disk").string() + "' '" + (work / "again").string() + "'";
    if (std::system(same.c_str()) != 0) Problem("record", "is not complete");

    std::cout << scenario.name << ": " << CutAll("undisturbed", scenario, events, laid, every) << " power cuts"
              << std::endl;
    long cuts = 0, kills = 0;
    for (long nth = 1 + Chance(10 * every); nth <= calls; nth += 10 * every, ++kills) {
        NewDisk(scenario);
        disk::FailNth(nth, disk::Changing | disk::Growing, disk::kill);
        InChild([&] { RunAll(steps, scenario.given, whole); });
        disk::FailNth(0, 0, 0);
        disk::Note('K', 0);
        const std::size_t from = disk::Events().size();
        FinishRepair(scenario, "kill at call " + std::to_string(nth));
        InChild([&] { RunAll(steps, whole, steps.size()); });
        cuts += CutAll("kill at call " + std::to_string(nth), scenario, disk::Events(), from, std::max(1L, every / 4));
    }
    std::cout << scenario.name << ": " << cuts << " power cuts after " << kills << " kills" << std::endl;
}

void Cuts(long every) {
    for (Scenario& scenario : All()) {
        // Nobody flushed the files of others.
        if (scenario.steps[1].ops[0].what == 'u') scenario.steps.erase(scenario.steps.begin() + 1);
        CutsOf(scenario, every);
    }
}

// --------------------------------------------------------------------- flips

// The outcome of a flipped bit, which may make the data of one version unreadable at most.
std::string Judge(const std::string& where, const Opened& expected, const Opened& found, bool data) {
    const auto wrong = [&](const std::string& what) {
        Problem(where, what);
        return "WRONG";
    };
    if (found.status < 0) return wrong("ended by signal " + std::to_string(-found.status));
    if (found.lines == expected.lines) return "harmless";
    if (found.status > 0) return data ? wrong("cannot be opened") : "refused";
    std::map<std::string, std::string> records;  // by what was found
    for (const std::string& line : expected.lines) records[line.substr(line.find('\t'))] = line;
    bool complete = true;
    std::size_t failed = 0;
    for (const std::string& line : found.lines) {
        if (line == "!list") {
            complete = false;
            continue;
        }
        const auto known = records.find(line.substr(line.find('\t')));
        const bool unread = line.find(" !") != line.npos;
        if (known == records.end() || (!unread && known->second != line)) return wrong("reports " + line);
        failed += unread;
        records.erase(known);
    }
    if (complete && !records.empty()) return wrong("leaves out " + records.begin()->second);
    if (data && (!complete || failed != 1)) return wrong(std::to_string(failed) + " versions cannot be read");
    return complete ? "noticed in versions" : "noticed in a listing";
}

std::size_t Readable(const Lines& lines) {
    return lines.size() -
           static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(),
                                                  [](const std::string& line) { return line.find('!') != line.npos; }));
}

void Flips(long count) {
    Steps steps = {{{{'o'}}}, {{{'f', "A:"}}}, {{{'f', "B:"}}}};
    for (int i = 0; i < 120; ++i) {
        const std::string name = (i % 3 ? "A:n" : "B:n") + std::to_string(i % 70);
        steps.push_back({{{'p', name, "", static_cast<std::size_t>(i % 12 ? 300 + 40 * i : 100000 + i)}}});
        if (i % 10 == 9) steps.push_back({{{i % 20 == 9 ? 'a' : 'x', name}}});
    }
    for (const bool closed : {true, false}) {
        const fs::path store = NewDisk();
        if (closed) steps.push_back({{{'c'}}});
        InChild([&] { RunAll(steps, 0, steps.size()); });
        if (closed) steps.pop_back();
        const fs::path sound = work / "sound";
        fs::remove_all(sound);
        fs::copy(store, sound, fs::copy_options::recursive);
        const Opened expected;
        // The contents after each step, in case the end of the log is lost.
        disk::Reset();
        std::set<std::string> everTrue;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            const Lines view = *Possible(steps, disk::Events()).begin();
            everTrue.insert(view.begin(), view.end());
            for (const char what : {'B', 'Y'}) disk::Note(what, static_cast<std::int64_t>(i));
        }
        everTrue.insert(expected.view.begin(), expected.view.end());
        for (const bool data : {false, true}) {
            std::vector<fs::path> files;
            std::vector<double> sizes;
            for (const auto& entry : fs::recursive_directory_iterator(sound)) {
                const fs::path path = entry.path().lexically_relative(sound);
                const bool isData = *path.begin() == "data";
                const std::string name = path.string();
                if (!entry.is_regular_file() || isData != data) continue;
                if (!data && name != "catalogue.db" && name != "catalogue.db-wal" && name != "mark") continue;
                files.push_back(path);
                sizes.push_back(static_cast<double>(entry.file_size()));
            }
            std::discrete_distribution<std::size_t> choose(sizes.begin(), sizes.end());
            std::map<std::string, long> tally;
            for (long i = 0; i < count / 2; ++i) {
                const fs::path file = files[choose(chance)];
                fs::remove_all(store);
                fs::copy(sound, store, fs::copy_options::recursive);
                const long bits = static_cast<long>(fs::file_size(sound / file)) * 8;
                const long bit = i == 0 ? bits - 2000 : Chance(bits);  // first the last page, that of the last commit
                FlipIn(store / file, bit);
                const std::string where = file.string() + ", bit " + std::to_string(bit);
                disk::Reset();
                const Lines findings = Inspect(false);
                const Opened damaged;
                const std::string judged = Judge(where, expected, damaged, data);
                ++tally[judged];
                if (judged == "harmless" || judged == "WRONG") continue;
                if (findings.empty()) Problem(where, "the checker finds nothing, and it was " + judged);
                const Lines repair = Inspect(true);
                for (const std::string& line : repair) {
                    if (line.rfind("unchecked", 0) == 0) Problem(where, "the repair breaks off, " + line);
                }
                const Opened repaired;
                for (const std::string& line : damaged.view) {
                    const bool kept = std::count(repaired.view.begin(), repaired.view.end(), line) != 0;
                    if (!kept && line.find('!') == line.npos) Problem(where, "the repair loses " + line);
                }
                const auto isTrue = [&](const std::string& line) {
                    return line.find('!') != line.npos || everTrue.count(line) != 0;
                };
                if (repaired.status != 1 && !std::all_of(repaired.view.begin(), repaired.view.end(), isTrue))
                    Problem(where, "repaired, it holds " + Joined(repaired.lines));
                const std::size_t lost = expected.lines.size() - Readable(repaired.lines);
                ++tally[repaired.status == 1 ? "not to be repaired" : lost > 1 ? "repaired with losses" : "repaired"];
            }
            std::cout << (closed ? "closed" : "killed") << " store, " << count / 2 << " bits of the "
                      << (data ? "data:" : "catalogue:");
            for (const auto& [what, n] : tally) std::cout << " " << n << " " << what;
            std::cout << std::endl;
        }
    }
}

}  // namespace

int main(int count, char** arguments) {
    const std::string command = count > 1 ? arguments[1] : "";
    const long number = count > 2 ? std::atol(arguments[2]) : 1;
    const char* const given = std::getenv("DISK_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::atol(given)) : std::random_device()();
    chance.seed(seed);
    std::cout << "seed " << seed << std::endl;

    const bool memory = access("/dev/shm", W_OK) == 0;
    std::string pattern = (memory ? fs::path("/dev/shm") : fs::temp_directory_path()) / "disk-XXXXXX";
    work = fs::canonical(mkdtemp(pattern.data()));
    std::ofstream(work / "dsm.opt") << "STOREDIR disk/store\n";
    disk::Watch(work / "disk");
    const std::map<std::string, void (*)(long)> commands = {{"faults", Faults}, {"cuts", Cuts}, {"flips", Flips}};
    const auto* const one = std::find_if(std::begin(troubles), std::end(troubles),
                                         [&](const Trouble& trouble) { return command == trouble.name; });
    if ((commands.count(command) == 0 && one == std::end(troubles)) || number < 1) {
        std::cerr << "usage: disk_trouble faults|cuts|flips|EIO|ENOSPC|kill NUMBER [SCENARIO]\n";
        return 2;
    }
    if (one == std::end(troubles)) {
        commands.at(command)(number);
    } else {
        for (const Scenario& scenario : All()) {
            if (scenario.name == std::string(count > 3 ? arguments[3] : "used")) Disturbed(scenario, *one, number);
        }
        std::cout << std::ifstream(work / "dsierror.log").rdbuf();
    }
    fs::remove_all(work);
    std::cout << problems << " problems" << std::endl;
    return problems > 0;
}
