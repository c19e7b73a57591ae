// One sign-on: the order of its calls, and the transaction, the query or the get that is under way. Used by one
// thread at a time. The member functions named like calls of the API return the call's code and may throw; Perform
// turns an exception into a code too.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Catalogue.h"
#include "Faults.h"
#include "Options.h"
#include "dsmapitd.h"

namespace standin {

// What a set-up gives to all sessions after it.
struct Environment {
    explicit Environment(const envSetUp* setUp) : log(setUp), options(setUp) {}

    const ErrorLog log;
    const Options options;
    std::shared_ptr<Store> store;
};

class Session {
public:
    Session(std::shared_ptr<const Environment> environment, const std::string& node, const std::string& password);

    // Whether the server has ended the session because no call came for too long. Any thread may ask.
    bool Gone() const;

    // A call that uses the session, which is not idle meanwhile. False when the session, with all that was under way,
    // is gone.
    class Use {
    public:
        explicit Use(Session* session) : session_(session), there_(session && session->Wake()) {}
        ~Use() {
            if (there_) session_->idleSince_ = Now();
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        explicit operator bool() const { return there_; }

    private:
        Session* const session_;
        const bool there_;
    };

    // Does the work of a call if the call is in order now.
    template <class Work>
    dsInt16_t Perform(Call call, Work work) {
        if (const std::optional<dsInt16_t> no = OutOfOrder(call)) return *no;
        return Answered(work);
    }
    // Answers a call as a test wants it, with all consequences of that answer.
    dsInt16_t Fail(Call call, Fault fault);

    dsInt16_t RegisterFS(const regFSData* data);
    dsInt16_t DeleteFS(const char* name, dsUint8_t repository);
    dsInt16_t SetAccess(dsmAccessType type, const dsmObjName* name, const char* node, const char* owner);

    dsInt16_t BeginQuery(dsmQueryType type, const dsmQueryBuff* what);
    dsInt16_t GetNextQObj(DataBlk* block);
    dsInt16_t EndQuery();

    dsInt16_t BindMC(const dsmObjName* name, dsmSendType type, mcBindKey* key);
    dsInt16_t BeginTxn();
    dsInt16_t EndTxn(dsUint8_t vote, dsUint16_t* reason);
    dsInt16_t SendObj(dsmSendType type, const dsmObjName* name, const ObjAttr* attr, DataBlk* block);
    dsInt16_t SendData(DataBlk* block);
    dsInt16_t EndSendObj();
    dsInt16_t DeleteObj(dsmDelType type, const dsmDelInfo& info);
    dsInt16_t RenameObj(const dsmRenameIn_t& in);

    dsInt16_t BeginGetData(dsmGetType type, const dsmGetList* list);
    dsInt16_t GetObj(const ObjID* objId, DataBlk* block);
    dsInt16_t GetData(DataBlk* block);
    dsInt16_t EndGetObj();
    dsInt16_t EndGetData();

private:
    // Single bits, so that the calls' rules can name several.
    enum State : unsigned {
        Idle = 1,
        Querying = 2,
        QueryOver = 4,  // no answers left, end not yet called
        InTransaction = 8,
        InObject = 16,
        Getting = 32,
        InGetObject = 64,
        GetObjectOver = 128  // the last byte is delivered, end not yet called
    };

    struct Answers {
        std::size_t recordSize;
        std::function<bool(void*)> next;  // fills a zeroed record, or says that there is none
        bool any = false;
    };

    struct Transaction {
        std::vector<Operation> operations;
        std::optional<NewVersion> open;
        std::optional<dsUint16_t> givenUp;  // the server's reason; calls inside answer DSM_RC_WILL_ABORT
        bool denied = false;                // its end refuses it as a whole
    };

    struct Get {
        std::vector<std::int64_t> wanted;
        DataReader data;
        std::string name;  // of the object that is read, for messages
    };

    static std::chrono::nanoseconds Now() { return std::chrono::steady_clock::now().time_since_epoch(); }
    bool Wake();
    static unsigned StatesFor(Call call);
    std::optional<dsInt16_t> OutOfOrder(Call call);
    template <class Work>
    dsInt16_t Answered(Work work) {
        try {
            return work();
        } catch (...) {
            return AnswerToException();
        }
    }
    dsInt16_t AnswerToException();
    bool HasTransaction() const { return state_ & (InTransaction | InObject); }
    dsInt16_t GiveUp(dsUint16_t reason);
    dsInt16_t Broken(dsInt16_t code, const std::string& text);
    void NeedWritable() const;
    void EndAnswers(State next);

    Answers BackupAnswers(const qryBackupData& what);
    Answers FilespaceAnswers(const qryFSData& what);
    Answers ClassAnswers(const qryMCData& what);
    const MgmtClass* FindClass(const std::string& name) const;

    const std::shared_ptr<const Environment> environment_;
    Catalogue catalogue_;
    static constexpr auto inUse = std::chrono::nanoseconds::max();
    std::atomic<std::chrono::nanoseconds> idleSince_{Now()};
    bool told_ = false;  // that it is gone
    State state_ = Idle;
    std::optional<ObjectName> bound_;
    Answers answers_{};
    Transaction transaction_;
    Get get_;
};

}  // namespace standin
