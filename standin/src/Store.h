// A store on the disk, shared by all sessions of the process that work on it. It has the only connection that writes.
//
//     mark             what makes the folder a store: its format, its identity, whether it is complete
//     catalogue.db     everything but the bytes of large objects; carries the same identity
//     data/, incoming/ see ObjectData.h
//     lost+found/      what belongs to no version; the store only ever puts things there
//     reserve          room to be given up when the disk is full, so that things can be deleted
#pragma once

#include <atomic>
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
    // Makes the store where there is nothing, takes one of schema 1 over, and tidies up what interrupted processes
    // left. What is no store, or not one that can be trusted, is refused and left as it is.
    static std::shared_ptr<Store> Open(const std::string& storeDir);
    Store(Folder root, bool readOnly, std::string identity);  // for Open
    ~Store();

    // Carries a change out, all or nothing; when this returns, it lasts. Changes that wait together share one
    // transaction and its flush; each fails for itself unless the commit as such does. On a full disk one that
    // frees space is given the reserve. Throws what the work throws.
    using Work = std::function<void(Change&)>;
    enum class Need { Space, None };
    void Submit(Need need, const Work& work);

    // Removes the rows and the data of filespaces that were deleted, in steps that take little room. What it does not
    // come to, the next opening does.
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
    struct Waiting {
        enum class Turn { NotYet, Carries, IsOver };
        void Tell(Turn what);
        Turn Wait();

        const Work& work;
        const Need need;
        std::exception_ptr failure;
        Turn turn = Turn::NotYet;
        std::mutex mutex;  // of its own, so that many who wake up do not stand in each other's way
        std::condition_variable wake;
    };
    using Group = std::vector<Waiting*>;

    void Carry(const Group& group);
    void CarryOnce(const Group& group);
    void RemoveFilesAfter(const Change& change) noexcept;
    void RemoveQuietly(const std::string& file) const noexcept;
    void Tidy();
    void SweepData();

    const Folder root_;
    const bool readOnly_;
    const std::string identity_;
    ObjectData data_;
    std::unique_ptr<Database> writer_;  // the leader's; none in a store that is only read
    std::vector<std::string> inDoubt_;  // placed by commits that failed

    std::atomic<unsigned> filespaceDeletions_{0};

    std::mutex mutex_;  // of the queue
    Group queue_;
    bool carrying_ = false;
    std::size_t lastGroup_ = 0;  // how many the last one were
};

}  // namespace standin
