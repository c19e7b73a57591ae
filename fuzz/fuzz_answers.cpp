// Any call of the library, in any order and with any arguments, over an API that answers anything.
#include <map>

#include "api/tsmconnector.h"
#include "fuzz/ApiFake.h"
#include "fuzz/Input.h"

namespace fuzz {
namespace {

template <std::size_t Size>
void CheckField(const char (&field)[Size]) {
    const std::size_t length = strnlen(field, Size);
    REQUIRE(length < Size);
    for (std::size_t i = length; i < Size; ++i) REQUIRE(field[i] == 0);
}

// What a session handed out and has not yet taken back.
struct Held {
    char** spaces = nullptr;
    int spaceCount = 0;
    char** classes = nullptr;
    int classCount = 0;
    TsmObject* objects = nullptr;
    int objectCount = 0;

    void Read() const {
        for (int i = 0; i < spaceCount; ++i) REQUIRE(std::strlen(spaces[i]) <= DSM_MAX_FSNAME_LENGTH);
        for (int i = 0; i < classCount; ++i) REQUIRE(std::strlen(classes[i]) <= DSM_MAX_MC_NAME_LENGTH + 1);
        for (int i = 0; i < objectCount; ++i) CheckField(objects[i].lowLevelName);
    }
};

class Host {
public:
    explicit Host(Input& bytes) : input_(bytes), api_(bytes) {}
    ~Host() {
        Release();
        REQUIRE(tsmApi == nullptr && TsmReleaseApi() == -DSM_RC_INVALID_DS_HANDLE);
    }

    void Run() {
        if (input_.Byte() < 240) {
            Start();
            Open();
            Result(TsmConnectToFileSpace(1, texts_.Keep("fs")));
        }
        for (int calls = 0; calls < 24 && !input_.Empty(); ++calls) {
            api_.Begin();
            Call();
            for (const auto& entry : held_) entry.second.Read();
        }
    }

private:
    char* Text() { return texts_.Any(input_); }
    int Flag() { return static_cast<int>(input_.Below(3)); }

    // A failure is the API's answer in this call, or one of the library's own codes.
    void Failure(long long result) {
        static constexpr int own[] = {DSM_RC_ABORT_SYSTEM_ERROR, DSM_RC_ABORT_NO_MATCH,    DSM_RC_INVALID_PARM,
                                      DSM_RC_NULL_OBJNAME,       DSM_RC_NULL_BUFPTR,       DSM_RC_INVALID_DS_HANDLE,
                                      DSM_RC_BAD_CALL_SEQUENCE,  DSM_RC_FS_NOT_REGISTERED, DSM_RC_STRING_TOO_LONG};
        REQUIRE(api_.Gave(result) || std::find(std::begin(own), std::end(own), -result) != std::end(own));
    }
    int Result(int result) {
        REQUIRE(result <= 0);
        if (result < 0) Failure(result);
        return result;
    }

    void Start() {
        const bool running = tsmApi && started_;
        const int result = TsmInitApi(Text(), Text(), Text(), Text());
        if (running) {
            REQUIRE(result == -DSM_RC_BAD_CALL_SEQUENCE);
            return;
        }
        held_.clear();
        started_ = result == 0;
        if (result != 0) Failure(-std::abs(result));
    }
    void Release() {
        held_.clear();
        started_ = false;
        if (const int result = TsmReleaseApi()) Failure(-std::abs(result));
    }
    void Open() {
        static constexpr const char* delimiters[] = {"/", "/", "\\", "", ":", "::", "/\\", "ab", "/a/"};
        char* const delimiter = input_.Byte() < 240 ? texts_.Keep(input_.OneOf(delimiters)) : Text();
        const int handle = TsmOpenSession(Text(), Text(), Text(), Text(), Text(), Text(), delimiter);
        if (handle > 0) held_[handle] = Held();  // replaces a session that was open under the same handle
    }

