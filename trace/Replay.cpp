// Makes recorded calls again. The visitor of calls.def fills in the arguments from a line.
#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <memory>

#include "Commands.h"
#include "Recording.h"
#include "Records.h"

namespace trace {
namespace {

template <class T, class = void>
constexpr bool hasVersion = false;
template <class T>
constexpr bool hasVersion<T, std::void_t<decltype(T::stVersion)>> = true;

// What is kept from call to call: the new handle and the new identifier for each of the recording.
struct World {
    std::string options, password;
    bool setUp = false;
    std::map<std::pair<long long, long long>, dsUint32_t> handles = {};
    std::map<std::uint64_t, std::uint64_t> ids = {};
};

std::uint64_t Whole(const dsStruct64_t& number) {
    return (std::uint64_t{number.hi} << 32) | number.lo;
}

class Filler {
public:
    Filler(World& world, const Json& line) : world_(world), line_(line), at_(&line) {}

    void Called(long long code) {
        answered_ = true;
        const Json& call = line_.at("call");
        if (call == "dsmSetUp" && code == 0) world_.setUp = true;
        if (call == "dsmCleanUp") world_.setUp = false;
        // The calls of a session that was not opened get handle 0, so that they cannot reach another session.
        if (call == "dsmInitEx" && HandleOf(line_) != 0)
            world_.handles[{line_.at("pid").get<long long>(), HandleOf(line_)}] = code == 0 ? newHandle_ : 0;
    }

    template <class T>
    void In(const char* key, T& value) {
        if (!answered_) (*this)(key, value);
    }
    template <class T>
    void Out(const char* key, T*& record) {
        if (!answered_ && !Get(key).is_null()) record = New<T>();
    }
    void Handle(dsUint32_t& handle) {
        if (answered_) return;
        const auto found = world_.handles.find({line_.at("pid").get<long long>(), Integer("h")});
        handle = found != world_.handles.end() ? found->second : static_cast<dsUint32_t>(Integer("h"));
    }
    void NewHandle(dsUint32_t*& handle) {
        handle = line_.contains("h") && line_.at("h").is_null() ? nullptr : &newHandle_;
    }
    void Query(dsUint32_t, dsmQueryType type, dsmQueryBuff*& query) { DescribeQuery(*this, type, query); }
    void Found(dsUint32_t, DataBlk*& block) {
        Data(block);
        if (!answered_ || !line_.contains("found") || !line_.at("found").contains("id")) return;
        const auto* const response = reinterpret_cast<const qryRespBackupData*>(block->bufferPtr);
        if (block->bufferLen >= sizeof *response) {
            world_.ids[line_.at("found").at("id").get<std::uint64_t>()] = Whole(response->objId);
        }
    }
    void Deletion(dsmDelType type, dsmDelInfo& info) { DescribeDeletion(*this, type, info); }
    void Data(DataBlk*& block) { In("data", block); }
    void Message(const char* key, char*& text) {
        if (!answered_) text = line_.contains(key) && line_[key].is_null() ? nullptr : Room(DSM_MAX_RC_MSG_LENGTH + 1);
    }

    // A wrong password stays wrong.
    void Secret(const char* key, char*& text) {
        if (!Get(key).is_boolean() || !Get(key).get<bool>() || std::strcmp(key, "password") != 0) return;
        text = Copy(world_.password + (line_.at("rc") == DSM_RC_AUTH_FAILURE ? "?" : ""));
    }
    template <class Pointer, class Length>
    void Blank(const char* key, Pointer& bytes, Length& length) {
        const long long number = Integer(key);
        length = static_cast<Length>(std::abs(number));
        const bool none = number < 0 || (number == 0 && std::strcmp(key, "info") == 0);
        bytes = none ? nullptr : Room(static_cast<std::size_t>(number));
    }
    void Ids(const char* key, ObjID*& ids, dsUint32_t& count) {
        const Json& all = Get(key);
        count = static_cast<dsUint32_t>(all.is_array() ? all.size() : 1);
        if (all.is_null()) return;
        ids = NewArray<ObjID>(count);
        for (dsUint32_t i = 0; i < count; ++i) Set(ids[i], all[i], true);
    }
    void Parts(const char* key, PartialObjData*& parts, dsUint32_t& count) {
        const Json& all = Get(key);
        if (!all.is_array()) return;
        parts = NewArray<PartialObjData>(count);
        for (std::size_t i = 0; i < std::min(all.size(), std::size_t{2} * count); ++i) {
            Set(i % 2 == 0 ? parts[i / 2].partialObjOffset : parts[i / 2].partialObjLength, all[i], false);
        }
    }

