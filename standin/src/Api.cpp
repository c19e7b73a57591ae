// The exported functions: each finds the session of its handle, asks whether the call is to fail, and passes it on. No
// exception leaves them.
#pragma GCC visibility push(default)
#include "dsmapifp.h"
#pragma GCC visibility pop

#include <algorithm>
#include <climits>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "Faults.h"
#include "Refusal.h"
#include "Session.h"
#include "TestControl.h"
#include "dsmrc.h"

namespace standin {
namespace {

// What the process has open. Sessions are shared with the calls that run in them, so the mutex is held for the
// look-up alone.
class Process {
public:
    // Never destroyed: the host may still call while it exits.
    static Process& Instance() {
        static Process& instance = *new Process;
        return instance;
    }

    void SetUp(std::shared_ptr<const Environment> environment) {
        const std::lock_guard<std::mutex> lock(mutex_);
        environment_ = std::move(environment);
    }

    std::shared_ptr<const Environment> CurrentEnvironment() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return environment_;
    }

    // Returns a handle for a session that is about to sign on; 0 if the server accepts no more sessions. Handles rise,
    // so that a handle is not used again soon after its session ended.
    dsUint32_t Reserve(std::size_t most) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto there = [](const auto& entry) { return !entry.second || !entry.second->Gone(); };
        if (most != 0 && static_cast<std::size_t>(std::count_if(sessions_.begin(), sessions_.end(), there)) >= most) {
            return 0;
        }
        do {
            lastHandle_ = lastHandle_ < INT_MAX ? lastHandle_ + 1 : 1;
        } while (sessions_.count(lastHandle_) != 0);
        sessions_.emplace(lastHandle_, nullptr);
        return lastHandle_;
    }

    void Add(dsUint32_t handle, std::shared_ptr<Session> session) {
        const std::lock_guard<std::mutex> lock(mutex_);
        sessions_[handle] = std::move(session);
    }

    std::shared_ptr<Session> Find(dsUint32_t handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = sessions_.find(handle);
        return found == sessions_.end() ? nullptr : found->second;
    }

    // The caller destroys the sessions, outside the lock.
    std::shared_ptr<Session> Take(dsUint32_t handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto node = sessions_.extract(handle);
        return node ? node.mapped() : nullptr;
    }

    std::map<dsUint32_t, std::shared_ptr<Session>> CleanUp() {
        const std::lock_guard<std::mutex> lock(mutex_);
        environment_.reset();
        return std::exchange(sessions_, {});
    }

private:
    std::mutex mutex_;
    std::shared_ptr<const Environment> environment_;
    std::map<dsUint32_t, std::shared_ptr<Session>> sessions_;
    dsUint32_t lastHandle_ = 0;
};

// For the calls outside a session. Failures of the environment are logged where the log is known.
template <class Work>
dsInt16_t Guarded(const ErrorLog* log, dsInt16_t otherwise, Work work) noexcept {
    try {
        return work();
    } catch (const Refusal& refusal) {
        return refusal.code;
    } catch (const std::bad_alloc&) {
        return DSM_RC_NO_MEMORY;
    } catch (const std::exception& problem) {
        if (log) log->Write(problem.what());
        return CodeOf(problem, otherwise);
    } catch (...) {
        return otherwise;
    }
}

template <class Work>
dsInt16_t OnSession(Call call, dsUint32_t handle, Work work, dsUint16_t* reason = nullptr) noexcept {
    return Guarded(nullptr, DSM_RC_ABORT_SYSTEM_ERROR, [&]() -> dsInt16_t {
        const std::shared_ptr<Session> session = Process::Instance().Find(handle);
        const Session::Use use(session.get());
        const std::optional<Fault> fault = faults::Enter(call);
        if (!session) return DSM_RC_INVALID_DS_HANDLE;
        if (!use && call != Call::dsmRCMsg) return DSM_RC_BAD_CALL_SEQUENCE;
        if (!fault) return session->Perform(call, [&] { return work(*session); });
        if (reason) *reason = fault->reason;
        return session->Fail(call, *fault);
    });
}

struct Meaning {
    long long code;
    const char* name;
    const char* text;
};

constexpr Meaning meanings[] = {
#define CODE(value, name, text) {value, name, text},
#include "../../tables/codes.def"
#undef CODE
};

constexpr dsUint16_t apiVersion = 8, apiRelease = 1;

}  // namespace
}  // namespace standin

using namespace standin;

// ------------------------------------------------------- set-up and sign-on

