// Two threads with a session each: each stores an object of its own and reads it back.
#include <algorithm>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "host.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The library never writes to the texts that it is given.
char* Text(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

void Check(const char* call, long long result) {
    if (result < 0) throw std::runtime_error(std::string(call) + " failed: " + std::to_string(result));
}

// Used by one thread. After an exception, destroy it: that drops what was left open.
class Session {
public:
    Session() : handle_(OpenSession()) {
        if (handle_ == 0) throw std::runtime_error("no session");
    }
    ~Session() { TsmCloseSession(handle_); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Store(const std::string& path, const std::string& name, Bytes& data) {
        const auto announced = std::max<long long>(1, static_cast<long long>(data.size()));
        Check("TsmBeginBackup", TsmBeginBackup(handle_, Text(path), Text(name), announced));
        for (std::size_t at = 0; at < data.size(); at += pieceSize) {
            const std::size_t length = std::min(pieceSize, data.size() - at);
            Check("TsmSendData", TsmSendData(handle_, &data[at], static_cast<int>(length)));
        }
        Check("TsmEndBackup", TsmEndBackup(handle_));
    }

    Bytes Fetch(const std::string& path, const std::string& name) {
        Bytes room(pieceSize);
        Bytes data;
        const long long size = TsmBeginRestore(handle_, Text(path), Text(name), nullptr);
        int length = 0;
        while (size >= 0 && (length = GetPiece(handle_, room.data(), static_cast<int>(pieceSize))) > 0) {
            data.insert(data.end(), room.begin(), room.begin() + length);
        }
        const int end = TsmEndRestore(handle_);  // called after a failure too; its result does not matter then
        Check("TsmBeginRestore", size);
        Check("TsmGetData", length);
        Check("TsmEndRestore", end);
        return data;
    }

private:
    static constexpr std::size_t pieceSize = 256 * 1024;  // a restore needs at least 32768
    const int handle_;
};

// The work of one thread from sign-on to sign-off. Returns a line to print.
std::string StoreAndFetch(const std::string& name, unsigned char fill) {
    Session session;
    Bytes data(1000000, fill);
    session.Store("threads", name, data);
    if (session.Fetch("threads", name) != data) throw std::runtime_error(name + " came back changed");
    return name + ": " + std::to_string(data.size()) + " bytes stored and read back";
}

// Waits for both threads. Returns 0 when both did their work.
int RunThreads() try {
    std::future<std::string> results[] = {std::async(std::launch::async, StoreAndFetch, "one", '1'),
                                          std::async(std::launch::async, StoreAndFetch, "two", '2')};
    for (std::future<std::string>& result : results) std::puts(result.get().c_str());
    return FinishOutput();
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
}

}  // namespace

int main() {
    const int failed = StartApi();
    return EndApi(failed ? failed : RunThreads());
}
