// A store on the disk, shared by all sessions of the process that work on it. It has the only connections that write.
//
//     mark             what makes the folder a store: its format, its identity, whether it is complete
//     catalogue.db     everything but the bytes of large objects; carries the same identity
//     data/, incoming/ see ObjectData.h
//     lost+found/      what belongs to no version; the store only ever puts things there
//     reserve          room to be given up when the disk is full, so that things can be deleted
#pragma once

#include <semaphore.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Database.h"
#include "Files.h"
#include "ObjectData.h"

namespace standin {

// What a change works with while it is its turn.
struct Change {
    Database& database;
    ObjectData& data;
    std::int64_t nextId;
    std::vector<std::string> placed;  // files that have come to data/
    std::set<std::string> garbage;    // files that go once the change lasts; they have rows in garbage too

    // The filespace that was asked for last, which is mostly the next one's too.
    struct {
        std::int64_t node = 0, id = 0;
        std::string name;
    } last;

    void RemoveVersion(std::int64_t id, const std::string& file);
};

class Store {
public:
    // Opens a store. Makes one if there is nothing, converts one of schema 1, and tidies up after interrupted
    // processes. Throws, and changes nothing, if the folder holds something else or a store that cannot be trusted.
    static std::shared_ptr<Store> Open(const std::string& storeDir);
    Store(Folder root, bool readOnly, std::string identity);  // for Open
    ~Store();

    // Carries out a change, all or nothing; it is durable when this returns. Changes that wait together share one
    // transaction and its flush; each fails for itself unless the commit fails. On a full disk a change that frees
    // space may use the reserve. Throws what the work throws. Work that leaves only rows behind may be done twice: a
    // group is first tried without savepoints, which cost a tenth of the time.
    using Work = std::function<void(Change&)>;
    enum class Need { Space, None };
    enum class Leaves { Anything, OnlyRows };
    void Submit(Need need, const Work& work, Leaves leaves = Leaves::Anything);

    // Removes the rows and the data of deleted filespaces, in steps that need little room. The next opening does what
    // is left.
    void RemoveDeletedFilespaces() noexcept;
    // How often this process has done so.
    unsigned FilespaceDeletions() const { return filespaceDeletions_; }

    bool ReadOnly() const { return readOnly_; }
    const Folder& Root() const { return root_; }
    const ObjectData& Data() const { return data_; }
    // For connections that only read.
    std::string CataloguePath() const { return root_.Path() + "/catalogue.db"; }
    Database::Mode ReadingMode() const;

private:
    struct Waiting;
    using Group = std::vector<Waiting*>;
    // A mutex and a condition variable would cost the woken thread one more system call.
    class Semaphore {
    public:
        Semaphore() { sem_init(&semaphore_, 0, 0); }
        ~Semaphore() { sem_destroy(&semaphore_); }
        Semaphore(const Semaphore&) = delete;
        Semaphore& operator=(const Semaphore&) = delete;
        void Post() { sem_post(&semaphore_); }
        void Wait() {
            while (sem_wait(&semaphore_) != 0) continue;  // interrupted by a signal
        }

    private:
        sem_t semaphore_;
    };
    struct Waiting {
        enum class Turn { NotYet, Carries, IsOver };
        void Tell(Turn what);
        Turn Wait();
        void TellOthers() const;

        const Work& work;
        const Need need;
        const Leaves leaves;
        std::exception_ptr failure;
        Turn turn = Turn::NotYet;
        // The members of the group that this one wakes in turn: one thread alone would take long to wake all.
        std::array<Waiting*, 2> others{};
        Semaphore told;
    };

    void Carry(const Group& group);
    void CarryOnce(const Group& group);
    bool CarriedOut(const Group& group, bool eachAlone);
    void RemoveFilesAfter(const Change& change) noexcept;
    void RemoveQuietly(const std::string& file) const noexcept;
    bool CheckpointIsDue();
    void CheckpointBesideCommits() noexcept;
    void Checkpoint();
    void Tidy();
    void SweepData();

    const Folder root_;
    const bool readOnly_;
    const std::string identity_;
    ObjectData data_;
    std::unique_ptr<Database> writer_;  // the leader's; none in a store that is only read
    std::vector<std::string> inDoubt_;  // placed by commits that failed

    // Brings the log into the main file while the next groups are carried out.
    std::mutex checkpointing_;
    std::unique_ptr<Database> checkpointer_;
    Database::Log checkpointed_;
    int tried_ = 0;       // the pages that the log had when a checkpoint was tried
    int triedToEnd_ = 0;  // and when commits waited for it

    std::atomic<unsigned> filespaceDeletions_{0};

    std::mutex mutex_;  // of the queue
    Group queue_;
    bool carrying_ = false;
    // How many threads had a part in the last change or waited at its end, and how long it waited for the disk.
    std::size_t company_ = 0;
    std::chrono::nanoseconds waited_{0};
    std::size_t gathers_ = 0;  // how many the leader waits for
    std::condition_variable allHere_;
};

}  // namespace standin