    void operator()(const char* key, char*& text) {
        const Json& value = Get(key);
        text = value.is_null() || std::strcmp(key, "configFile") == 0 ? nullptr : Copy(Bytes(value));
    }
    template <std::size_t Size>
    void operator()(const char* key, char (&field)[Size]) {
        const std::string text = std::strcmp(key, "config") == 0    ? world_.options
                                 : std::strncmp(key, "log", 3) == 0 ? ""
                                                                    : Bytes(Get(key));
        std::memcpy(field, text.data(), std::min(Size, text.size()));
    }
    // Identifiers and other numbers are of one type.
    void operator()(const char* key, dsStruct64_t& number) { Set(number, Get(key), std::strcmp(key, "id") == 0); }
    // As long before now as it was before the recorded call.
    void operator()(const char* key, dsmDate& date) {
        std::tm moment = {};
        if (!Get(key).is_string() || !strptime(Bytes(Get(key)).c_str(), "%Y-%m-%d %H:%M:%S", &moment)) return;
        moment.tm_isdst = -1;
        const std::time_t then = std::mktime(&moment) + std::time(nullptr) - line_.at("at").get<long long>() / 1000000;
        if (moment.tm_year > 100 && moment.tm_year < 8000) localtime_r(&then, &moment);
        date = {static_cast<dsUint16_t>(moment.tm_year + 1900), static_cast<dsUint8_t>(moment.tm_mon + 1),
                static_cast<dsUint8_t>(moment.tm_mday),         static_cast<dsUint8_t>(moment.tm_hour),
                static_cast<dsUint8_t>(moment.tm_min),          static_cast<dsUint8_t>(moment.tm_sec)};
    }
    template <class T>
    std::enable_if_t<!std::is_class_v<T>> operator()(const char* key, T& number) {
        number = static_cast<T>(Integer(key));
    }
    template <class T>
    std::enable_if_t<std::is_class_v<T>> operator()(const char* key, T& record) {
        const Json* const outer = std::exchange(at_, &Get(key));
        Fields(*this, record);
        at_ = outer;
    }
    // The set-up always names the options file: without it the calls could reach another server.
    template <class T>
    void operator()(const char* key, T*& record) {
        if (Get(key).is_null() && !std::is_same_v<T, envSetUp>) return;
        record = New<T>();
        (*this)(key, *record);
    }

private:
    const Json& Get(const char* key) const {
        static const Json none;
        return at_->is_object() && at_->contains(key) ? at_->at(key) : none;
    }
    long long Integer(const char* key) const { return Get(key).is_number() ? Get(key).get<long long>() : 0; }
    void Set(dsStruct64_t& number, const Json& value, bool isId) const {
        std::uint64_t whole = value.is_number() ? value.get<std::uint64_t>() : 0;
        // An identifier that this server did not tell must not name any object of it.
        if (isId && whole != 0) whole = world_.ids.count(whole) != 0 ? world_.ids[whole] : whole | 1ULL << 63;
        number = {static_cast<dsUint32_t>(whole >> 32), static_cast<dsUint32_t>(whole)};
    }
    template <class T>
    T* NewArray(std::size_t count) {
        const std::shared_ptr<T[]> array(new T[count + 1]());
        kept_.emplace_back(array, array.get());
        return array.get();
    }
    template <class T>
    T* New() {
        T* const record = NewArray<T>(1);
        if constexpr (hasVersion<T>) record->stVersion = 1;
        return record;
    }
    char* Room(std::size_t size) { return NewArray<char>(size); }
    char* Copy(const std::string& text) {
        char* const copy = Room(text.size());
        std::memcpy(copy, text.data(), text.size());
        return copy;
    }

    World& world_;
    const Json& line_;
    const Json* at_;
    bool answered_ = false;
    dsUint32_t newHandle_ = 0;
    std::deque<std::shared_ptr<void>> kept_;
};

template <class Result, class... Arguments, class Describe>
void Make(Filler& filler, void* function, Result (*)(Arguments...), const Describe& describe) {
    std::tuple<decltype(Plain(std::declval<Arguments>()))...> all{};
    std::apply(
        [&](auto&... arguments) {
            describe(filler, arguments...);
            long long code = 0;
            const auto made = reinterpret_cast<Result (*)(Arguments...)>(function);
            if constexpr (std::is_void_v<Result>) {
                made(arguments...);
            } else {
                code = made(arguments...);
            }
            filler.Called(code);
            describe(filler, arguments...);
        },
        all);
}

#define CALL(name, count, words, answers, ...)                                    \
    {#name, [](Filler& filler, void* function) {                                  \
         static constexpr auto describe = __VA_ARGS__;                            \
         Make(filler, function, static_cast<decltype(&name)>(nullptr), describe); \
     }},
const std::map<std::string, void (*)(Filler&, void*)> makers = {
#include "../tables/calls.def"
};
#undef CALL

}  // namespace

int Replay(const std::string& file, const std::string& options, const std::string& output, const std::string& recorder,
           const std::string& password) {
    // The API's library that was recorded, unless another one is named.
    const char* const named = std::getenv("TSMTRACE_API");
    std::string api = named ? named : "";
    ForEachLine(file, [&](Json& line) {
        if (api.empty() && line.contains("api")) api = Bytes(line.at("api"));
    });
    if (!dlopen(api.c_str(), RTLD_LAZY)) throw Failure(fmt::format("{}; --api names another library", dlerror()));
    setenv("TSMTRACE_API", api.c_str(), 1);
    setenv("TSMTRACE_FILE", output.c_str(), 1);
    void* const library = dlopen(recorder.c_str(), RTLD_NOW);
    if (!library) throw Failure(dlerror());
    World world{options, password};
    ForEachCall(file, [&](Json& line) {
        const std::string call = line.at("call");
        const auto maker = makers.find(call);
        void* const function = maker == makers.end() ? nullptr : dlsym(library, call.c_str());
        if (!function) throw Failure(call + ": there is no such function");
        if (call == "dsmInitEx" && !world.setUp)
            throw Failure("a sign-on without a set-up: the API would choose the server");
        Filler filler(world, line);
        maker->second(filler, function);
    });
    return Diff(file, output, true);
}

}  // namespace trace
