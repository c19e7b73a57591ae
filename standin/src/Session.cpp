#include "Session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Moments.h"
#include "Refusal.h"
#include "dsmrc.h"

namespace standin {
namespace {

constexpr dsUint16_t sizeExceeded = 13;  // a reason that has no published name here

// ------------------------------------------------- from and to the API's records

std::int64_t Joined(const dsStruct64_t& s) {
    return static_cast<std::int64_t>(std::uint64_t{s.hi} << 32 | s.lo);
}

dsStruct64_t Split(std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    return {static_cast<dsUint32_t>(bits >> 32), static_cast<dsUint32_t>(bits)};
}

bool IsZero(const dsmDate& d) {
    return d.year == 0 && d.month == 0 && d.day == 0 && d.hour == 0 && d.minute == 0 && d.second == 0;
}

std::int64_t Joined(const dsmDate& d) {
    if (IsZero(d)) return 0;
    return ((((d.year * INT64_C(100) + d.month) * 100 + d.day) * 100 + d.hour) * 100 + d.minute) * 100 + d.second;
}

dsmDate DateOf(std::int64_t moment) {
    if (moment == 0) return {};
    moment = LocalTime(moment);
    const auto part = [&moment] {
        const auto value = static_cast<dsUint8_t>(moment % 100);
        moment /= 100;
        return value;
    };
    dsmDate date{};
    date.second = part();
    date.minute = part();
    date.hour = part();
    date.day = part();
    date.month = part();
    date.year = static_cast<dsUint16_t>(moment);
    return date;
}

std::string Text(const char* text, std::size_t longest) {
    if (!text) return {};
    const std::size_t length = strnlen(text, longest + 1);
    if (length > longest) throw Refusal(DSM_RC_STRING_TOO_LONG);
    return {text, length};
}

template <std::size_t Size>
std::string Field(const char (&field)[Size]) {
    return Text(field, Size - 1);
}

// Cuts what does not fit; the record was zeroed before.
template <std::size_t Size>
void SetField(char (&field)[Size], std::string_view text) {
    text.copy(field, Size - 1);
}

template <class Pointer>
const auto& Need(Pointer pointer, dsInt16_t otherwise = DSM_RC_INVALID_PARM) {
    if (!pointer) throw Refusal(otherwise);
    return *pointer;
}

void Require(bool condition, dsInt16_t otherwise = DSM_RC_INVALID_PARM) {
    if (!condition) throw Refusal(otherwise);
}

ObjectName NameOf(const dsmObjName* name) {
    const dsmObjName& n = Need(name, DSM_RC_NULL_OBJNAME);
    return {Field(n.fs), Field(n.hl), Field(n.ll), n.objType};
}

DataBlk& Block(DataBlk* block) {
    Need(block, DSM_RC_NULL_DATABLKPTR);
    Require(block->stVersion == DataBlkVersion);
    Require(block->bufferPtr || block->bufferLen == 0, DSM_RC_NULL_BUFPTR);
    return *block;
}

void Fill(qryRespBackupData& record, const std::string& fs, const Version& version) {
    record.stVersion = qryRespBackupDataVersion;
    SetField(record.objName.fs, fs);
    SetField(record.objName.hl, version.hl);
    SetField(record.objName.ll, version.ll);
    record.objName.objType = version.type;
    record.copyGroup = version.copyGroup;
    SetField(record.mcName, version.mgmtClass);
    SetField(record.owner, version.owner);
    record.objId = Split(version.id);
    record.objState = version.ended == 0 ? DSM_ACTIVE : DSM_INACTIVE;
    record.insDate = DateOf(version.stored);
    record.expDate = DateOf(version.ended);
    record.objInfolen = static_cast<dsUint16_t>(std::min(version.info.size(), sizeof record.objInfo));
    record.sizeEstimate = Split(version.sizeEstimate);
    SetField(record.objInfo, version.info);
}

}  // namespace

dsInt16_t CodeOf(const std::exception& problem, dsInt16_t otherwise) {
    const auto* const system = dynamic_cast<const std::system_error*>(&problem);
    if (!system) return otherwise;
    switch (system->code().value()) {
        case ENOSPC:
        case EDQUOT:
            return DSM_RC_ABORT_NO_REPOSIT_SPACE;
        case EROFS:
        case EACCES:
        case EPERM:
            return DSM_RC_ACCESS_DENIED;
        default:
            return otherwise;
    }
}

Session::Session(std::shared_ptr<const Environment> environment, const std::string& node, const std::string& password)
    : environment_(std::move(environment)), catalogue_(environment_->store, environment_->options.policy) {
    catalogue_.SignOn(node, password, environment_->options.passwordDays);
}

bool Session::Gone() const {
    const std::chrono::nanoseconds longest = environment_->options.faults.idle, since = idleSince_;
    return longest.count() != 0 && since != inUse && Now() - since > longest;
}

bool Session::Wake() {
    if (!Gone()) {
        idleSince_ = inUse;
        return true;
    }
    if (!std::exchange(told_, true))
        environment_->log.Write("a session was idle for longer than IDLE allows: it is gone");
    transaction_ = Transaction();
    get_ = Get();
    EndAnswers(Idle);
    return false;
}

// ------------------------------------------------------------- order of calls

unsigned Session::StatesFor(Call call) {
    constexpr unsigned nothingUnderWay = Idle | QueryOver;
    switch (call) {
        case Call::dsmRegisterFS:
        case Call::dsmDeleteFS:
        case Call::dsmSetAccess:
        case Call::dsmBeginQuery:
        case Call::dsmBeginTxn:
        case Call::dsmBeginGetData:
            return nothingUnderWay;
        case Call::dsmGetNextQObj:
            return Querying;
        case Call::dsmEndQuery:
            return Querying | QueryOver;
        case Call::dsmBindMC:
            return nothingUnderWay | InTransaction;
        case Call::dsmSendObj:
        case Call::dsmDeleteObj:
        case Call::dsmRenameObj:
            return InTransaction;
        case Call::dsmSendData:
        case Call::dsmEndSendObj:
            return InObject;
        case Call::dsmEndTxn:
            return InTransaction | InObject;
        case Call::dsmGetObj:
            return Getting;
        case Call::dsmGetData:
            return InGetObject;
        case Call::dsmEndGetObj:
            return InGetObject | GetObjectOver;
        case Call::dsmEndGetData:
            return Getting | InGetObject | GetObjectOver;
        default:
            return ~0U;  // concerns no session's state
    }
}

std::optional<dsInt16_t> Session::OutOfOrder(Call call) {
    if (!(state_ & StatesFor(call))) return dsInt16_t{DSM_RC_BAD_CALL_SEQUENCE};
    if (!HasTransaction() || !transaction_.givenUp || call == Call::dsmEndTxn) return std::nullopt;
    if (call == Call::dsmEndSendObj) state_ = InTransaction;
    return dsInt16_t{DSM_RC_WILL_ABORT};
}

// Called while an exception is being handled.
dsInt16_t Session::AnswerToException() {
    try {
        throw;
    } catch (const Refusal& refusal) {
        return refusal.code;
    } catch (const std::bad_alloc&) {
        return Broken(DSM_RC_NO_MEMORY, "no memory");
    } catch (const std::exception& problem) {
        return Broken(CodeOf(problem, DSM_RC_ABORT_SYSTEM_ERROR),
                      state_ & (InGetObject | GetObjectOver) ? get_.name + ": " + problem.what() : problem.what());
    }
}

// So that a store that is only read says so at the first call, not at the end of a transaction.
void Session::NeedWritable() const {
    Require(!environment_->store->ReadOnly(), DSM_RC_ACCESS_DENIED);
}

dsInt16_t Session::Broken(dsInt16_t code, const std::string& text) {
    environment_->log.Write(text);
    if (HasTransaction()) return GiveUp(static_cast<dsUint16_t>(code));
    if (state_ == Querying) EndAnswers(QueryOver);
    return code;
}

dsInt16_t Session::GiveUp(dsUint16_t reason) {
    transaction_ = Transaction();
    transaction_.givenUp = reason;
    return DSM_RC_WILL_ABORT;
}

dsInt16_t Session::Fail(Call call, Fault fault) {
    if (HasTransaction()) {
        if (call == Call::dsmEndTxn) {
            transaction_ = Transaction();
            state_ = Idle;
        } else if (fault.rc == DSM_RC_WILL_ABORT) {
            GiveUp(fault.reason);
            if (call == Call::dsmEndSendObj) state_ = InTransaction;
        }
    }
    if (state_ & (Querying | QueryOver)) {
        if (call == Call::dsmGetNextQObj) EndAnswers(QueryOver);
        if (call == Call::dsmEndQuery) EndAnswers(Idle);
    }
    if (call == Call::dsmEndGetData && (state_ & StatesFor(call))) EndGetData();
    return fault.rc;
}

// ---------------------------------------------------------------- filespaces

dsInt16_t Session::RegisterFS(const regFSData* data) {
    const regFSData& d = Need(data);
    Need(d.fsName);
    const dsmUnixFSAttrib& attributes = d.fsAttr.unixFSAttr;
    Require(attributes.fsInfoLength <= sizeof attributes.fsInfo);
    Filespace filespace;
    filespace.name = Text(d.fsName, DSM_MAX_FSNAME_LENGTH);
    filespace.type = Text(d.fsType, DSM_MAX_FSTYPE_LENGTH);
    filespace.info.assign(attributes.fsInfo, attributes.fsInfoLength);
    filespace.occupancy = Joined(d.occupancy);
    filespace.capacity = Joined(d.capacity);
    return catalogue_.Register(filespace) ? DSM_RC_OK : DSM_RC_FS_ALREADY_REGED;
}

dsInt16_t Session::DeleteFS(const char* name, dsUint8_t repository) {
    Need(name);
    Require(repository == DSM_REPOS_ALL || repository == DSM_BACKUP_REP);
    catalogue_.DeleteFilespace(Text(name, DSM_MAX_FSNAME_LENGTH));
    return DSM_RC_OK;
}

dsInt16_t Session::SetAccess(dsmAccessType type, const dsmObjName* name, const char* node, const char* owner) {
    Need(node);
    Require(type == atBackup || type == atArchive);
    catalogue_.SetAccess({NameOf(name), type, Text(node, DSM_MAX_NODE_LENGTH), Text(owner, DSM_MAX_OWNER_LENGTH)});
    return DSM_RC_OK;
}

// ------------------------------------------------------------------- queries

dsInt16_t Session::BeginQuery(dsmQueryType type, const dsmQueryBuff* what) {
    Need(static_cast<const char*>(what));
    switch (type) {
        case qtBackup:
            answers_ = BackupAnswers(*static_cast<const qryBackupData*>(what));
            break;
        case qtFilespace:
            answers_ = FilespaceAnswers(*static_cast<const qryFSData*>(what));
            break;
        case qtMC:
            answers_ = ClassAnswers(*static_cast<const qryMCData*>(what));
            break;
        default:
            return DSM_RC_INVALID_PARM;
    }
    state_ = Querying;
    return DSM_RC_OK;
}

Session::Answers Session::BackupAnswers(const qryBackupData& what) {
    VersionFilter filter;
    filter.name = NameOf(what.objName);
    filter.owner = Text(what.owner, DSM_MAX_OWNER_LENGTH);
    filter.state = what.objState;
    filter.pointInTime = Joined(what.pitDate);
    Require(filter.state == DSM_ACTIVE || filter.state == DSM_INACTIVE || filter.state == DSM_ANY_MATCH);
    auto listing = std::make_shared<VersionListing>(catalogue_.List(filter));
    return {sizeof(qryRespBackupData), [listing, fs = filter.name.fs](void* record) {
                const std::optional<Version> version = listing->Next();
                if (version) Fill(*static_cast<qryRespBackupData*>(record), fs, *version);
                return version.has_value();
            }};
}

Session::Answers Session::FilespaceAnswers(const qryFSData& what) {
    Need(what.fsName);
    const Pattern pattern(Text(what.fsName, DSM_MAX_FSNAME_LENGTH));
    auto rows = std::make_shared<Statement>(catalogue_.Filespaces());
    return {sizeof(qryRespFSData), [rows, pattern](void* buffer) {
                do {
                    if (!rows->Step()) return false;
                } while (!pattern.Matches(rows->Bytes(0, DSM_MAX_FSNAME_LENGTH)));
                auto& record = *static_cast<qryRespFSData*>(buffer);
                record.stVersion = qryRespFSDataVersion;
                SetField(record.fsName, rows->Bytes(0, DSM_MAX_FSNAME_LENGTH));
                SetField(record.fsType, rows->Bytes(1, DSM_MAX_FSTYPE_LENGTH));
                dsmUnixFSAttrib& attributes = record.fsAttr.unixFSAttr;
                const std::string_view info = rows->Bytes(2, sizeof attributes.fsInfo);
                attributes.fsInfoLength = static_cast<dsUint16_t>(info.copy(attributes.fsInfo, info.size()));
                record.occupancy = Split(rows->Int(3));
                record.capacity = Split(rows->Int(4));
                return true;
            }};
}

Session::Answers Session::ClassAnswers(const qryMCData& what) {
    Require(!what.mcDetail);  // only the short answer is offered
    const std::string wanted = Text(what.mcName, DSM_MAX_MC_NAME_LENGTH);
    const std::vector<MgmtClass>& classes = environment_->options.classes;
    return {sizeof(qryRespMCData), [&classes, wanted, i = std::size_t{0}](void* buffer) mutable {
                while (i < classes.size() && !wanted.empty() && classes[i].name != wanted) ++i;
                if (i == classes.size()) return false;
                auto& record = *static_cast<qryRespMCData*>(buffer);
                record.stVersion = 1;
                SetField(record.mcName, classes[i].name);
                SetField(record.mcDesc, classes[i].description);
                ++i;
                return true;
            }};
}

dsInt16_t Session::GetNextQObj(DataBlk* block) {
    DataBlk& out = Block(block);
    Need(out.bufferPtr, DSM_RC_NULL_BUFPTR);
    Require(out.bufferLen >= answers_.recordSize);
    // The caller's buffer need not be aligned for a record.
    alignas(std::max_align_t) char record[sizeof(qryRespBackupData)];
    std::memset(record, 0, answers_.recordSize);
    if (answers_.next(record)) {
        std::memcpy(out.bufferPtr, record, answers_.recordSize);
        out.numBytes = static_cast<dsUint32_t>(answers_.recordSize);
        answers_.any = true;
        return DSM_RC_MORE_DATA;
    }
    out.numBytes = 0;
    const dsInt16_t end = answers_.any ? DSM_RC_FINISHED : DSM_RC_ABORT_NO_MATCH;
    EndAnswers(QueryOver);
    return end;
}

dsInt16_t Session::EndQuery() {
    EndAnswers(Idle);
    return DSM_RC_OK;
}

void Session::EndAnswers(State next) {
    answers_ = Answers();
    state_ = next;
}

// -------------------------------------------------------------- transactions

const MgmtClass* Session::FindClass(const std::string& name) const {
    const std::vector<MgmtClass>& classes = environment_->options.classes;
    if (name.empty()) return &classes.front();
    const auto found = std::find_if(classes.begin(), classes.end(), [&](const MgmtClass& c) { return c.name == name; });
    return found == classes.end() ? nullptr : &*found;
}

dsInt16_t Session::BindMC(const dsmObjName* name, dsmSendType type, mcBindKey* key) {
    Require(type == stBackup);
    Need(key);
    bound_ = NameOf(name);
    const dsUint16_t version = key->stVersion;
    *key = mcBindKey();
    key->stVersion = version;
    SetField(key->mcName, FindClass("")->name);
    key->backup_cg_exists = bTrue;
    SetField(key->backup_copy_dest, "STANDIN");
    return DSM_RC_OK;
}

dsInt16_t Session::BeginTxn() {
    transaction_ = Transaction();
    state_ = InTransaction;
    return DSM_RC_OK;
}

dsInt16_t Session::EndTxn(dsUint8_t vote, dsUint16_t* reason) {
    Need(reason);
    Require(vote == DSM_VOTE_COMMIT || vote == DSM_VOTE_ABORT, DSM_RC_INVALID_VOTE);
    Transaction ended = std::exchange(transaction_, Transaction());
    state_ = Idle;
    const auto outcome = [&]() -> dsUint16_t {
        if (ended.givenUp) return *ended.givenUp;
        if (vote == DSM_VOTE_ABORT) return DSM_RC_ABORT_BY_CLIENT;
        if (ended.denied) return DSM_RC_ACCESS_DENIED;
        if (ended.operations.empty()) return 0;
        return static_cast<dsUint16_t>(Answered([&] {
            catalogue_.Commit(ended.operations);
            return dsInt16_t{DSM_RC_OK};
        }));
    };
    *reason = outcome();
    return ended.givenUp || *reason != 0 ? DSM_RC_CHECK_REASON_CODE : DSM_RC_OK;
}

dsInt16_t Session::SendObj(dsmSendType type, const dsmObjName* name, const ObjAttr* attr, DataBlk* block) {
    Require(type == stBackup);
    const ObjAttr& a = Need(attr);
    NewVersion object;
    object.name = NameOf(name);
    Require(object.name.type == DSM_OBJ_FILE || object.name.type == DSM_OBJ_DIRECTORY);
    Require(a.objInfo || a.objInfoLength == 0);
    Require(bound_ == object.name, DSM_RC_BAD_CALL_SEQUENCE);
    Require(catalogue_.HasFilespace(object.name.fs), DSM_RC_FS_NOT_REGISTERED);
    NeedWritable();
    const std::string wanted = Text(a.mcNameP, DSM_MAX_MC_NAME_LENGTH);
    object.mgmtClass = Need(FindClass(wanted), DSM_RC_INVALID_MCNAME).name;
    object.owner = Field(a.owner);
    object.info.assign(a.objInfo ? a.objInfo : "", a.objInfoLength);
    object.sizeEstimate = Joined(a.sizeEstimate);
    transaction_.open = std::move(object);
    const dsInt16_t rc = block ? SendData(block) : dsInt16_t{DSM_RC_OK};
    state_ = InObject;
    return rc;
}

dsInt16_t Session::SendData(DataBlk* block) {
    DataBlk& in = Block(block);
    in.numBytes = 0;
    const dsUint32_t taken = faults::AtMost(Call::dsmSendData, in.bufferLen);
    if (taken == 0) return DSM_RC_OK;
    NewVersion& object = *transaction_.open;
    Require(object.sizeEstimate != 0, DSM_RC_WRONG_SIZE_ESTIMATE);
    const auto announced = static_cast<std::uint64_t>(object.sizeEstimate);
    if (environment_->options.faults.strictSize && static_cast<std::uint64_t>(object.bytes) + taken > announced) {
        return GiveUp(sizeExceeded);
    }
    if (!object.data) object.data = std::make_unique<IncomingData>(catalogue_.InStore().Data());
    object.data->Append(in.bufferPtr, taken);
    object.bytes += taken;
    in.numBytes = taken;
    return DSM_RC_OK;
}

dsInt16_t Session::EndSendObj() {
    state_ = InTransaction;
    if (transaction_.open->data) transaction_.open->data->Finish();
    transaction_.operations.emplace_back(std::move(*transaction_.open));
    transaction_.open.reset();
    return DSM_RC_OK;
}

dsInt16_t Session::DeleteObj(dsmDelType type, const dsmDelInfo& info) {
    NeedWritable();
    if (type == dtBackup) {
        ObjectName name = NameOf(info.backInfo.objNameP);
        Require(catalogue_.View().HasActive(name), DSM_RC_ABORT_NO_MATCH);
        transaction_.operations.emplace_back(Deactivation{std::move(name)});
        return DSM_RC_OK;
    }
    Require(type == dtBackupID);
    if (!environment_->options.mayDeleteBackups) {
        transaction_.denied = true;
        return DSM_RC_OK;
    }
    const std::int64_t id = Joined(info.backIDInfo.objId);
    Require(catalogue_.Find(id).has_value(), DSM_RC_ABORT_NO_MATCH);
    transaction_.operations.emplace_back(Removal{id});
    return DSM_RC_OK;
}

dsInt16_t Session::RenameObj(const dsmRenameIn_t& in) {
    Require(in.repository == DSM_BACKUP_REP || in.repository == DSM_REPOS_ALL);
    Renaming renaming{NameOf(in.objNameP), {}, in.merge != bFalse};
    renaming.to = {renaming.from.fs, Field(in.newHl), Field(in.newLl), renaming.from.type};
    NeedWritable();
    catalogue_.View().CheckRenaming(renaming);
    transaction_.operations.emplace_back(std::move(renaming));
    return DSM_RC_OK;
}

// ---------------------------------------------------------------------- gets

dsInt16_t Session::BeginGetData(dsmGetType type, const dsmGetList* list) {
    Require(type == gtBackup);
    const dsmGetList& l = Need(list);
    Require(l.objId && l.numObjId > 0 && !l.partialObjData);  // whole objects only
    Get get;
    for (dsUint32_t i = 0; i < l.numObjId; ++i) get.wanted.push_back(Joined(l.objId[i]));
    get_ = std::move(get);
    state_ = Getting;
    return DSM_RC_OK;
}

dsInt16_t Session::GetObj(const ObjID* objId, DataBlk* block) {
    const std::int64_t id = Joined(Need(objId));
    if (block) Block(block).numBytes = 0;
    Require(std::find(get_.wanted.begin(), get_.wanted.end(), id) != get_.wanted.end());
    const auto found = catalogue_.Find(id);
    Require(found.has_value(), DSM_RC_ABORT_NO_MATCH);
    get_.name = found->name;
    state_ = GetObjectOver;
    if (found->data.bytes == 0) return DSM_RC_FINISHED;
    get_.data = catalogue_.Open(found->data);
    state_ = InGetObject;
    return block && block->bufferLen > 0 ? GetData(block) : dsInt16_t{DSM_RC_MORE_DATA};
}

dsInt16_t Session::GetData(DataBlk* block) {
    DataBlk& out = Block(block);
    Require(out.bufferLen > 0, DSM_RC_ZERO_BUFLEN);
    out.numBytes = 0;
    const dsUint32_t room = faults::AtMost(Call::dsmGetData, out.bufferLen);
    out.numBytes = static_cast<dsUint32_t>(get_.data.Read(out.bufferPtr, room));
    if (get_.data.Left() > 0) return DSM_RC_MORE_DATA;
    get_.data = DataReader();
    state_ = GetObjectOver;
    return DSM_RC_FINISHED;
}

dsInt16_t Session::EndGetObj() {
    get_.data = DataReader();
    state_ = Getting;
    return DSM_RC_OK;
}

dsInt16_t Session::EndGetData() {
    get_ = Get();
    state_ = Idle;
    return DSM_RC_OK;
}

}  // namespace standin
