// Tests of the library against the double, at the boundary to the API.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "double/ApiDouble.h"
#include "tsmconnector.h"

inline char* C(const char* text) {
    return const_cast<char*>(text);
}

inline unsigned char* Bytes(const char* text) {
    return reinterpret_cast<unsigned char*>(C(text));
}

inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// "BeginTxn EndTxn" as the names of calls.
inline Lines Calls(const std::string& words) {
    std::istringstream text(words);
    Lines calls;
    for (std::string word; text >> word;) calls.push_back("dsm" + word);
    return calls;
}

// A whole query for names, their type and state, without a moment.
inline Lines Asked(const std::string& names, int type, int state) {
    return {"dsmBeginQuery q=1 v=2 " + names + " type=" + std::to_string(type) + " state=" + std::to_string(state) +
                " at=0.0.0.0.0.0",
            "dsmGetNextQObj v=3 length=4600 response=8", "dsmEndQuery"};
}

inline Lines Announced(const std::string& object, const std::string& attributes) {
    return {"dsmBindMC " + object + " send=0 v=1 mc=''", "dsmBeginTxn",
            "dsmSendObj send=0 " + object + " v=4 owner='' size=" + attributes};
}

const Lines commit = {"dsmEndSendObj", "dsmEndTxn vote=1 reason=0"};

// A directory that is looked up and then created; the look-up may be under another name.
inline Lines NewDirectory(const std::string& names, const std::string& mc = "null", std::string lookedUp = {}) {
    return Asked(lookedUp.empty() ? names : lookedUp, DSM_OBJ_DIRECTORY, DSM_ACTIVE) +
           Announced(names + " type=2", "0:0 compressed=0 info='' length=1 mc=" + mc) + commit;
}

// The results of several calls.
template <class... Results>
std::vector<long long> All(Results... results) {
    return {results...};
}

class Library : public testing::Test {
protected:
    void SetUp() override {
        api.Reset();
        ASSERT_EQ(TsmInitApi(nullptr, nullptr, nullptr, nullptr), 0);
        api.TakeCalls();
    }
    void TearDown() override {
        if (tsmApi) TsmReleaseApi();
    }
    int Open(const char* delimiter, dsUint32_t handle = 7) {
        EXPECT_EQ(api.TakeCalls(), Lines{}) << "calls that nobody looked at";
        api.nextHandle = handle;
        const int opened = TsmOpenSession(C("NODE"), nullptr, C("secret"), nullptr, nullptr, nullptr, C(delimiter));
        EXPECT_EQ(api.TakeCallNames(), Lines{"dsmInitEx"}) << "and nothing else";
        return opened;
    }
    // A session with a filespace and no calls written down yet.
    int Connect(const char* delimiter = "/") {
        const int opened = Open(delimiter);
        EXPECT_EQ(TsmConnectToFileSpace(opened, C("vm")), 0);
        api.TakeCalls();
        return opened;
    }
    // The result of one call that the API answers so, and the functions of the API that it calls.
    void Expect(const std::map<std::string, std::deque<Answer>>& answers, long long result, const std::string& calls,
                const std::function<long long()>& call) {
        for (const auto& [function, scripted] : answers) api.Answers(function, scripted);
        EXPECT_EQ(call(), result) << calls;
        EXPECT_EQ(api.TakeCallNames(), Calls(calls));
        for (const auto& [function, scripted] : answers) api.Answers(function, {});
    }
    ApiDouble& api = ApiDouble::Get();
};

// With a session on the filespace "vm" of which the delimiter is a slash.
class Connected : public Library {
protected:
    void SetUp() override {
        Library::SetUp();
        session = Connect();
    }
    int session = 0;
};