void dsmQueryApiVersionEx(dsmApiVersionEx* version) {
    faults::Enter(Call::dsmQueryApiVersionEx);
    if (!version) return;
    version->stVersion = 2;
    version->version = apiVersion;
    version->release = apiRelease;
    version->level = 0;
    version->subLevel = 0;
    version->unicode = bFalse;
}

dsInt16_t dsmSetUp(dsBool_t, envSetUp* setUp) {
    return Guarded(nullptr, DSM_RC_NO_MEMORY, [&] {
        const ErrorLog log(setUp);
        std::shared_ptr<Environment> environment;
        const dsInt16_t rc = Guarded(&log, DSM_RC_INVALID_PARM, [&] {
            faults::SetUp({});
            environment = std::make_shared<Environment>(setUp);
            faults::SetUp(environment->options.faults.rules);
            return dsInt16_t{DSM_RC_OK};
        });
        // Only now: the options may have a rule for this very call.
        if (const auto fault = faults::Enter(Call::dsmSetUp)) return fault->rc;
        if (rc != DSM_RC_OK) return rc;
        return Guarded(&log, DSM_RC_ABORT_SYSTEM_ERROR, [&] {
            const Options& options = environment->options;
            control::SetServerClock(options.clockStoppedAt, options.clockAheadBy);
            environment->store = Store::Open(options.storeDir);
            try {
                options.policy.Apply(*environment->store);
            } catch (const std::exception& problem) {  // queries obey the retention even so
                log.Write(std::string("versions that need not be kept: ") + problem.what());
            }
            Process::Instance().SetUp(std::move(environment));
            return rc;
        });
    });
}

dsInt16_t dsmCleanUp(dsBool_t) {
    return Guarded(nullptr, DSM_RC_ABORT_SYSTEM_ERROR, [] {
        const auto fault = faults::Enter(Call::dsmCleanUp);
        Process::Instance().CleanUp();
        return fault ? fault->rc : dsInt16_t{DSM_RC_OK};
    });
}

dsInt16_t dsmInitEx(dsUint32_t* handle, dsmInitExIn_t* in, dsmInitExOut_t* out) {
    std::shared_ptr<const Environment> environment = Process::Instance().CurrentEnvironment();
    return Guarded(environment ? &environment->log : nullptr, DSM_RC_ABORT_SYSTEM_ERROR, [&]() -> dsInt16_t {
        if (const auto fault = faults::Enter(Call::dsmInitEx)) return fault->rc;
        if (!environment) return DSM_RC_BAD_CALL_SEQUENCE;
        if (!handle || !in || !out || !in->clientNodeNameP) return DSM_RC_INVALID_PARM;
        const std::string node = in->clientNodeNameP;
        if (node.size() > DSM_MAX_NODE_LENGTH) return DSM_RC_STRING_TOO_LONG;
        const std::string password = in->clientPasswordP ? in->clientPasswordP : "";
        const dsUint32_t place = Process::Instance().Reserve(environment->options.faults.sessions);
        if (place == 0) return DSM_RC_REJECT_NO_RESOURCES;
        try {
            Process::Instance().Add(place, std::make_shared<Session>(environment, node, password));
        } catch (...) {
            Process::Instance().Take(place);
            throw;
        }
        *handle = place;
        out->infoRC = DSM_RC_OK;
        std::snprintf(out->adsmServerName, sizeof out->adsmServerName, "STANDIN");
        out->serverVer = apiVersion;
        out->serverRel = apiRelease;
        out->serverLev = 0;
        out->serverSubLev = 0;
        return DSM_RC_OK;
    });
}

dsInt16_t dsmTerminate(dsUint32_t handle) {
    return Guarded(nullptr, DSM_RC_ABORT_SYSTEM_ERROR, [&]() -> dsInt16_t {
        const std::shared_ptr<Session> session = Process::Instance().Take(handle);
        const Session::Use use(session.get());
        if (const auto fault = faults::Enter(Call::dsmTerminate)) return fault->rc;
        if (!session) return DSM_RC_INVALID_DS_HANDLE;
        return use ? DSM_RC_OK : DSM_RC_BAD_CALL_SEQUENCE;
    });
}

dsInt16_t dsmRCMsg(dsUint32_t handle, dsInt16_t rc, char* msg) {
    return OnSession(Call::dsmRCMsg, handle, [&](Session&) -> dsInt16_t {
        if (!msg) return DSM_RC_INVALID_PARM;
        Meaning known{rc, "UNKNOWN", "no message for this code"};
        for (const Meaning& meaning : meanings) {
            if (meaning.code == rc) known = meaning;
        }
        std::snprintf(msg, DSM_MAX_RC_MSG_LENGTH + 1, "%s (%d): %s", known.name, rc, known.text);
        return DSM_RC_OK;
    });
}

