#include "ObjectData.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <system_error>

namespace standin {
namespace {

constexpr std::int64_t shardSize = 1000;
constexpr std::size_t randomDigits = 16;

bool IsHex(const std::string& text) {
    return text.size() == randomDigits && text.find_first_not_of("0123456789abcdef") == text.npos;
}

// The number at the begin of a text; -1 when there is none, or another way to write it.
std::int64_t NumberOf(const std::string& text) {
    std::int64_t number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number < 0) return -1;
    return std::string(text.data(), end) == std::to_string(number) ? number : -1;
}

}  // namespace

// ------------------------------------------------------------- being sent

IncomingData::~IncomingData() {
    try {
        if (!name_.empty()) home_.Incoming().Remove(name_);
    } catch (const std::exception&) {
        // The next opening of the store removes it.
    }
}

void IncomingData::Append(const char* bytes, std::size_t size) {
    if (!InFile() && row_.size() + size <= largestRow) {
        row_.append(bytes, size);
    } else {
        if (!InFile()) OpenFile();
        file_.Write(bytes, size);
    }
    checksum_.Add(bytes, size);
}

void IncomingData::OpenFile() {
    for (;;) {
        const std::string name = RandomHex(randomDigits);
        FileDescriptor file = home_.Incoming().Open(name, O_WRONLY | O_CREAT | O_EXCL);
        file.Lock(true);
        const auto status = home_.Incoming().Status(name);
        if (!status || status->st_ino != file.Status().st_ino) continue;  // taken for a dead writer's
        name_ = name;
        file.Write(row_.data(), row_.size());
        file_ = std::move(file);
        row_ = std::string();
        return;
    }
}

void IncomingData::Finish() const {
    if (InFile()) file_.Sync();
}

// ----------------------------------------------------------------- reading

std::size_t DataReader::Read(char* buffer, std::size_t size) {
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(static_cast<std::int64_t>(size), left_));
    std::size_t got = wanted;
    if (file_.Get() >= 0) {
        got = file_.Read(buffer, wanted);
    } else {
        row_.copy(buffer, wanted, static_cast<std::size_t>(data_.bytes - left_));
    }
    checksum_.Add(buffer, got);
    left_ -= static_cast<std::int64_t>(got);
    if (got < wanted) throw std::runtime_error("damaged: the data end too early");
    if (left_ == 0 && checksum_.Value() != data_.checksum) throw std::runtime_error("damaged: not what was stored");
    return got;
}

// ------------------------------------------------------------------- files

ObjectData::ObjectData(const Folder& store) : incoming_(store.Sub("incoming")), data_(store.Sub("data")) {}

std::string ObjectData::Place(IncomingData& data, std::int64_t id) {
    const std::string file = std::to_string(id) + "-" + RandomHex(randomDigits), shard = ShardName(id);
    // A folder that exists may come from a process whose flush failed.
    if (flushedShards_.count(shard) == 0) {
        data_.Make(shard);
        data_.Sync();
        flushedShards_.insert(shard);
    }
    incoming_.Move(data.name_, data_.Sub(shard), file);
    data.name_.clear();
    touchedShards_.insert(shard);
    return file;
}

void ObjectData::Flush() {
    while (!touchedShards_.empty()) {
        data_.Sub(*touchedShards_.begin()).Sync();
        touchedShards_.erase(touchedShards_.begin());
    }
}

void ObjectData::Remove(const std::string& file) const {
    if (IdOf(file) < 0) return;  // never made here
    const std::string shard = ShardName(IdOf(file));
    if (data_.Status(shard)) data_.Sub(shard).Remove(file);
}

void ObjectData::FlushRemovals(const std::set<std::string>& files) const {
    std::set<std::string> shards;
    for (const std::string& file : files) shards.insert(ShardName(IdOf(file)));
    for (const std::string& shard : shards) {
        if (data_.Status(shard)) data_.Sub(shard).Sync();
    }
}

FileDescriptor ObjectData::Open(const StoredData& data) const {
    FileDescriptor file = ShardOf(data.file).Open(data.file, O_RDONLY);
    if (file.Status().st_size != data.bytes) throw std::runtime_error("damaged: the data have another length");
    posix_fadvise(file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return file;
}

void ObjectData::TidyIncoming(const Folder& lostAndFound) const {
    for (const std::string& name : incoming_.Names()) {
        const auto status = incoming_.Status(name);
        if (!IsIncoming(name) || !status || !S_ISREG(status->st_mode)) continue;
        try {
            const FileDescriptor file = incoming_.Open(name, O_RDONLY);
            if (file.Lock(false)) incoming_.Move(name, lostAndFound, "incoming-" + name);
        } catch (const std::system_error& problem) {
            if (problem.code() != std::errc::no_such_file_or_directory) throw;  // committed meanwhile
        }
    }
}

std::vector<std::string> ObjectData::FilesFrom(std::int64_t firstFreeId) const {
    std::vector<std::string> files;
    for (const std::string& shard : data_.Names()) {
        const std::int64_t number = NumberOf(shard);
        if (number < firstFreeId / shardSize || shard != std::to_string(number)) continue;
        for (const std::string& file : data_.Sub(shard).Names()) {
            if (IdOf(file) >= firstFreeId && IdOf(file) / shardSize == number) files.push_back(file);
        }
    }
    return files;
}

void ObjectData::MoveAway(const std::string& file, const Folder& lostAndFound) const {
    ShardOf(file).Move(file, lostAndFound, "data-" + file);
}

bool ObjectData::IsIncoming(const std::string& name) {
    return IsHex(name);
}

std::string ObjectData::ShardName(std::int64_t id) {
    return std::to_string(id / shardSize);
}

std::int64_t ObjectData::IdOf(const std::string& file) {
    const std::int64_t id = NumberOf(file);
    if (id < 0) return -1;
    const std::string number = std::to_string(id);
    // A store that was taken over from schema 1 has files named by their number alone.
    const bool ours = file == number || (file[number.size()] == '-' && IsHex(file.substr(number.size() + 1)));
    return ours ? id : -1;
}

Folder ObjectData::ShardOf(const std::string& file) const {
    return data_.Sub(ShardName(IdOf(file)));
}

}  // namespace standin
