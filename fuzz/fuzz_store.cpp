// Whole operations against the stand-in. Ordinary names are predicted exactly by a model; with others, and with
// failures of the API, only what always holds is checked.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "api/tsmconnector.h"
#include "fuzz/Input.h"
#include "fuzz/Model.h"
#include "standin/testcontrol.h"
#include "util/DsmApi.h"

namespace fuzz {
namespace {

struct Session {
    char delimiter[3];
    int handle;
};
// The last one is for inputs that are not predicted.
Session sessions[] = {{"/", 0}, {"/", 0}, {"\\", 0}, {"::", 0}};

std::string store;

char* Text(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

std::string DateText(int moment) {
    char text[32];
    std::snprintf(text, sizeof text, "2021-3-7 9:%d:%d", moment / 60, moment % 60);
    return text;
}

// Reads the open object to its end; null when a piece failed.
std::optional<std::string> ReadAll(int handle, int size) {
    std::string data;
    std::vector<unsigned char> room(static_cast<std::size_t>(std::max(size, 32768)));
    unsigned char* place = room.data();
    int got;
    while ((got = TsmGetData(handle, &place, size)) > 0) data.append(room.begin(), room.begin() + got);
    if (got < 0) return std::nullopt;
    return data;
}

// Calls whose outcomes are known beforehand.
class Predicted {
public:
    explicit Predicted(Input& bytes) : input_(bytes) {
        for (std::size_t i = 0; i < 3; ++i) Connect(i, "f");
    }

    void Run() {
        for (int calls = 0; calls < 12 && !input_.Empty(); ++calls) {
            ++now_;
            standinSetClock(("2021-03-07 " + DateText(now_).substr(9)).c_str());
            at_ = input_.Below(3);
            handle_ = sessions[at_].handle;
            Call();
            CheckInventory();
        }
        for (at_ = 0; at_ < 3; at_ += 2) {
            handle_ = sessions[at_].handle;
            if (known_.count(place_[at_]) == 0) continue;
            for (const Model::Match& match : Here().Find("*", "*", DSM_OBJ_FILE, true, 0)) {
                Restore(std::get<0>(match.key), std::get<1>(match.key).substr(1), 0, 0);
            }
        }
        for (const auto& entry : known_) {
            const std::size_t by = entry.first[0] == '/' ? 0 : 2;
            REQUIRE(TsmDeleteFileSpace(sessions[by].handle, Text(entry.first.substr(1))) == 0);
        }
    }

private:
    Model& Here() { return known_.at(place_[at_]); }
    bool Registered() const { return known_.count(place_[at_]) != 0; }
    // Finds nothing in a filespace that is not registered.
    std::vector<Model::Match> Found(const std::string& hl, const std::string& ll, int type, bool active, int moment) {
        if (!Registered()) return {};
        return Here().Find(hl, ll, type, active, moment);
    }
    std::string HighLevel(const std::string& path) const { return Model(*sessions[at_].delimiter).HighLevel(path); }
    std::string LowLevel(const char* name) const { return Model(*sessions[at_].delimiter).LowLevel(name); }

    std::string Path() {
        static constexpr const char* usual[] = {"", "/", "a", "/a", "a/", "a/b", "a\\b", "/a/b/c/", "b", "a/x"};
        const std::uint8_t choice = input_.Byte();
        return choice < 240 ? usual[choice % std::size(usual)] : Name() + "/" + Name();
    }
    std::string Name() {
        static constexpr const char* usual[] = {"x", "x", "y", "a", "b", "c", "xy"};
        const std::uint8_t choice = input_.Byte();
        if (choice < 224) return usual[choice % std::size(usual)];
        std::string name = "n";
        for (const char c : input_.Bytes(6)) {
            const bool plain = c != '\0' && !std::strchr("/\\*?", c);
            name += plain ? c : '_';
        }
        return name;
    }
    std::string Pattern() {
        static constexpr const char* usual[] = {"*", "x*", "?", "*y", "??"};
        const std::uint8_t choice = input_.Byte();
        return choice < 128 ? usual[choice % std::size(usual)] : Name();
    }
    std::string Where() { return input_.Byte() < 64 ? "*" : Path(); }
    // 0: none.
    int Moment() {
        return input_.Byte() < 128 ? 0 : static_cast<int>(input_.Below(static_cast<std::size_t>(now_ + 2)));
    }

    void Connect(std::size_t by, const std::string& name) {
        place_[by] = sessions[by].delimiter + name;
        REQUIRE(TsmConnectToFileSpace(sessions[by].handle, Text(name)) == 0);
        known_.try_emplace(place_[by], *sessions[by].delimiter);
    }

    void Call() {
        switch (input_.Below(16)) {
            case 0: {
                const std::string hl = Where(), name = Pattern();
                List(hl, name, input_.Below(3) == 1, static_cast<int>(input_.Below(3)));
                break;
            }
            case 1: {
                const std::string path = Where(), name = Pattern();
                const int type = static_cast<int>(input_.Below(3)), moment = Moment();
                TsmObject* objects = nullptr;
                const int count = TsmGetBackupInfoPointInTime(
                    handle_, Text(path), Text(name), moment == 0 ? nullptr : Text(DateText(moment)), type, &objects);
                Compare(objects, count,
                        Found(HighLevel(path), LowLevel(name.c_str()), Type(type), moment == 0, moment));
                break;
            }
            case 2:
            case 3: {
                const std::string path = Path(), name = Name();
                Restore(path, name, Moment(), static_cast<int>(input_.Word()));
                break;
            }
            case 4:
            case 5:
            case 6:
                Delete();
                break;
            case 7:
            case 8: {
                const std::string from = Path(), name = Name(), to = Path(), newName = Name();
                const int result = TsmRenameBackup(handle_, from.c_str(), name.c_str(), to.c_str(), newName.c_str());
                const bool moved = Registered() && Here().Rename({HighLevel(from), LowLevel(name.c_str()), 0},
                                                                 {HighLevel(to), LowLevel(newName.c_str()), 0}, now_);
                REQUIRE(result == (moved ? 0 : -DSM_RC_ABORT_NO_MATCH));
                break;
            }
            case 9:
                FileSpaces();
                break;
            default:
                Backup();
        }
    }

    static int Type(int kind) { return kind == 0 ? DSM_OBJ_ANY_TYPE : kind == 1 ? DSM_OBJ_DIRECTORY : DSM_OBJ_FILE; }

    void FileSpaces() {
        switch (input_.Below(4)) {
            case 0:
                Connect(at_, input_.Byte() & 1 ? "f" : "g");
                break;
            case 1: {
                const std::string name = input_.Byte() & 1 ? "f" : "g";
                const bool gone = known_.erase(sessions[at_].delimiter + name) == 1;
                REQUIRE(TsmDeleteFileSpace(handle_, Text(name)) == (gone ? 0 : -DSM_RC_FS_NOT_REGISTERED));
                break;
            }
            case 2:
                REQUIRE(TsmSetAccess(handle_, Text("other"), Text(place_[at_]), nullptr) ==
                        (Registered() ? 0 : -DSM_RC_FS_NOT_REGISTERED));
                break;
            default: {
                char** list = nullptr;
                const int count = TsmGetFileSpaces(handle_, &list);
                REQUIRE(count == (known_.empty() ? -DSM_RC_ABORT_NO_MATCH : static_cast<int>(known_.size())));
                for (const auto& entry : known_) REQUIRE(entry.first.substr(1) == *list++);
                TsmEndGetFileSpaces(handle_);
            }
        }
    }

    void Backup() {
        static constexpr std::uint16_t lengths[] = {0, 1, 3, 200, 32767, 32768, 32769, 65535};
        const std::string path = Path(), name = Name(), info = input_.Bytes(40);
        const std::string data = input_.Repeated(input_.OneOf(lengths));
        const long long sizes[] = {static_cast<long long>(data.size()), 1, 0, -5, 1'000'000'000'000};
        const long long size = sizes[input_.Below(5)];
        const std::string shortInfo = info.c_str();
        if (TsmBeginBackupEx(handle_, Text(path), Text(name), size, Text(info), nullptr) != 0) {
            REQUIRE(!Registered());
            TsmEndBackup(handle_);
            return;
        }
        REQUIRE(Registered());
        Here().MakeDirectories(HighLevel(path), now_);
        const std::size_t piece = input_.Byte() < 128 ? data.size() : data.size() / 3 + 1;
        standinTakeAtMost(input_.Byte() < 192 ? 0 : static_cast<dsUint32_t>(data.size() / 4 + 1));
        for (std::size_t sent = 0; sent < data.size(); sent += piece) {
            const std::size_t length = std::min(piece, data.size() - sent);
            std::vector<unsigned char> bytes(data.begin() + static_cast<std::ptrdiff_t>(sent),
                                             data.begin() + static_cast<std::ptrdiff_t>(sent + length));
            const int result = TsmSendData(handle_, bytes.data(), static_cast<int>(length));
            REQUIRE(result == (size == 0 ? -DSM_RC_WRONG_SIZE_ESTIMATE : 0));
        }
        standinTakeAtMost(0);
        if (place_[0] == place_[1] && at_ < 2) {  // what the neighbour sees before the commit
            handle_ = sessions[1 - at_].handle;
            CheckInventory();
            handle_ = sessions[at_].handle;
        }
        REQUIRE(TsmEndBackup(handle_) == 0);
        const int type = size == 0 ? DSM_OBJ_DIRECTORY : DSM_OBJ_FILE;
        Here().Store({HighLevel(path), LowLevel(name.c_str()), type},
                     {0, now_, 0, size, size == 0 ? "" : data, shortInfo});
    }

    void Restore(const std::string& path, const std::string& name, int moment, int piece) {
        const long long size =
            TsmBeginRestore(handle_, Text(path), Text(name), moment == 0 ? nullptr : Text(DateText(moment)));
        const auto found = Found(HighLevel(path), LowLevel(name.c_str()), DSM_OBJ_FILE, moment == 0, moment);
        REQUIRE(size == (found.empty() ? -DSM_RC_ABORT_NO_MATCH : found.back().version->size));
        if (!found.empty()) REQUIRE(ReadAll(handle_, piece) == found.back().version->data);
        REQUIRE(TsmEndRestore(handle_) == (found.empty() ? -DSM_RC_BAD_CALL_SEQUENCE : 0));
    }

    void Delete() {
        const std::string path = Where(), name = Pattern();
        const bool all = input_.Below(3) == 1, everyName = input_.Byte() < 32;
        const int moment = input_.Byte() < 192 ? 0 : Moment();
        const int result = TsmDelete(handle_, Text(path), everyName ? nullptr : Text(name), all ? 1 : 2,
                                     moment == 0 ? nullptr : Text(DateText(moment)));
        REQUIRE(result == 0);
        if (!Registered()) return;
        Here().Delete(HighLevel(path), LowLevel(everyName ? nullptr : name.c_str()), all, moment, now_);
    }

    void CheckInventory() {
        for (const bool active : {false, true}) List("*", "*", active, 0);
    }

    void List(const std::string& path, const std::string& name, bool active, int type) {
        TsmObject* objects = nullptr;
        const int count = TsmGetBackupInfo(handle_, Text(path), Text(name), active ? 1 : 2, type, &objects);
        Compare(objects, count, Found(HighLevel(path), LowLevel(name.c_str()), Type(type), active, 0));
    }

    void Compare(const TsmObject* object, int count, const std::vector<Model::Match>& expected) {
        REQUIRE(count == static_cast<int>(expected.size()));
        for (const auto& [key, version] : expected) {
            REQUIRE(std::get<0>(key) == object->highLevelName && std::get<1>(key) == object->lowLevelName);
            REQUIRE(object->isFile == (std::get<2>(key) == DSM_OBJ_FILE ? 1 : 0));
            REQUIRE(object->size == version->size && version->info == object->objectInfo);
            REQUIRE(DateText(version->stored) == object->backupDate && place_[at_].substr(1) == object->fileSpace);
            ++object;
        }
    }

    Input& input_;
    std::map<std::string, Model> known_;  // filespaces
    std::string place_[3];                // the filespace of each session
    std::size_t at_ = 0;                  // the session of the call
    int handle_ = 0;
    int now_ = 0;
};

// Any texts, any order, and an API that fails now and then: the session is good for further work afterwards.
void RunAnything(Input& input) {
    static constexpr const char* calls[] = {"*",           "dsmEndTxn",      "dsmSendObj",
                                            "dsmSendData", "dsmGetNextQObj", "dsmGetData"};
    static constexpr dsInt16_t codes[] = {DSM_RC_WILL_ABORT, DSM_RC_CHECK_REASON_CODE, DSM_RC_FINISHED, 0, -50};
    const Session& session = sessions[input.Below(4)];
    const int handle = session.handle;
    Texts texts;
    const auto text = [&] { return texts.Any(input); };
    REQUIRE(TsmConnectToFileSpace(handle, Text("f")) == 0);
    standinSetClock("2021-03-07 09:05:00");
    TsmObject* objects = nullptr;
    const auto list = [&](int count) {
        for (int i = 0; i < count; ++i) REQUIRE(std::strlen(objects[i].lowLevelName) < sizeof objects[i].lowLevelName);
    };
    for (int i = 0; i < 12 && !input.Empty(); ++i) {
        const std::uint8_t choice = input.Byte();
        if (choice >= 192) {
            standinFail(input.OneOf(calls), static_cast<unsigned>(input.Below(20) + 1), input.OneOf(codes),
                        static_cast<dsUint16_t>(input.Below(3) * 53));
        }
        switch (choice % 8) {
            case 0:
                list(TsmGetBackupInfo(handle, text(), text(), input.Byte() & 1, static_cast<int>(input.Below(3)),
                                      &objects));
                break;
            case 1:
                list(TsmGetBackupInfoPointInTime(handle, text(), text(), text(), 0, &objects));
                break;
            case 2:
                if (TsmBeginRestore(handle, text(), text(), text()) >= 0) ReadAll(handle, 1);
                if (choice & 8) TsmEndRestore(handle);
                break;
            case 3:
                REQUIRE(TsmDelete(handle, text(), text(), input.Byte() & 1, text()) <= 0);
                break;
            case 4:
                REQUIRE(TsmRenameBackup(handle, text(), text(), text(), text()) <= 0);
                break;
            default: {
                std::string data = input.Repeated(input.Byte());
                REQUIRE(TsmBeginBackupEx(handle, text(), text(), input.Byte(), text(), text()) <= 0);
                REQUIRE(TsmSendData(handle, reinterpret_cast<unsigned char*>(&data[0]),
                                    static_cast<int>(data.size())) <= 0);
                if (choice & 8) REQUIRE(TsmEndBackup(handle) <= 0);
            }
        }
    }
    standinReset();
    TsmEndBackup(handle);
    TsmEndRestore(handle);
    REQUIRE(TsmGetBackupInfo(handle, Text("*"), Text("*"), 0, 0, &objects) >= 0);
    REQUIRE(TsmDeleteFileSpace(handle, Text("f")) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char folder[] = "/dev/shm/fuzz_store-XXXXXX";
    REQUIRE(mkdtemp(folder) != nullptr);
    store = folder;
    std::ofstream(store + "/dsm.opt") << "STOREDIR store\n";
    std::atexit([] { std::filesystem::remove_all(store); });
    REQUIRE(TsmInitApi(Text(store + "/dsm.opt"), nullptr, nullptr, nullptr) == 0);
    for (Session& session : sessions) {
        session.handle = TsmOpenSession(Text("N"), nullptr, Text("p"), nullptr, nullptr, nullptr, session.delimiter);
        REQUIRE(session.handle > 0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    if (input.Byte() >= 192) {
        RunAnything(input);
    } else {
        Predicted(input).Run();
    }
    return 0;
}

}  // namespace fuzz
