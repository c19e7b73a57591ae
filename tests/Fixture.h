// Tests of the library against the double, at the boundary to the API.
#ifndef TESTS_FIXTURE_H
#define TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "double/ApiDouble.h"
#include "tsmconnector.h"

inline char* C(const char* text) {
    return const_cast<char*>(text);
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

class Library : public testing::Test {
protected:
    void SetUp() override {
        api.Reset();
        ASSERT_EQ(TsmInitApi(nullptr, nullptr, nullptr, nullptr), 0);
        api.Taken();
    }
    void TearDown() override {
        if (tsmApi != nullptr) TsmReleaseApi();
    }
    int Open(const char* delimiter, dsUint32_t handle = 7) {
        EXPECT_EQ(api.Taken(), Lines{}) << "calls that nobody looked at";
        api.nextHandle = handle;
        const int opened = TsmOpenSession(C("NODE"), nullptr, C("secret"), nullptr, nullptr, nullptr, C(delimiter));
        EXPECT_EQ(api.TakenNames(), Lines{"dsmInitEx"}) << "and nothing else";
        return opened;
    }
    // A session with a filespace and no calls written down yet.
    int Connect(const char* delimiter = "/") {
        const int opened = Open(delimiter);
        EXPECT_EQ(TsmConnectToFileSpace(opened, C("vm")), 0);
        api.Taken();
        return opened;
    }
    ApiDouble& api = ApiDouble::Get();
};

#endif