// -------------------------------------------------- filespaces and queries

dsInt16_t dsmRegisterFS(dsUint32_t handle, regFSData* data) {
    return OnSession(Call::dsmRegisterFS, handle, [&](Session& s) { return s.RegisterFS(data); });
}

dsInt16_t dsmDeleteFS(dsUint32_t handle, char* fsName, dsUint8_t repository) {
    return OnSession(Call::dsmDeleteFS, handle, [&](Session& s) { return s.DeleteFS(fsName, repository); });
}

dsInt16_t dsmSetAccess(dsUint32_t handle, dsmAccessType type, dsmObjName* name, char* node, char* owner) {
    return OnSession(Call::dsmSetAccess, handle, [&](Session& s) { return s.SetAccess(type, name, node, owner); });
}

dsInt16_t dsmBeginQuery(dsUint32_t handle, dsmQueryType type, dsmQueryBuff* what) {
    return OnSession(Call::dsmBeginQuery, handle, [&](Session& s) { return s.BeginQuery(type, what); });
}

dsInt16_t dsmGetNextQObj(dsUint32_t handle, DataBlk* block) {
    return OnSession(Call::dsmGetNextQObj, handle, [&](Session& s) { return s.GetNextQObj(block); });
}

dsInt16_t dsmEndQuery(dsUint32_t handle) {
    return OnSession(Call::dsmEndQuery, handle, [](Session& s) { return s.EndQuery(); });
}

// -------------------------------------------------------------- transactions

dsInt16_t dsmBindMC(dsUint32_t handle, dsmObjName* name, dsmSendType type, mcBindKey* key) {
    return OnSession(Call::dsmBindMC, handle, [&](Session& s) { return s.BindMC(name, type, key); });
}

dsInt16_t dsmBeginTxn(dsUint32_t handle) {
    return OnSession(Call::dsmBeginTxn, handle, [](Session& s) { return s.BeginTxn(); });
}

dsInt16_t dsmEndTxn(dsUint32_t handle, dsUint8_t vote, dsUint16_t* reason) {
    return OnSession(
        Call::dsmEndTxn, handle, [&](Session& s) { return s.EndTxn(vote, reason); }, reason);
}

dsInt16_t dsmSendObj(dsUint32_t handle, dsmSendType type, void*, dsmObjName* name, ObjAttr* attr, DataBlk* block) {
    return OnSession(Call::dsmSendObj, handle, [&](Session& s) { return s.SendObj(type, name, attr, block); });
}

dsInt16_t dsmSendData(dsUint32_t handle, DataBlk* block) {
    return OnSession(Call::dsmSendData, handle, [&](Session& s) { return s.SendData(block); });
}

dsInt16_t dsmEndSendObj(dsUint32_t handle) {
    return OnSession(Call::dsmEndSendObj, handle, [](Session& s) { return s.EndSendObj(); });
}

dsInt16_t dsmDeleteObj(dsUint32_t handle, dsmDelType type, dsmDelInfo info) {
    return OnSession(Call::dsmDeleteObj, handle, [&](Session& s) { return s.DeleteObj(type, info); });
}

dsInt16_t dsmRenameObj(dsmRenameIn_t* in, dsmRenameOut_t* out) {
    if (!in || !out) return DSM_RC_INVALID_PARM;
    return OnSession(Call::dsmRenameObj, in->dsmHandle, [&](Session& s) { return s.RenameObj(*in); });
}

// ---------------------------------------------------------------------- gets

dsInt16_t dsmBeginGetData(dsUint32_t handle, dsBool_t, dsmGetType type, dsmGetList* list) {
    return OnSession(Call::dsmBeginGetData, handle, [&](Session& s) { return s.BeginGetData(type, list); });
}

dsInt16_t dsmGetObj(dsUint32_t handle, ObjID* objId, DataBlk* block) {
    return OnSession(Call::dsmGetObj, handle, [&](Session& s) { return s.GetObj(objId, block); });
}

dsInt16_t dsmGetData(dsUint32_t handle, DataBlk* block) {
    return OnSession(Call::dsmGetData, handle, [&](Session& s) { return s.GetData(block); });
}

dsInt16_t dsmEndGetObj(dsUint32_t handle) {
    return OnSession(Call::dsmEndGetObj, handle, [](Session& s) { return s.EndGetObj(); });
}

dsInt16_t dsmEndGetData(dsUint32_t handle) {
    return OnSession(Call::dsmEndGetData, handle, [](Session& s) { return s.EndGetData(); });
}
