#include "Store.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "Layout.h"

namespace standin {
namespace {

// The process's stores by device and inode, so that every path to one finds it. Never destroyed, as the sessions may
// outlast it.
struct Stores {
    struct Place {
        std::weak_ptr<Store> store;
        bool open = false;  // until the store has closed its files, which is later than its last user let go of it
    };
    std::mutex mutex;
    std::condition_variable closed;
    std::map<std::pair<dev_t, ino_t>, Place> places;

    static Stores& Instance() {
        static Stores& instance = *new Stores;
        return instance;
    }
};

// However long the last change waited, which may have been for another process.
constexpr std::chrono::milliseconds longestGathering{5};
constexpr std::chrono::microseconds quickFlush{400};
constexpr std::size_t manyThreads = 32;

// In pages. The log begins anew only after a checkpoint behind which nobody wrote. Of a long log the last few are
// waited for, of one that is too long all of them.
constexpr int checkpointEvery = 1000, longLog = 2000, tooLongLog = 3000, few = 200;

// How long this thread has not been computing, from some moment on.
std::chrono::nanoseconds Waited() {
    timespec now{}, computing{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &computing);
    return std::chrono::seconds(now.tv_sec - computing.tv_sec) +
           std::chrono::nanoseconds(now.tv_nsec - computing.tv_nsec);
}

bool HasRow(Database& database, const std::string& file) {
    return database.Query("SELECT 1 FROM object_version WHERE id = ?1 AND file = ?2", ObjectData::IdOf(file), file)
        .Step();
}

// An update to the value that is there already would leave the page as it is, and the log too.
void ChangeSomething(Database& database) {
    database.Run("INSERT OR IGNORE INTO garbage VALUES (x'')");
    database.Run("DELETE FROM garbage WHERE file = x''");
}

}  // namespace

std::shared_ptr<Store> Store::Open(const std::string& storeDir) {
    Stores& stores = Stores::Instance();
    std::shared_ptr<Store> store;  // if it ends here, then without the lock
    std::unique_lock<std::mutex> lock(stores.mutex);
    const Folder root = StoreFolder(storeDir);
    const struct stat status = root.File().Status();
    Stores::Place& place = stores.places[{status.st_dev, status.st_ino}];
    // OpenOrMake reads the catalogue's file. If SQLite has it open in this process, that would drop SQLite's locks.
    stores.closed.wait(lock, [&] { return (store = place.store.lock()) || !place.open; });
    const Folder locked = root.Sub(".");  // SQLite cannot create one file twice at a time
    locked.File().Lock(true);
    if (!store) {
        const bool readOnly = IsReadOnly(root);
        const std::string identity = UsingReserve(root, [&] { return OpenOrMake(root, readOnly); });
        auto made = UsingReserve(root, [&] { return std::make_unique<Store>(Folder(storeDir), readOnly, identity); });
        place.open = true;
        store = {made.release(), [&stores, &place](Store* ended) {
                     delete ended;
                     const std::lock_guard<std::mutex> closing(stores.mutex);
                     place.open = false;
                     stores.closed.notify_all();
                 }};
        place.store = store;
    }
    if (!store->readOnly_) UsingReserve(root, [&] { store->Tidy(); });
    return store;
}

Store::Store(Folder root, bool readOnly, std::string identity)
    : root_(std::move(root)), readOnly_(readOnly), identity_(std::move(identity)), data_(root_) {
    Database catalogue(CataloguePath(), ReadingMode());
    NeedIdentity(catalogue, identity_);
    if (readOnly_) return;
    writer_ = std::make_unique<Database>(CataloguePath(), Database::Mode::Write);
    writer_->CountLog();
    checkpointer_ = std::make_unique<Database>(CataloguePath(), Database::Mode::Write);
}

Store::~Store() {
    checkpointer_.reset();
    writer_.reset();
    if (!readOnly_) MakeReserve(root_);
}

Database::Mode Store::ReadingMode() const {
    if (!readOnly_) return Database::Mode::Write;
    const auto log = root_.Status("catalogue.db-wal");
    if (!log || log->st_size == 0) return Database::Mode::Immutable;
    if (!root_.Status("catalogue.db-shm")) {
        throw std::runtime_error(CataloguePath() + "-wal holds changes: open the store once where it can be written");
    }
    return Database::Mode::Read;
}

// Holds the folder's lock. Other processes may be at work in the store.
void Store::Tidy() {
    const std::optional<Mark> mark = ReadMark(root_);
    if (!mark || mark->identity != identity_) throw std::runtime_error(root_.Path() + "/mark was changed or removed");
    writer_->NeedInPlace();
    try {
        SweepData();
        RemoveDeletedFilespaces();
    } catch (const std::exception&) {
        // A store that cannot be tidied, because a part is damaged or the disk is full, can still be used.
    }
    MakeReserve(root_);
}

void Store::SweepData() {
    const std::optional<Folder> lost = LostAndFound(root_);
    if (lost) data_.TidyIncoming(*lost);
    Database reader(CataloguePath(), Database::Mode::Write);
    // Only the files of removals that last: the transaction that they share may still fail.
    std::set<std::string> garbage;
    for (Statement rows = reader.Query("SELECT file FROM garbage"); rows.Step();) {
        garbage.emplace(rows.Bytes(0, longestFileName));
    }
    if (garbage.empty() && data_.FilesFrom(reader.Number("SELECT next_id FROM store")).empty()) return;
    for (const std::string& file : garbage) data_.Remove(file);
    data_.FlushRemovals(garbage);
    Submit(Need::None, [&](Change& change) {
        for (const std::string& file : garbage) change.database.Run("DELETE FROM garbage WHERE file = ?1", file);
        ChangeSomething(change.database);
        // Before looking for files without a row: the commit of a killed process may still be in the log and have it.
        change.database.FlushOverOldLog();
        if (!lost) return;
        for (const std::string& file : data_.FilesFrom(change.nextId)) {
            if (!HasRow(change.database, file)) data_.MoveAway(file, *lost);
        }
    });
}

void Store::RemoveDeletedFilespaces() noexcept try {
    ++filespaceDeletions_;
    constexpr std::size_t step = 500;
    for (bool more = true; more;) {
        Submit(Need::None, [&](Change& change) {
            Database& database = change.database;
            Statement deleted = database.Query("SELECT id FROM filespace WHERE node = 0");
            more = deleted.Step();
            if (!more) return;
            const std::int64_t fs = deleted.Int(0);
            std::vector<std::pair<std::int64_t, std::string>> versions;
            {
                Statement rows = database.Query("SELECT id, file FROM object_version WHERE fs = ?1 LIMIT ?2", fs,
                                                static_cast<std::int64_t>(step));
                while (rows.Step()) versions.emplace_back(rows.Int(0), rows.Bytes(1, longestFileName));
            }
            for (const auto& [id, file] : versions) change.RemoveVersion(id, file);
            if (versions.size() == step) return;
            database.Run("DELETE FROM access WHERE fs = ?1", fs);
            database.Run("DELETE FROM filespace WHERE id = ?1", fs);
        });
    }
} catch (const std::exception&) {
    // Nobody sees them any more.
}

// ------------------------------------------------------------------ changes

void Store::Waiting::Tell(Turn what) {
    turn = what;
    told.Post();
}

Store::Waiting::Turn Store::Waiting::Wait() {
    told.Wait();
    return turn;
}

void Store::Waiting::TellOthers() const {
    for (Waiting* const other : others) {
        if (other) other->Tell(Turn::IsOver);
    }
}

void Store::Submit(Need need, const Work& work, Leaves leaves) {
    if (readOnly_) throw std::system_error(EROFS, std::generic_category(), root_.Path());
    Waiting own{work, need, leaves, nullptr, Waiting::Turn::NotYet, {}, {}};
    bool checkpoints = false;
    std::unique_lock<std::mutex> lock(mutex_);
    queue_.push_back(&own);
    const bool first = !std::exchange(carrying_, true);
    if (queue_.size() == gathers_) allHere_.notify_one();
    lock.unlock();
    if (first || own.Wait() == Waiting::Turn::Carries) {
        lock.lock();
        // Threads that submitted a moment ago may submit again. They get the processor first, and then a part of the
        // time that a flush takes. Where flushes are quick, some of many will do: the others come while these are
        // carried out. A single thread waits for nobody.
        const std::size_t wanted = waited_ < quickFlush && company_ >= manyThreads ? company_ / 4 : company_;
        if (queue_.size() < wanted) {
            lock.unlock();
            std::this_thread::yield();
            lock.lock();
            gathers_ = wanted;
            allHere_.wait_for(lock, std::min<std::chrono::nanoseconds>(waited_ / 8, longestGathering),
                              [&] { return queue_.size() >= wanted; });
            gathers_ = 0;
        }
        const Group group = std::exchange(queue_, {});
        lock.unlock();
        for (std::size_t i = 1; i < group.size(); ++i) group[(i - 1) / 2]->others[(i - 1) % 2] = group[i];
        const bool company = company_ > 1 || group.size() > 1;
        const auto before = company ? Waited() : std::chrono::nanoseconds::zero();
        try {
            Carry(group);
        } catch (...) {  // no memory to sort the outcomes; the waiting threads must wake even so
            for (Waiting* const one : group) {
                if (!one->failure) one->failure = std::current_exception();
            }
        }
        checkpoints = CheckpointIsDue();
        lock.lock();
        Waiting* const next = queue_.empty() ? nullptr : queue_.front();
        carrying_ = next != nullptr;
        company_ = group.size() + queue_.size();
        if (company) waited_ = Waited() - before;
        lock.unlock();
        if (next) next->Tell(Waiting::Turn::Carries);
    }
    own.TellOthers();
    if (checkpoints) CheckpointBesideCommits();
    if (own.failure) std::rethrow_exception(own.failure);
}

// Asked by the leader after each commit. No thread commits meanwhile.
bool Store::CheckpointIsDue() try {
    const int pages = writer_->LogPages();
    const bool tooLong = pages >= tooLongLog;
    std::unique_lock<std::mutex> lock(checkpointing_, std::defer_lock);
    if (tooLong) {
        lock.lock();
    } else if (!lock.try_lock()) {
        return false;
    }
    if (pages < tried_) {  // the log has begun anew
        checkpointed_ = {};
        tried_ = triedToEnd_ = 0;
    }
    const bool due = pages - tried_ >= checkpointEvery;
    if (due) tried_ = pages;
    const bool little = pages >= longLog && pages - checkpointed_.broughtIn <= few;
    // Where somebody reads, the log does not begin anew even so, and the commits go on for a while.
    if (!(tooLong || little) || pages - triedToEnd_ < checkpointEvery) return due;
    triedToEnd_ = pages;
    std::optional<Database::Transaction> alone;
    if (tooLong) alone.emplace(*writer_);  // other processes add nothing either
    Checkpoint();
    return false;
} catch (const std::exception&) {
    return false;  // a later one does it
}

void Store::CheckpointBesideCommits() noexcept try {
    const std::lock_guard<std::mutex> lock(checkpointing_);
    // What others have committed meanwhile is less each time. Until it is few, a long log cannot begin anew.
    constexpr int rounds = 5;
    for (int i = 0; i < rounds; ++i) {
        const int before = checkpointed_.pages;
        Checkpoint();
        if (checkpointed_.pages < longLog || checkpointed_.pages - before <= few) break;
    }
} catch (const std::exception&) {
    // A later one does it.
}

void Store::Checkpoint() {
    checkpointed_ = checkpointer_->Checkpoint();
    tried_ = std::max(tried_, checkpointed_.pages);
}

// Carries out the changes of a group. Each member gets its own outcome.
void Store::Carry(const Group& group) {
    const auto fail = [](const Group& those) {
        for (Waiting* const one : those) {
            if (!one->failure) one->failure = std::current_exception();
        }
    };
    try {
        CarryOnce(group);
    } catch (const std::system_error& problem) {
        Group frugal;
        if (IsFull(problem)) {
            std::copy_if(group.begin(), group.end(), std::back_inserter(frugal),
                         [](const Waiting* one) { return one->need == Need::None && !one->failure; });
        }
        Group others;
        std::copy_if(group.begin(), group.end(), std::back_inserter(others),
                     [&](Waiting* one) { return std::find(frugal.begin(), frugal.end(), one) == frugal.end(); });
        fail(others);
        if (frugal.empty()) return;
        try {
            GiveUpReserve(root_);
            CarryOnce(frugal);
        } catch (...) {
            fail(frugal);
        }
    } catch (...) {
        fail(group);
    }
}

void Change::RemoveVersion(std::int64_t id, const std::string& file) {
    if (file.empty()) {
        database.Run("DELETE FROM content WHERE id = ?1", id);
    } else {
        database.Run("INSERT OR IGNORE INTO garbage VALUES (?1)", file);
        garbage.insert(file);
    }
    database.Run("DELETE FROM object_version WHERE id = ?1", id);
}

void Store::CarryOnce(const Group& group) {
    const bool onlyRows =
        std::all_of(group.begin(), group.end(), [](const Waiting* one) { return one->leaves == Leaves::OnlyRows; });
    if (group.size() > 1 && onlyRows && CarriedOut(group, false)) return;
    CarriedOut(group, group.size() > 1);
}

// eachAlone: a member that fails is undone by itself. Otherwise a failure undoes the whole group; returns false then.
bool Store::CarriedOut(const Group& group, bool eachAlone) {
    Database& database = *writer_;
    database.NeedInPlace();
    Change change{database, data_, 0, {}, {}, {}};
    {
        Database::Transaction transaction(database);
        const std::int64_t firstId = database.Number("SELECT next_id FROM store");
        change.nextId = firstId;
        bool any = false;
        try {
            for (Waiting* const one : group) {
                // A savepoint, to undo this member alone when it fails.
                const std::size_t placed = change.placed.size();
                const std::set<std::string> garbage = change.garbage;
                if (eachAlone) database.Run("SAVEPOINT one");
                try {
                    one->work(change);
                    any = true;
                } catch (...) {
                    if (group.size() == 1) throw;
                    if (!eachAlone) return false;
                    one->failure = std::current_exception();
                    if (!database.InTransaction()) throw;  // all is undone
                    database.Run("ROLLBACK TO one");
                    for (std::size_t i = placed; i < change.placed.size(); ++i) RemoveQuietly(change.placed[i]);
                    change.placed.resize(placed);
                    change.garbage = garbage;
                }
                if (eachAlone) database.Run("RELEASE one");
            }
            if (!any) return true;
            if (!inDoubt_.empty()) ChangeSomething(database);
            if (change.nextId != firstId) database.Run("UPDATE store SET next_id = ?1", change.nextId);
            data_.Flush();
        } catch (...) {
            for (const std::string& file : change.placed) RemoveQuietly(file);
            throw;
        }
        // A commit that failed may still turn out to last, so its files stay until a later commit has overwritten it.
        const std::size_t before = inDoubt_.size();
        inDoubt_.insert(inDoubt_.end(), change.placed.begin(), change.placed.end());
        transaction.Commit();
        inDoubt_.resize(before);
    }
    RemoveFilesAfter(change);
    return true;
}

void Store::RemoveFilesAfter(const Change& change) noexcept try {
    for (const std::string& file : change.garbage) RemoveQuietly(file);
    for (const std::string& file : std::exchange(inDoubt_, {})) {
        if (!HasRow(change.database, file)) RemoveQuietly(file);
    }
} catch (const std::exception&) {
    // The change lasts even so.
}

void Store::RemoveQuietly(const std::string& file) const noexcept try {
    data_.Remove(file);
} catch (const std::exception&) {
    // The next opening of the store removes it.
}

}  // namespace standin