    void Call() {
        static constexpr int handles[] = {1, 1, 1, 2, 3, 0x7FFFFFFF, 0, -1};
        const std::uint8_t choice = input_.Byte();
        const int handle = choice < 224 ? 1 : input_.OneOf(handles);
        const auto found = held_.find(handle);
        Held none;
        Held& mine = found == held_.end() ? none : found->second;
        switch (choice % 28) {
            case 0:
                if (input_.Byte() < 32) Release();
                break;
            case 1:
                Start();
                break;
            case 2:
                Open();
                break;
            case 3:
                if (const int result = TsmCloseSession(handle)) Failure(-std::abs(result));
                held_.erase(handle);
                break;
            case 4:
                Result(TsmConnectToFileSpace(handle, Text()));
                break;
            case 5:
            case 6:
                Names(TsmGetFileSpaces, handle, mine.spaces, mine.spaceCount);
                break;
            case 7:
                REQUIRE(TsmEndGetFileSpaces(handle) == (found == held_.end() ? -DSM_RC_INVALID_DS_HANDLE : 0));
                mine.spaceCount = 0;
                break;
            case 8:
                Result(TsmDeleteFileSpace(handle, Text()));
                break;
            case 9:
                Names(TsmGetMgmtClasses, handle, mine.classes, mine.classCount);
                break;
            case 10:
                TsmEndGetMgmtClasses(handle);
                mine.classCount = 0;
                break;
            case 11:
            case 12:
                mine.objectCount = 0;
                Result(
                    TsmBeginBackupEx(handle, Text(), Text(), static_cast<std::int16_t>(input_.Word()), Text(), Text()));
                break;
            case 13:
                mine.objectCount = 0;
                Result(TsmBeginBackup(handle, Text(), Text(), input_.Word()));
                break;
            case 14:
            case 15:
                Send(handle);
                break;
            case 16: {
                const int result = Result(TsmEndBackup(handle));
                if (result == 0) REQUIRE(api_.commitRc == 0 && api_.commitReason == 0);
                break;
            }
            case 17:
            case 18:
                List(handle, mine, [&](TsmObject** objects) {
                    return TsmGetBackupInfo(handle, Text(), Text(), Flag(), Flag(), objects);
                });
                break;
            case 19:
                List(handle, mine, [&](TsmObject** objects) {
                    return TsmGetBackupInfoPointInTime(handle, Text(), Text(), Text(), Flag(), objects);
                });
                break;
            case 20:
                mine.objectCount = 0;
                (input_.Byte() & 1 ? TsmEndGetBackupInfo : TsmEndGetBackupInfoPointInTime)(handle);
                break;
            case 21:
            case 22: {
                const long long size = TsmBeginRestore(handle, Text(), Text(), Text());
                const auto announced = [&](const ApiFake::Given& one) { return one.size == size; };
                if (std::none_of(api_.given.begin(), api_.given.end(), announced)) {
                    REQUIRE(size < 0);
                    Failure(size);
                }
                break;
            }
            case 23:
                Get(handle);
                break;
            case 24:
                Result(TsmEndRestore(handle));
                break;
            case 25:
                mine.objectCount = 0;
                Result(TsmDelete(handle, Text(), Text(), Flag(), Text()));
                break;
            case 26:
                mine.objectCount = 0;
                Result(TsmRenameBackup(handle, Text(), Text(), Text(), Text()));
                break;
            default:
                Result(TsmSetAccess(handle, Text(), Text(), nullptr));
        }
    }

    void Names(int (*get)(int, char***), int handle, char**& list, int& count) {
        count = 0;
        char** names = nullptr;
        const int result = get(handle, input_.Byte() < 248 ? &names : nullptr);
        if (result < 0) return Failure(result);
        REQUIRE((result == 0) == (names == nullptr));
        list = names;
        count = result;
    }

    template <class Get>
    void List(int handle, Held& mine, Get get) {
        TsmObject* objects = nullptr;
        const int result = get(input_.Byte() < 248 ? &objects : nullptr);
        if (result < 0) return Failure(result);
        REQUIRE((result == 0) == (objects == nullptr) && static_cast<std::size_t>(result) == api_.given.size());
        if (result == 0 || held_.count(handle) == 0) return;
        mine.objects = objects;
        mine.objectCount = result;
        for (int i = 0; i < result; ++i) {
            const TsmObject& object = objects[i];
            const ApiFake::Given& given = api_.given[static_cast<std::size_t>(i)];
            REQUIRE(object.size == given.size && object.isFile == (given.type == DSM_OBJ_DIRECTORY ? 0 : 1));
            CheckField(object.highLevelName);
            CheckField(object.backupDate);
            CheckField(object.objectInfo);
            CheckField(object.fileSpace);
        }
    }

    void Send(int handle) {
        static constexpr int lengths[] = {0, 1, 2, 100, 300, 33000, -1, INT32_MIN};
        const int length = input_.OneOf(lengths);
        const std::string bytes = input_.Repeated(static_cast<std::size_t>(std::max(length, 0)));
        std::unique_ptr<unsigned char[]> buffer(input_.Byte() < 248 ? new unsigned char[bytes.size()] : nullptr);
        if (buffer) std::memcpy(buffer.get(), bytes.data(), bytes.size());
        api_.sent = buffer.get();
        api_.toCome = bytes.size();
        const int result = Result(TsmSendData(handle, buffer.get(), length));
        if (result == 0) REQUIRE(api_.toCome == 0 || (api_.gaveUp && api_.commitRc == 0 && api_.commitReason == 0));
    }

    void Get(int handle) {
        static constexpr int sizes[] = {0, 1, 32767, 32768, 32769, 70000, -1, INT32_MIN};
        const int size = input_.OneOf(sizes);
        const int room = std::max(size, 32768);
        const std::unique_ptr<unsigned char[]> memory(new unsigned char[static_cast<std::size_t>(room)]);
        unsigned char* place = input_.Byte() < 248 ? memory.get() : nullptr;
        unsigned char* const before = place;
        const int result = TsmGetData(handle, input_.Byte() < 248 ? &place : nullptr, size);
        REQUIRE(result <= room && place == before);
        if (result < 0) Failure(result);
    }

    Input& input_;
    ApiFake api_;
    Texts texts_;
    std::map<int, Held> held_;
    bool started_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    Host(input).Run();
    return 0;
}

}  // namespace fuzz
